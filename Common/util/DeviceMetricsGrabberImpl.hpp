#pragma once

#include "Common/util/DeviceMetricsGrabber.hpp"

namespace tern {

// The main bundle's identifier, from the platform.
class DeviceMetricsGrabberImpl : public DeviceMetricsGrabber {
public:
    std::optional<std::string> appBundleId() const override;
};

}  // namespace tern
