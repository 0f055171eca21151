#include "Common/util/JsonCoding.hpp"

#include <cmath>
#include <ctime>
#include <cxxabi.h>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include <fmt/format.h>

#include "Common/util/Utf8.hpp"
#include "platform/Crypto.hpp"

namespace tern {

namespace {

using nlohmann::json;
using vontu::platform::Bytes;
using vontu::platform::Date;

// 2^63: the first double that no longer fits a signed 64-bit integer.
constexpr double twoToThe63 = 9223372036854775808.0;

std::string describeDouble(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
    return fmt::format("{}", value);
}

std::string quotedText(std::string_view text) { return "\"" + repairedUtf8(text) + "\""; }

// The number as a double, or the failure for a value that is no number.
std::expected<double, DecodingError> decodeNumber(const JsonDecoder& decoder,
                                                  const std::string& typeName) {
    const json& value = decoder.json();
    if (value.is_null()) return std::unexpected(decoder.valueNotFound(typeName));
    if (!value.is_number()) return std::unexpected(decoder.typeMismatch(typeName));
    return value.get<double>();
}

std::optional<EncodingError> validate(const json& value, const CodingPath& path,
                                      std::size_t depth) {
    switch (value.type()) {
        case json::value_t::string: {
            const auto& text = value.get_ref<const std::string&>();
            if (isValidUtf8(text)) return std::nullopt;
            return EncodingError::invalidValue(quotedText(text), path, "String is not valid UTF-8.");
        }
        case json::value_t::number_float: {
            double number = value.get<double>();
            if (std::isfinite(number)) return std::nullopt;
            return EncodingError::invalidValue(describeDouble(number), path,
                                               "Unable to encode a non-finite number in JSON.");
        }
        case json::value_t::binary:
            return EncodingError::invalidValue(
                fmt::format("<{} bytes of binary data>", value.get_binary().size()), path,
                "Binary values have no JSON form.");
        case json::value_t::discarded:
            return EncodingError::invalidValue("<discarded>", path,
                                               "Discarded values have no JSON form.");
        case json::value_t::object:
        case json::value_t::array: {
            if (depth >= maxJsonNestingDepth) {
                return EncodingError::invalidValue("<nested too deeply>", path,
                                                   "Too many nested arrays or dictionaries.");
            }
            std::size_t index = 0;
            for (const auto& [key, element] : value.items()) {
                CodingKey step = value.is_array() ? CodingKey::index(index++)
                                                  : CodingKey::member(key);
                CodingPath elementPath = appending(path, step);
                if (value.is_object() && !isValidUtf8(key)) {
                    return EncodingError::invalidValue(quotedText(key), elementPath,
                                                       "Key is not valid UTF-8.");
                }
                if (auto error = validate(element, elementPath, depth + 1)) return error;
            }
            return std::nullopt;
        }
        case json::value_t::null:
        case json::value_t::boolean:
        case json::value_t::number_integer:
        case json::value_t::number_unsigned: return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace

std::string demangledTypeName(const std::type_info& type) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
    return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

std::string jsonKindDescription(const json& value) {
    switch (value.type()) {
        case json::value_t::null: return "null";
        case json::value_t::object: return "a dictionary";
        case json::value_t::array: return "an array";
        case json::value_t::string: return "a string";
        case json::value_t::boolean: return "a boolean";
        case json::value_t::number_integer:
        case json::value_t::number_unsigned:
        case json::value_t::number_float: return "a number";
        case json::value_t::binary: return "binary data";
        case json::value_t::discarded: return "a discarded value";
    }
    return "a value";
}

std::string describeDate(Date date) {
    double seconds = std::floor(date.secondsSince1970);
    // Dates beyond ±10^15 seconds have no calendar form worth printing.
    if (!std::isfinite(seconds) || std::fabs(seconds) > 1e15) {
        return "Date(timeIntervalSince1970: " + describeDouble(date.secondsSince1970) + ")";
    }
    std::time_t time = static_cast<std::time_t>(seconds);
    std::tm utc{};
    if (gmtime_r(&time, &utc) == nullptr) {
        return "Date(timeIntervalSince1970: " + describeDouble(date.secondsSince1970) + ")";
    }
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", utc.tm_year + 1900,
                       utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

std::optional<EncodingError> validateJsonValue(const json& value, const CodingPath& path) {
    return validate(value, path, 0);
}

std::string integerTypeName(bool isSigned, std::size_t size) {
    return fmt::format("std::{}int{}_t", isSigned ? "" : "u", size * 8);
}

namespace {

// The number as an Integer (std::int64_t or std::uint64_t) from minimum to maximum. A number
// written with a fraction or an exponent fits when it is whole: 5.0 is 5.
template <class Integer>
std::expected<Integer, DecodingError> decodeInteger(const JsonDecoder& decoder,
                                                    const std::string& typeName, Integer minimum,
                                                    Integer maximum) {
    const json& value = decoder.json();
    if (value.is_null()) return std::unexpected(decoder.valueNotFound(typeName));
    if (!value.is_number()) return std::unexpected(decoder.typeMismatch(typeName));
    std::optional<Integer> result;
    if (value.is_number_unsigned()) {
        const auto number = value.get<std::uint64_t>();
        if (std::in_range<Integer>(number)) result = static_cast<Integer>(number);
    } else if (value.is_number_integer()) {
        const auto number = value.get<std::int64_t>();
        if (std::in_range<Integer>(number)) result = static_cast<Integer>(number);
    } else {
        const double number = value.get<double>();
        const double lower = std::is_signed_v<Integer> ? -twoToThe63 : 0;
        const double beyond = std::is_signed_v<Integer> ? twoToThe63 : 2 * twoToThe63;
        if (std::isfinite(number) && std::trunc(number) == number && number >= lower &&
            number < beyond) {
            result = static_cast<Integer>(number);
        }
    }
    if (!result || *result < minimum || *result > maximum) {
        return std::unexpected(decoder.dataCorrupted("Parsed JSON number <" + value.dump() +
                                                     "> does not fit in " + typeName + "."));
    }
    return *result;
}

}  // namespace

std::expected<std::int64_t, DecodingError> decodeSignedInteger(const JsonDecoder& decoder,
                                                               const std::string& typeName,
                                                               std::int64_t minimum,
                                                               std::int64_t maximum) {
    return decodeInteger<std::int64_t>(decoder, typeName, minimum, maximum);
}

std::expected<std::uint64_t, DecodingError> decodeUnsignedInteger(const JsonDecoder& decoder,
                                                                  const std::string& typeName,
                                                                  std::uint64_t maximum) {
    return decodeInteger<std::uint64_t>(decoder, typeName, 0, maximum);
}

// --- bool

std::expected<bool, DecodingError> JsonCoding<bool>::decode(const JsonDecoder& decoder) {
    const json& value = decoder.json();
    if (value.is_null()) return std::unexpected(decoder.valueNotFound(typeName()));
    if (!value.is_boolean()) return std::unexpected(decoder.typeMismatch(typeName()));
    return value.get<bool>();
}

void JsonCoding<bool>::encode(bool value, JsonEncoder& encoder) { encoder.setJson(value); }

// --- std::string

std::expected<std::string, DecodingError> JsonCoding<std::string>::decode(
    const JsonDecoder& decoder) {
    const json& value = decoder.json();
    if (value.is_null()) return std::unexpected(decoder.valueNotFound(typeName()));
    if (!value.is_string()) return std::unexpected(decoder.typeMismatch(typeName()));
    return value.get<std::string>();
}

void JsonCoding<std::string>::encode(const std::string& value, JsonEncoder& encoder) {
    if (!isValidUtf8(value)) {
        encoder.fail(encoder.invalidValue(quotedText(value), "String is not valid UTF-8."));
        return;
    }
    encoder.setJson(value);
}

// --- double and float

std::expected<double, DecodingError> JsonCoding<double>::decode(const JsonDecoder& decoder) {
    return decodeNumber(decoder, typeName());
}

void JsonCoding<double>::encode(double value, JsonEncoder& encoder) {
    if (!std::isfinite(value)) {
        encoder.fail(encoder.invalidValue(describeDouble(value),
                                          "Unable to encode a non-finite number in JSON."));
        return;
    }
    encoder.setJson(value);
}

std::expected<float, DecodingError> JsonCoding<float>::decode(const JsonDecoder& decoder) {
    auto number = decodeNumber(decoder, typeName());
    if (!number) return std::unexpected(number.error());
    if (std::fabs(*number) > static_cast<double>(std::numeric_limits<float>::max())) {
        return std::unexpected(decoder.dataCorrupted("Parsed JSON number <" +
                                                     decoder.json().dump() +
                                                     "> does not fit in float."));
    }
    return static_cast<float>(*number);
}

void JsonCoding<float>::encode(float value, JsonEncoder& encoder) {
    JsonCoding<double>::encode(static_cast<double>(value), encoder);
}

// --- Date: whole seconds since 1970 when written, any number of seconds when read

std::expected<Date, DecodingError> JsonCoding<Date>::decode(const JsonDecoder& decoder) {
    auto seconds = decodeNumber(decoder, typeName());
    if (!seconds) return std::unexpected(seconds.error());
    return Date{*seconds};
}

void JsonCoding<Date>::encode(Date value, JsonEncoder& encoder) {
    // Truncation toward zero: 1.9 s after the epoch is 1, 1.9 s before it is -1.
    double wholeSeconds = std::trunc(value.secondsSince1970);
    if (!std::isfinite(wholeSeconds) || wholeSeconds < -twoToThe63 ||
        wholeSeconds >= twoToThe63) {
        encoder.fail(encoder.invalidValue(
            describeDate(value), "Date is not representable as whole seconds since 1970."));
        return;
    }
    encoder.setJson(static_cast<std::int64_t>(wholeSeconds));
}

// --- Bytes: base64 text

std::expected<Bytes, DecodingError> JsonCoding<Bytes>::decode(const JsonDecoder& decoder) {
    auto text = JsonCoding<std::string>::decode(decoder);
    if (!text) {
        auto error = text.error();
        error.typeName = typeName();
        return std::unexpected(std::move(error));
    }
    auto bytes = vontu::platform::base64Decode(*text);
    if (!bytes) return std::unexpected(decoder.dataCorrupted("Encountered Data is not valid Base64."));
    return std::move(*bytes);
}

void JsonCoding<Bytes>::encode(const Bytes& value, JsonEncoder& encoder) {
    encoder.setJson(vontu::platform::base64Encode(value));
}

// --- nlohmann::json: written as it is, once checked

void JsonCoding<json>::encode(const json& value, JsonEncoder& encoder) {
    if (auto error = validateJsonValue(value, encoder.codingPath())) {
        encoder.fail(std::move(*error));
        return;
    }
    encoder.setJson(value);
}

}  // namespace tern
