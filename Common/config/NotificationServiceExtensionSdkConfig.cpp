#include "Common/config/NotificationServiceExtensionSdkConfig.hpp"

namespace tern {

NotificationServiceExtensionSdkConfig NotificationServiceExtensionSdkConfig::Factory::create(
    Region region) {
    NotificationServiceExtensionSdkConfig config;
    config.region = region;
    config.trackingApiUrl = productionTrackingUrl(region);
    return config;
}

SdkConfig NotificationServiceExtensionSdkConfig::toSdkConfig() const {
    SdkConfig config;
    config.region = region;
    // Deliberately not this record's trackingApiUrl: an extension always reports to the
    // production API of its region.
    config.trackingApiUrl = productionTrackingUrl(region);
    config.autoTrackPushEvents = autoTrackPushEvents;
    config.logLevel = logLevel;
    config.autoTrackDeviceAttributes = autoTrackDeviceAttributes;
    config._sdkWrapperConfig = _sdkWrapperConfig;
    // The extension lives for seconds: send every queued task at once.
    config.backgroundQueueMinNumberOfTasks = 1;
    config.backgroundQueueSecondsDelay = 0.0;
    config.backgroundQueueExpiredSeconds = 259200.0;
    config.autoTrackScreenViews = false;
    config.autoScreenViewBody = nullptr;
    return config;
}

}  // namespace tern
