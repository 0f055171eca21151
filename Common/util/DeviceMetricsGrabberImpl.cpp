#include "Common/util/DeviceMetricsGrabberImpl.hpp"

#include "platform/Env.hpp"

namespace tern {

std::optional<std::string> DeviceMetricsGrabberImpl::appBundleId() const {
    return vontu::platform::Env::current().bundleIdentifier();
}

}  // namespace tern
