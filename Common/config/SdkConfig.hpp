#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "Common/config/Region.hpp"
#include "Common/config/SdkWrapperConfig.hpp"
#include "Common/util/RawValue.hpp"
#include "Common/util/TernLogLevel.hpp"

namespace tern {

// The library's settings. A value: copies are independent. Every service reads the one copy
// that the site's dependency graph holds.
struct SdkConfig {
    // Builds the defaults for a region; the record's own member defaults equal
    // Factory::create(Region::US).
    struct Factory {
        static SdkConfig create(Region region);
    };

    // Keys understood when the configuration comes as a dictionary; each raw value is the case
    // name. siteId, apiKey and region are read by the initialisation from a dictionary, the
    // others by modify().
    enum class Keys {
        siteId,
        apiKey,
        region,
        trackingApiUrl,
        autoTrackDeviceAttributes,
        autoTrackScreenViews,
        logLevel,
        autoTrackPushEvents,
        backgroundQueueMinNumberOfTasks,
        backgroundQueueSecondsDelay,
        backgroundQueueExpiredSeconds,
        source,
        version,
    };

    Region region = Region::US;
    std::string trackingApiUrl = productionTrackingUrl(Region::US);
    bool autoTrackPushEvents = true;
    std::int64_t backgroundQueueMinNumberOfTasks = 10;
    double backgroundQueueSecondsDelay = 30.0;
    double backgroundQueueExpiredSeconds = 259200.0;  // three days
    TernLogLevel logLevel = TernLogLevel::error;
    bool autoTrackScreenViews = false;
    // Body sent with automatic screen views: returns a JSON object. Empty when absent.
    std::function<nlohmann::json()> autoScreenViewBody;
    bool autoTrackDeviceAttributes = true;
    std::optional<SdkWrapperConfig> _sdkWrapperConfig;

    // Applies the settings found in params (a JSON object; anything else changes nothing).
    // A missing key, or a value of another type than the field's, leaves the field unchanged
    // silently. See the definition for how numbers and booleans are told apart.
    void modify(const nlohmann::json& params);
};

// The case name, e.g. "trackingApiUrl".
std::string_view rawValue(SdkConfig::Keys key);
template <>
std::optional<SdkConfig::Keys> fromRawValue<SdkConfig::Keys>(std::string_view rawValue);

}  // namespace tern
