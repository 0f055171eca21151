#pragma once

#include <optional>
#include <string_view>

#include "Common/util/RawValue.hpp"

namespace tern {

// The keys under which the library keeps its small values on the device. The raw value is the
// key text in the defaults suite.
enum class KeyValueStorageKey {
    identifiedProfileId,    // string, in the site's own suite
    pushDeviceToken,        // string, in the suite shared by all sites
    httpRequestsPauseEnds,  // date, in the suite shared by all sites
};

// "identifiedProfileId", "pushDeviceToken", "httpRequestsPauseEnds".
std::string_view rawValue(KeyValueStorageKey key);
template <>
std::optional<KeyValueStorageKey> fromRawValue<KeyValueStorageKey>(std::string_view rawValue);

}  // namespace tern
