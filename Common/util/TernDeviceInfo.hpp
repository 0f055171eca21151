#pragma once

#include <mutex>
#include <string>

#include "Common/util/DeviceInfo.hpp"

namespace tern {

// DeviceInfo read from the platform (vontu::platform::Env). Every property but the device
// model is read on each access; the model is read once per process.
class TernDeviceInfo : public DeviceInfo {
public:
    std::string deviceManufacturer() const override;
    void setDeviceManufacturer(std::string manufacturer) override;
    std::optional<std::string> deviceModel() const override;
    std::optional<std::string> osVersion() const override;
    std::optional<std::string> osName() const override;
    std::string customerAppName() const override;
    std::string customerAppVersion() const override;
    std::string customerBundleId() const override;
    std::string sdkVersion() const override;
    // The first preferred language as language-REGION when it names both; otherwise the
    // current locale's identifier with "_" turned into "-".
    std::string deviceLocale() const override;
    void isPushSubscribed(std::function<void(bool)> completion) const override;

private:
    mutable std::mutex manufacturerMutex_;
    std::string deviceManufacturer_ = "Apple";
};

}  // namespace tern
