#pragma once

#include <optional>
#include <string>

#include "platform/AutoMockable.hpp"

namespace tern {

// The profile that the site has identified on this device, if any.
class ProfileStore : public vontu::AutoMockable {
public:
    virtual std::optional<std::string> identifier() = 0;
    virtual void setIdentifier(std::optional<std::string> identifier) = 0;
};

}  // namespace tern
