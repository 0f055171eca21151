#pragma once

#include <string>

#include "platform/AutoMockable.hpp"

namespace tern {

// Lets a module follow the screen views that the library tracks.
class ScreenTrackingHook : public vontu::AutoMockable {
public:
    // A screen view named name has been queued.
    virtual void screenViewed(const std::string& name) = 0;
};

}  // namespace tern
