#pragma once

#include <string_view>

namespace tern {

// The library's own version, reported in the user agent and the device attributes.
struct SdkVersion {
    static constexpr std::string_view version = "2.1.2";
};

}  // namespace tern
