#pragma once

#include <string_view>

namespace tern {

// The queue task types of the tracking module.
struct TrackingTaskType {
    static constexpr std::string_view identifyProfile = "identifyProfile";
    static constexpr std::string_view trackEvent = "trackEvent";
    static constexpr std::string_view registerPushToken = "registerPushToken";
    static constexpr std::string_view deletePushToken = "deletePushToken";
    static constexpr std::string_view trackPushMetric = "trackPushMetric";
};

}  // namespace tern
