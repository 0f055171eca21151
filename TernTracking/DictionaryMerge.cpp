#include "TernTracking/DictionaryMerge.hpp"

namespace tern {

nlohmann::json mergeWith(const nlohmann::json& dictionary, const nlohmann::json& other) {
    nlohmann::json merged = dictionary.is_object() ? dictionary : nlohmann::json::object();
    if (!other.is_object()) return merged;
    for (const auto& [key, value] : other.items()) merged[key] = value;
    return merged;
}

}  // namespace tern
