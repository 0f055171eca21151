#pragma once

#include <optional>
#include <string>

#include "Common/util/JsonCoding.hpp"
#include "Common/util/StringAnyEncodable.hpp"
#include "platform/Date.hpp"

namespace tern {

// The device as a token registration describes it:
// {"attributes", "id", "last_used", "platform"}.
struct Device {
    // The push device token.
    std::string token;
    // The OS name of the device info.
    std::string platform;
    vontu::platform::Date lastUsed;
    // The merged device attributes; left out when absent.
    std::optional<StringAnyEncodable> attributes;

    void encode(JsonEncoder& encoder) const;
    std::string description() const;
};

}  // namespace tern
