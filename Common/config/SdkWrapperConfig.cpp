#include "Common/config/SdkWrapperConfig.hpp"

#include <array>

namespace tern {

namespace {

constexpr std::array allSources = {SdkWrapperConfig::Source::reactNative,
                                   SdkWrapperConfig::Source::expo,
                                   SdkWrapperConfig::Source::flutter};

}  // namespace

std::string_view rawValue(SdkWrapperConfig::Source source) {
    switch (source) {
        case SdkWrapperConfig::Source::reactNative: return "ReactNative";
        case SdkWrapperConfig::Source::expo: return "Expo";
        case SdkWrapperConfig::Source::flutter: return "Flutter";
    }
    return "ReactNative";
}

std::string_view description(SdkWrapperConfig::Source source) {
    switch (source) {
        case SdkWrapperConfig::Source::reactNative: return "reactNative";
        case SdkWrapperConfig::Source::expo: return "expo";
        case SdkWrapperConfig::Source::flutter: return "flutter";
    }
    return "reactNative";
}

template <>
std::optional<SdkWrapperConfig::Source> fromRawValue<SdkWrapperConfig::Source>(
    std::string_view text) {
    for (auto source : allSources) {
        if (rawValue(source) == text) return source;
    }
    return std::nullopt;
}

std::string SdkWrapperConfig::description() const {
    return "SdkWrapperConfig(source: " + std::string(tern::description(source)) +
           ", version: \"" + version + "\")";
}

}  // namespace tern
