#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/AutoMockable.hpp"

namespace tern {

// What the library reports about the device and the host app: the default device attributes
// of a token registration and the parts of the user agent.
class DeviceInfo : public vontu::AutoMockable {
public:
    virtual std::string deviceManufacturer() const = 0;
    virtual void setDeviceManufacturer(std::string manufacturer) = 0;
    // The hardware identifier, e.g. "iPhone15,2" (here the uname machine).
    virtual std::optional<std::string> deviceModel() const = 0;
    virtual std::optional<std::string> osVersion() const = 0;
    virtual std::optional<std::string> osName() const = 0;
    // The host app's bundle name, short version and identifier; "" when missing.
    virtual std::string customerAppName() const = 0;
    virtual std::string customerAppVersion() const = 0;
    virtual std::string customerBundleId() const = 0;
    virtual std::string sdkVersion() const = 0;
    // A language tag such as "en-GB".
    virtual std::string deviceLocale() const = 0;
    // True only when notifications are fully authorised; provisional and ephemeral
    // authorisation count as not subscribed. The answer comes on a thread of the platform's
    // choosing.
    virtual void isPushSubscribed(std::function<void(bool)> completion) const = 0;
};

}  // namespace tern
