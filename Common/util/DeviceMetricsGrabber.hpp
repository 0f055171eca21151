#pragma once

#include <optional>
#include <string>

#include "platform/AutoMockable.hpp"

namespace tern {

// The host app's bundle, as far as storage needs it.
class DeviceMetricsGrabber : public vontu::AutoMockable {
public:
    // The main bundle's identifier; absent when the bundle has none.
    virtual std::optional<std::string> appBundleId() const = 0;
};

}  // namespace tern
