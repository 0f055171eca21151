#pragma once

#include <optional>
#include <string>

#include "Common/config/Region.hpp"
#include "Common/config/SdkConfig.hpp"
#include "Common/config/SdkWrapperConfig.hpp"
#include "Common/util/TernLogLevel.hpp"

namespace tern {

// The few settings that a notification service extension may change.
struct NotificationServiceExtensionSdkConfig {
    struct Factory {
        static NotificationServiceExtensionSdkConfig create(Region region);
    };

    Region region = Region::US;
    std::string trackingApiUrl = productionTrackingUrl(Region::US);
    bool autoTrackPushEvents = true;
    TernLogLevel logLevel = TernLogLevel::error;
    bool autoTrackDeviceAttributes = true;
    std::optional<SdkWrapperConfig> _sdkWrapperConfig;

    // The full configuration for an extension: its region's production URL (never this
    // record's trackingApiUrl: an extension always talks to production), and a queue that
    // sends every task at once, because the extension lives only a few seconds.
    SdkConfig toSdkConfig() const;
};

}  // namespace tern
