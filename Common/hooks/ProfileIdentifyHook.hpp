#pragma once

#include <string>

#include "platform/AutoMockable.hpp"

namespace tern {

// Lets a module follow which profile is identified on the device.
class ProfileIdentifyHook : public vontu::AutoMockable {
public:
    // A different profile is about to replace the identified one; the new identifier is not
    // stored yet.
    virtual void beforeIdentifiedProfileChange(const std::string& oldIdentifier,
                                               const std::string& newIdentifier) = 0;
    // identifier has just become the identified profile (a first identify or a switch) and is
    // stored.
    virtual void profileIdentified(const std::string& identifier) = 0;
    // The identified profile is about to be cleared.
    virtual void beforeProfileStoppedBeingIdentified(const std::string& oldIdentifier) = 0;
};

}  // namespace tern
