#include "Common/util/UserAgentUtilImpl.hpp"

#include "Common/util/SdkVersion.hpp"

namespace tern {

UserAgentUtilImpl::UserAgentUtilImpl(std::shared_ptr<DeviceInfo> deviceInfo, SdkConfig sdkConfig)
    : deviceInfo_(std::move(deviceInfo)), sdkConfig_(std::move(sdkConfig)) {}

std::string UserAgentUtilImpl::getUserAgentHeaderValue() const {
    std::string userAgent = "Tern iOS Client/" + std::string(SdkVersion::version);
    if (const auto& wrapper = sdkConfig_._sdkWrapperConfig) {
        userAgent = "Tern " + std::string(rawValue(wrapper->source)) + " Client/" +
                    wrapper->version;
    }
    if (!deviceInfo_) return userAgent;

    auto model = deviceInfo_->deviceModel();
    auto osVersion = deviceInfo_->osVersion();
    auto osName = deviceInfo_->osName();
    if (model && osVersion && osName) {
        userAgent += " (" + *model + "; " + *osName + " " + *osVersion + ")";
        userAgent += " " + deviceInfo_->customerBundleId() + "/" +
                     deviceInfo_->customerAppVersion();
    }
    return userAgent;
}

}  // namespace tern
