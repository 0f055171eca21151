#include "Common/storage/KeyValueStorageKey.hpp"

#include <array>
#include <utility>

namespace tern {

namespace {
constexpr std::array<std::pair<KeyValueStorageKey, std::string_view>, 3> rawValues = {{
    {KeyValueStorageKey::identifiedProfileId, "identifiedProfileId"},
    {KeyValueStorageKey::pushDeviceToken, "pushDeviceToken"},
    {KeyValueStorageKey::httpRequestsPauseEnds, "httpRequestsPauseEnds"},
}};
}  // namespace

std::string_view rawValue(KeyValueStorageKey key) {
    for (const auto& [candidate, text] : rawValues) {
        if (candidate == key) return text;
    }
    return {};
}

template <>
std::optional<KeyValueStorageKey> fromRawValue<KeyValueStorageKey>(std::string_view rawValue) {
    for (const auto& [key, text] : rawValues) {
        if (text == rawValue) return key;
    }
    return std::nullopt;
}

}  // namespace tern
