#pragma once

#include <string>

#include "Common/util/JsonCoding.hpp"
#include "TernTracking/Device.hpp"

namespace tern {

// The body of a "register device" request: {"device": Device}.
struct RegisterDeviceRequest {
    Device device;

    void encode(JsonEncoder& encoder) const { encoder.encode("device", device); }
    std::string description() const {
        return "RegisterDeviceRequest(device: " + device.description() + ")";
    }
};

}  // namespace tern
