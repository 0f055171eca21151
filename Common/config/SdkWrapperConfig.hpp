#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Common/util/RawValue.hpp"

namespace tern {

// A cross-platform wrapper (React Native, Expo, Flutter) that embeds the library. It changes
// the user agent so the API can tell which wrapper and version sent a request.
struct SdkWrapperConfig {
    enum class Source { reactNative, expo, flutter };

    Source source = Source::reactNative;
    std::string version;

    // "SdkWrapperConfig(source: reactNative, version: \"1.0\")".
    std::string description() const;
    bool operator==(const SdkWrapperConfig&) const = default;
};

// "ReactNative", "Expo", "Flutter"; compared case-sensitively.
std::string_view rawValue(SdkWrapperConfig::Source source);
// The case name: "reactNative", "expo", "flutter".
std::string_view description(SdkWrapperConfig::Source source);
template <>
std::optional<SdkWrapperConfig::Source> fromRawValue<SdkWrapperConfig::Source>(
    std::string_view rawValue);

}  // namespace tern
