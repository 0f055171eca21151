#pragma once

#include <memory>

#include "Common/config/SdkConfig.hpp"
#include "Common/util/DeviceInfo.hpp"
#include "TernTracking/DeviceAttributesProvider.hpp"

namespace tern {

// The library's default device attributes: its version, the app's version, the device's
// locale, maker, model and OS version, and whether push is enabled. None when the
// configuration turns autoTrackDeviceAttributes off.
class SdkDeviceAttributesProvider final : public DeviceAttributesProvider {
public:
    SdkDeviceAttributesProvider(SdkConfig sdkConfig, std::shared_ptr<DeviceInfo> deviceInfo);

    // Calls back on the thread of the platform's notification-settings answer (at once, on the
    // caller's thread, when the attributes are off).
    void getDefaultDeviceAttributes(std::function<void(nlohmann::json)> onComplete) override;

private:
    const SdkConfig sdkConfig_;
    const std::shared_ptr<DeviceInfo> deviceInfo_;
};

}  // namespace tern
