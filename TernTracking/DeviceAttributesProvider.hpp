#pragma once

#include <functional>

#include <nlohmann/json.hpp>

#include "platform/AutoMockable.hpp"

namespace tern {

// The attributes that every device-token registration carries by default.
class DeviceAttributesProvider : public vontu::AutoMockable {
public:
    // onComplete receives an object of string values, possibly later and on another thread.
    virtual void getDefaultDeviceAttributes(std::function<void(nlohmann::json)> onComplete) = 0;
};

}  // namespace tern
