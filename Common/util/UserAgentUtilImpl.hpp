#pragma once

#include <memory>
#include <string>

#include "Common/config/SdkConfig.hpp"
#include "Common/util/DeviceInfo.hpp"
#include "Common/util/UserAgentUtil.hpp"

namespace tern {

// "Tern iOS Client/<sdk version>" (or "Tern <wrapper source> Client/<wrapper version>"),
// followed by " (<model>; <os name> <os version>) <bundle id>/<app version>" when the device
// model and both OS values are known.
class UserAgentUtilImpl : public UserAgentUtil {
public:
    UserAgentUtilImpl(std::shared_ptr<DeviceInfo> deviceInfo, SdkConfig sdkConfig);

    std::string getUserAgentHeaderValue() const override;

private:
    std::shared_ptr<DeviceInfo> deviceInfo_;
    SdkConfig sdkConfig_;
};

}  // namespace tern
