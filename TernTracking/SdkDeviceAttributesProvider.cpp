#include "TernTracking/SdkDeviceAttributesProvider.hpp"

#include <utility>

namespace tern {

SdkDeviceAttributesProvider::SdkDeviceAttributesProvider(SdkConfig sdkConfig,
                                                         std::shared_ptr<DeviceInfo> deviceInfo)
    : sdkConfig_(std::move(sdkConfig)), deviceInfo_(std::move(deviceInfo)) {}

void SdkDeviceAttributesProvider::getDefaultDeviceAttributes(
    std::function<void(nlohmann::json)> onComplete) {
    if (!sdkConfig_.autoTrackDeviceAttributes) {
        onComplete(nlohmann::json::object());
        return;
    }
    // A wrapper (React Native, Flutter, ...) reports its own version: that is the library the
    // app developer chose.
    std::string sdkVersion = sdkConfig_._sdkWrapperConfig ? sdkConfig_._sdkWrapperConfig->version
                                                          : deviceInfo_->sdkVersion();
    nlohmann::json attributes = {
        {"tern_sdk_version", std::move(sdkVersion)},
        {"app_version", deviceInfo_->customerAppVersion()},
        {"device_locale", deviceInfo_->deviceLocale()},
        {"device_manufacturer", deviceInfo_->deviceManufacturer()},
    };
    if (auto model = deviceInfo_->deviceModel()) attributes["device_model"] = *model;
    if (auto osVersion = deviceInfo_->osVersion()) attributes["device_os"] = *osVersion;

    deviceInfo_->isPushSubscribed([attributes = std::move(attributes),
                                   onComplete = std::move(onComplete)](bool pushEnabled) mutable {
        attributes["push_enabled"] = pushEnabled ? "true" : "false";
        onComplete(std::move(attributes));
    });
}

}  // namespace tern
