#include "Common/util/StringAnyEncodable.hpp"

namespace tern {

namespace {

using nlohmann::json;

// Values without a JSON form of their own: the app's "no object" and opaque binary values.
bool isNonEncodableKind(const json& value) {
    return value.is_null() || value.is_binary() || value.is_discarded();
}

// Step 1's test: a scalar, or an array (or an object inside one) of encodable values only.
// Past the nesting limit the answer is yes, so that encoding reports the depth as a failure
// instead of this check recursing without bound.
bool isEncodable(const json& value, std::size_t depth) {
    if (isNonEncodableKind(value)) return false;
    if (!value.is_structured()) return true;
    if (depth >= maxJsonNestingDepth) return true;
    for (const auto& element : value) {
        if (!isEncodable(element, depth + 1)) return false;
    }
    return true;
}

// One level of the dictionary: encodable values as they are, objects filtered recursively,
// everything else left out with its key.
struct FilteredDictionary {
    const json& dictionary;
    std::size_t depth;

    void encode(JsonEncoder& encoder) const {
        encoder.beginObject();
        if (depth >= maxJsonNestingDepth) {
            encoder.fail(encoder.invalidValue("<nested too deeply>",
                                              "Too many nested arrays or dictionaries."));
            return;
        }
        for (const auto& [key, value] : dictionary.items()) {
            if (value.is_object()) {
                encoder.encode(key, FilteredDictionary{value, depth + 1});
            } else if (isEncodable(value, depth + 1)) {
                encoder.encode(key, value);
            }
        }
    }
};

}  // namespace

void StringAnyEncodable::encode(JsonEncoder& encoder) const {
    encoder.beginObject();
    if (!data.is_object()) return;
    FilteredDictionary{data, 0}.encode(encoder);
}

std::string StringAnyEncodable::description() const {
    if (validateJsonValue(data, {}).has_value() && !data.is_binary()) {
        // Possibly too deep to print safely, or with text that is not UTF-8.
        return "StringAnyEncodable(data: <" + std::to_string(data.size()) + " values>)";
    }
    return "StringAnyEncodable(data: " + data.dump(-1, ' ', false, json::error_handler_t::replace) +
           ")";
}

}  // namespace tern
