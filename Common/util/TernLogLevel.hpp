#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "Common/util/RawValue.hpp"

namespace tern {

// How much the library logs. The declaration order is also the verbosity order: each level
// writes what the one before it writes and more.
enum class TernLogLevel { none, error, info, debug };

inline constexpr std::array<TernLogLevel, 4> ternLogLevelAllCases = {
    TernLogLevel::none, TernLogLevel::error, TernLogLevel::info, TernLogLevel::debug};

// "none", "error", "info", "debug".
std::string_view rawValue(TernLogLevel level);
// The case name, as a log line shows an enumeration value (the same text as the raw value).
std::string_view description(TernLogLevel level);
template <>
std::optional<TernLogLevel> fromRawValue<TernLogLevel>(std::string_view rawValue);

}  // namespace tern
