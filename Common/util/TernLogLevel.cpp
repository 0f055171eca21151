#include "Common/util/TernLogLevel.hpp"

namespace tern {

std::string_view rawValue(TernLogLevel level) {
    switch (level) {
        case TernLogLevel::none: return "none";
        case TernLogLevel::error: return "error";
        case TernLogLevel::info: return "info";
        case TernLogLevel::debug: return "debug";
    }
    return "none";
}

std::string_view description(TernLogLevel level) { return rawValue(level); }

template <>
std::optional<TernLogLevel> fromRawValue<TernLogLevel>(std::string_view text) {
    for (TernLogLevel level : ternLogLevelAllCases) {
        if (rawValue(level) == text) return level;
    }
    return std::nullopt;
}

}  // namespace tern
