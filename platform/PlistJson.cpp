#include "platform/PlistJson.hpp"

#include <cstdint>
#include <limits>
#include <type_traits>

#include "platform/Crypto.hpp"

namespace vontu::platform {

namespace {

using nlohmann::json;

constexpr const char* dateKey = "$date";
constexpr const char* dataKey = "$data";

// Deeper values are refused rather than walked, so that hostile input cannot exhaust the stack.
constexpr int maximumDepth = 512;

using Result = std::expected<PlistValue, std::string>;

// Whether objects of the hosts' tagged forms ({"$date"}, {"$data"}) stand for dates and bytes.
enum class Forms { tagged, plain };

Result fromJson(const json& value, int depth, Forms forms);

// An object with the single key "$date" holding a number.
bool isDateForm(const json& object) {
    if (object.size() != 1) return false;
    const auto only = object.find(dateKey);
    return only != object.end() && only->is_number();
}

// An object with the single key "$data" holding a string.
bool isDataForm(const json& object) {
    if (object.size() != 1) return false;
    const auto only = object.find(dataKey);
    return only != object.end() && only->is_string();
}

Result bytesFromBase64(const std::string& text) {
    auto bytes = base64Decode(text);
    if (!bytes) return std::unexpected(std::string("\"$data\" is not valid base64"));
    return PlistValue(std::move(*bytes));
}

Result objectFromJson(const json& object, int depth, Forms forms) {
    if (forms == Forms::tagged && isDateForm(object)) {
        return PlistValue(Date{object.at(dateKey).get<double>()});
    }
    if (forms == Forms::tagged && isDataForm(object)) {
        return bytesFromBase64(object.at(dataKey).get_ref<const std::string&>());
    }

    PlistDictionary dictionary;
    for (const auto& [key, member] : object.items()) {
        auto converted = fromJson(member, depth + 1, forms);
        if (!converted) return std::unexpected("in \"" + key + "\": " + converted.error());
        dictionary.emplace(key, std::move(*converted));
    }
    return PlistValue(std::move(dictionary));
}

Result arrayFromJson(const json& array, int depth, Forms forms) {
    PlistArray elements;
    elements.reserve(array.size());
    for (std::size_t index = 0; index < array.size(); ++index) {
        auto converted = fromJson(array[index], depth + 1, forms);
        if (!converted) {
            return std::unexpected("at index " + std::to_string(index) + ": " + converted.error());
        }
        elements.push_back(std::move(*converted));
    }
    return PlistValue(std::move(elements));
}

// An integer too large for a signed 64-bit value is kept as a double: that is what the JSON
// parser already does with integers beyond the unsigned 64-bit range, so every integer that
// does not fit is treated alike.
PlistValue fromUnsigned(std::uint64_t number) {
    if (number <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return PlistValue(static_cast<std::int64_t>(number));
    }
    return PlistValue(static_cast<double>(number));
}

Result fromJson(const json& value, int depth, Forms forms) {
    if (depth > maximumDepth) return std::unexpected(std::string("nested too deeply"));
    switch (value.type()) {
        case json::value_t::object: return objectFromJson(value, depth, forms);
        case json::value_t::array: return arrayFromJson(value, depth, forms);
        case json::value_t::string: return PlistValue(value.get<std::string>());
        case json::value_t::boolean: return PlistValue(value.get<bool>());
        case json::value_t::number_integer: return PlistValue(value.get<std::int64_t>());
        case json::value_t::number_unsigned: return fromUnsigned(value.get<std::uint64_t>());
        case json::value_t::number_float: return PlistValue(value.get<double>());
        case json::value_t::binary: {
            const auto& binary = value.get_binary();
            return PlistValue(Bytes(binary.begin(), binary.end()));
        }
        case json::value_t::null: return std::unexpected(std::string("null has no property-list form"));
        case json::value_t::discarded: break;
    }
    return std::unexpected(std::string("not a JSON value"));
}

}  // namespace

std::expected<PlistValue, std::string> plistFromJson(const nlohmann::json& json) {
    return fromJson(json, 0, Forms::tagged);
}

std::expected<PlistValue, std::string> plistFromPlainJson(const nlohmann::json& json) {
    return fromJson(json, 0, Forms::plain);
}

// Doubles that are not finite have no JSON form; the JSON library writes them as null.
nlohmann::json plistToJson(const PlistValue& value) {
    return std::visit(
        [](const auto& stored) -> json {
            using T = std::decay_t<decltype(stored)>;
            if constexpr (std::is_same_v<T, Date>) {
                return json{{dateKey, stored.secondsSince1970}};
            } else if constexpr (std::is_same_v<T, Bytes>) {
                return json{{dataKey, base64Encode(stored)}};
            } else if constexpr (std::is_same_v<T, PlistArray>) {
                json array = json::array();
                for (const auto& element : stored) array.push_back(plistToJson(element));
                return array;
            } else if constexpr (std::is_same_v<T, PlistDictionary>) {
                json object = json::object();
                for (const auto& [key, member] : stored) object[key] = plistToJson(member);
                return object;
            } else {
                return json(stored);
            }
        },
        value.value);
}

}  // namespace vontu::platform
