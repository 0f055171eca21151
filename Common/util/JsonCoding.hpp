#pragma once

// How records become JSON and back.
//
// A record type takes part by providing
//     static std::expected<T, DecodingError> decode(const JsonDecoder& decoder);
//     void encode(JsonEncoder& encoder) const;
// (either one alone is fine for a type that is only read or only written), and optionally
//     std::string description() const;   // shown in encoding failures, "T(field: value, ...)"
// A type that cannot carry member functions (an enumeration, a type of another library)
// specialises JsonCoding<T> instead with the same three static members as below. Enumerations
// with raw values (see RawValue.hpp) are coded as their raw value string without further work.
//
// Built in: bool, std::string (text must be UTF-8), integers (range-checked), double and float
// (finite only), vontu::platform::Date (whole seconds since 1970 when written, truncated toward
// zero; any number when read), vontu::platform::Bytes (base64 text), std::vector<T> (array),
// std::map<std::string, T> (object), std::optional<T> (null when absent) and nlohmann::json
// (any JSON, written as it is).
//
// A record's encode() writes its members with encoder.encode("key", value) or, for an optional
// member that is left out when absent, encoder.encodeIfPresent("key", optionalValue). Its
// decode() reads them with decoder.decode<T>("key") (missing or null is a failure) and
// decoder.decodeIfPresent<T>("key") (missing or null is absent); JsonRecordReader below keeps
// such code short. Every failure carries the coding path of the value it concerns.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "Common/util/CodingPath.hpp"
#include "Common/util/DecodingError.hpp"
#include "Common/util/EncodingError.hpp"
#include "Common/util/RawValue.hpp"
#include "platform/Bytes.hpp"
#include "platform/Date.hpp"

namespace tern {

// Arrays and objects nested deeper than this are neither read nor written: the JSON library
// copies and prints values recursively, so unbounded nesting would exhaust the stack.
inline constexpr std::size_t maxJsonNestingDepth = 512;

// "tern::QueueTask" for a type given by typeid.
std::string demangledTypeName(const std::type_info& type);
// "a string", "a number", "null", ... for the messages of a type mismatch.
std::string jsonKindDescription(const nlohmann::json& value);
// How a date shows in a log line: "2024-01-31 12:00:00 +0000"; a date with no calendar form
// shows its raw interval, "Date(timeIntervalSince1970: nan)".
std::string describeDate(vontu::platform::Date date);

// Checks that value can be written as JSON text: finite numbers, UTF-8 text and keys, no binary
// values and at most maxJsonNestingDepth levels. On failure the error names the first offending
// value and its path below `path`.
std::optional<EncodingError> validateJsonValue(const nlohmann::json& value,
                                               const CodingPath& path);

template <class T>
struct JsonCoding;

// --- Reading ------------------------------------------------------------------------------

// A read-only view of one JSON value and its path in the document. The document must outlive
// the decoder.
class JsonDecoder {
public:
    explicit JsonDecoder(const nlohmann::json& value, CodingPath codingPath = {});

    const nlohmann::json& json() const { return *value_; }
    const CodingPath& codingPath() const { return codingPath_; }

    // This value as T.
    template <class T>
    std::expected<T, DecodingError> decode() const;
    // The member `key` of this object as T: missing is keyNotFound, null is valueNotFound
    // (unless T is optional or nlohmann::json).
    template <class T>
    std::expected<T, DecodingError> decode(std::string_view key) const;
    // The member `key` as T, absent when it is missing or null.
    template <class T>
    std::expected<std::optional<T>, DecodingError> decodeIfPresent(std::string_view key) const;

    // True when this value is an object that has the member (null counts as present).
    bool contains(std::string_view key) const;
    // A decoder for the member `key`; keyNotFound when it is missing.
    std::expected<JsonDecoder, DecodingError> member(std::string_view key) const;
    // Decoders for the elements of this array.
    std::expected<std::vector<JsonDecoder>, DecodingError> elements() const;
    // Decoders for the members of this object, by name.
    std::expected<std::vector<std::pair<std::string, JsonDecoder>>, DecodingError> members() const;

    // Failures at this value's path, for a record's own checks.
    DecodingError typeMismatch(const std::string& typeName) const;
    DecodingError valueNotFound(const std::string& typeName) const;
    DecodingError dataCorrupted(std::string debugDescription) const;

private:
    // This value's member, or null when this is not an object or lacks the member.
    const nlohmann::json* find(std::string_view key) const;
    std::expected<void, DecodingError> requireObject() const;

    const nlohmann::json* value_;
    CodingPath codingPath_;
};

// Reads a record's members one after another and remembers the first failure, so a decode()
// reads as a list of fields:
//     JsonRecordReader reader(decoder);
//     auto name = reader.decode<std::string>("name");
//     auto age = reader.decodeIfPresent<std::int64_t>("age");
//     if (!reader.ok()) return reader.failure();
//     return Person{std::move(name), age};
// After a failure every further read returns a default value without looking at the JSON.
class JsonRecordReader {
public:
    explicit JsonRecordReader(const JsonDecoder& decoder) : decoder_(decoder) {}

    template <class T>
    T decode(std::string_view key) {
        if (error_) return T{};
        auto value = decoder_.decode<T>(key);
        if (!value) {
            error_ = std::move(value.error());
            return T{};
        }
        return std::move(*value);
    }

    template <class T>
    std::optional<T> decodeIfPresent(std::string_view key) {
        if (error_) return std::nullopt;
        auto value = decoder_.decodeIfPresent<T>(key);
        if (!value) {
            error_ = std::move(value.error());
            return std::nullopt;
        }
        return std::move(*value);
    }

    bool ok() const { return !error_.has_value(); }
    const std::optional<DecodingError>& error() const { return error_; }
    std::unexpected<DecodingError> failure() const { return std::unexpected(*error_); }

private:
    const JsonDecoder& decoder_;
    std::optional<DecodingError> error_;
};

// --- Writing ------------------------------------------------------------------------------

// Builds one JSON value. The first failure is kept and every later write is ignored, so a
// record's encode() need not check after each member.
class JsonEncoder {
public:
    explicit JsonEncoder(CodingPath codingPath = {});

    // Writes value as the member `key` of this object.
    template <class T>
    void encode(std::string_view key, const T& value);
    // Writes value as the member `key` when present; leaves the member out when absent.
    template <class T>
    void encodeIfPresent(std::string_view key, const std::optional<T>& value) {
        if (value) encode(key, *value);
    }
    // Writes value as this whole value (a record that is coded as a string, say).
    template <class T>
    void encodeValue(const T& value);

    // Makes this value an empty object unless it is one already, so a record with nothing to
    // write still gives "{}".
    void beginObject();
    // Makes this value an empty array.
    void beginArray();
    // Replaces this value with plain JSON that was checked with validateJsonValue.
    void setJson(nlohmann::json value) { value_ = std::move(value); }
    // Appends an element to this array (made one if needed).
    template <class T>
    void append(const T& value);

    // Records a failure (the first one wins).
    void fail(EncodingError error);
    // An invalid-value failure at this value's path.
    EncodingError invalidValue(std::string valueDescription, std::string debugDescription) const;

    bool failed() const { return error_.has_value(); }
    const std::optional<EncodingError>& error() const { return error_; }
    const CodingPath& codingPath() const { return codingPath_; }
    // The value built so far.
    const nlohmann::json& json() const { return value_; }
    nlohmann::json take() { return std::move(value_); }

private:
    // False, with a failure recorded, when the member name is not UTF-8.
    bool acceptKey(std::string_view key, const CodingPath& memberPath);

    nlohmann::json value_;
    CodingPath codingPath_;
    std::optional<EncodingError> error_;
};

// --- Coding of the built-in types ----------------------------------------------------------

template <class T>
concept DecodableRecord = requires(const JsonDecoder& decoder) {
    { T::decode(decoder) } -> std::same_as<std::expected<T, DecodingError>>;
};
template <class T>
concept EncodableRecord = requires(const T& value, JsonEncoder& encoder) { value.encode(encoder); };
template <class T>
concept DescribableRecord = requires(const T& value) {
    { value.description() } -> std::convertible_to<std::string>;
};
template <class T>
concept RawValueEnum = std::is_enum_v<T> && requires(T value) {
    { rawValue(value) } -> std::convertible_to<std::string_view>;
};
template <class T>
concept JsonEncodable = requires(const T& value, JsonEncoder& encoder) {
    JsonCoding<T>::encode(value, encoder);
};
template <class T>
concept JsonDecodable = requires(const JsonDecoder& decoder) {
    { JsonCoding<T>::decode(decoder) } -> std::same_as<std::expected<T, DecodingError>>;
};

// Records: through their own decode() and encode(); their JSON is an object unless encode()
// writes a single value.
template <class T>
struct JsonCoding {
    static std::string typeName() { return demangledTypeName(typeid(T)); }
    static std::expected<T, DecodingError> decode(const JsonDecoder& decoder)
        requires DecodableRecord<T>
    {
        if (decoder.json().is_null()) return std::unexpected(decoder.valueNotFound(typeName()));
        return T::decode(decoder);
    }
    static void encode(const T& value, JsonEncoder& encoder)
        requires EncodableRecord<T>
    {
        encoder.beginObject();
        value.encode(encoder);
    }
};

template <>
struct JsonCoding<bool> {
    static std::string typeName() { return "bool"; }
    static std::expected<bool, DecodingError> decode(const JsonDecoder& decoder);
    static void encode(bool value, JsonEncoder& encoder);
};

template <>
struct JsonCoding<std::string> {
    static std::string typeName() { return "std::string"; }
    static std::expected<std::string, DecodingError> decode(const JsonDecoder& decoder);
    static void encode(const std::string& value, JsonEncoder& encoder);
};

// String literals, for writing only.
template <std::size_t N>
struct JsonCoding<char[N]> {
    static void encode(const char (&value)[N], JsonEncoder& encoder) {
        JsonCoding<std::string>::encode(std::string(value), encoder);
    }
};

// The integer readers share this: the number as a 64-bit value of the wanted signedness, or a
// failure naming typeName. Fractions and values out of [minimum, maximum] are data corruption.
std::expected<std::int64_t, DecodingError> decodeSignedInteger(const JsonDecoder& decoder,
                                                               const std::string& typeName,
                                                               std::int64_t minimum,
                                                               std::int64_t maximum);
std::expected<std::uint64_t, DecodingError> decodeUnsignedInteger(const JsonDecoder& decoder,
                                                                  const std::string& typeName,
                                                                  std::uint64_t maximum);
std::string integerTypeName(bool isSigned, std::size_t size);

template <class T>
    requires(std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char>)
struct JsonCoding<T> {
    static std::string typeName() { return integerTypeName(std::is_signed_v<T>, sizeof(T)); }
    static std::expected<T, DecodingError> decode(const JsonDecoder& decoder) {
        if constexpr (std::is_signed_v<T>) {
            auto value = decodeSignedInteger(decoder, typeName(), std::numeric_limits<T>::min(),
                                             std::numeric_limits<T>::max());
            if (!value) return std::unexpected(value.error());
            return static_cast<T>(*value);
        } else {
            auto value =
                decodeUnsignedInteger(decoder, typeName(), std::numeric_limits<T>::max());
            if (!value) return std::unexpected(value.error());
            return static_cast<T>(*value);
        }
    }
    static void encode(T value, JsonEncoder& encoder) { encoder.setJson(nlohmann::json(value)); }
};

template <>
struct JsonCoding<double> {
    static std::string typeName() { return "double"; }
    static std::expected<double, DecodingError> decode(const JsonDecoder& decoder);
    static void encode(double value, JsonEncoder& encoder);
};

template <>
struct JsonCoding<float> {
    static std::string typeName() { return "float"; }
    static std::expected<float, DecodingError> decode(const JsonDecoder& decoder);
    static void encode(float value, JsonEncoder& encoder);
};

template <>
struct JsonCoding<vontu::platform::Date> {
    static std::string typeName() { return "vontu::platform::Date"; }
    static std::expected<vontu::platform::Date, DecodingError> decode(const JsonDecoder& decoder);
    static void encode(vontu::platform::Date value, JsonEncoder& encoder);
};

template <>
struct JsonCoding<vontu::platform::Bytes> {
    static std::string typeName() { return "vontu::platform::Bytes"; }
    static std::expected<vontu::platform::Bytes, DecodingError> decode(
        const JsonDecoder& decoder);
    static void encode(const vontu::platform::Bytes& value, JsonEncoder& encoder);
};

template <>
struct JsonCoding<nlohmann::json> {
    static std::string typeName() { return "nlohmann::json"; }
    static std::expected<nlohmann::json, DecodingError> decode(const JsonDecoder& decoder) {
        return decoder.json();
    }
    static void encode(const nlohmann::json& value, JsonEncoder& encoder);
};

template <class T>
struct JsonCoding<std::optional<T>> {
    static std::string typeName() { return "std::optional<" + JsonCoding<T>::typeName() + ">"; }
    static std::expected<std::optional<T>, DecodingError> decode(const JsonDecoder& decoder) {
        if (decoder.json().is_null()) return std::optional<T>();
        auto value = JsonCoding<T>::decode(decoder);
        if (!value) return std::unexpected(value.error());
        return std::optional<T>(std::move(*value));
    }
    static void encode(const std::optional<T>& value, JsonEncoder& encoder) {
        if (value) {
            JsonCoding<T>::encode(*value, encoder);
        } else {
            encoder.setJson(nullptr);
        }
    }
};

template <class T>
    requires(!std::same_as<T, std::uint8_t>)
struct JsonCoding<std::vector<T>> {
    static std::string typeName() { return "std::vector<" + JsonCoding<T>::typeName() + ">"; }
    static std::expected<std::vector<T>, DecodingError> decode(const JsonDecoder& decoder) {
        if (decoder.json().is_null()) return std::unexpected(decoder.valueNotFound(typeName()));
        auto elements = decoder.elements();
        if (!elements) return std::unexpected(elements.error());
        std::vector<T> result;
        result.reserve(elements->size());
        for (const auto& element : *elements) {
            auto value = JsonCoding<T>::decode(element);
            if (!value) return std::unexpected(value.error());
            result.push_back(std::move(*value));
        }
        return result;
    }
    static void encode(const std::vector<T>& values, JsonEncoder& encoder) {
        encoder.beginArray();
        for (const auto& value : values) encoder.append(value);
    }
};

template <class T>
struct JsonCoding<std::map<std::string, T>> {
    static std::string typeName() {
        return "std::map<std::string, " + JsonCoding<T>::typeName() + ">";
    }
    static std::expected<std::map<std::string, T>, DecodingError> decode(
        const JsonDecoder& decoder) {
        if (decoder.json().is_null()) return std::unexpected(decoder.valueNotFound(typeName()));
        auto members = decoder.members();
        if (!members) return std::unexpected(members.error());
        std::map<std::string, T> result;
        for (const auto& [key, member] : *members) {
            auto value = JsonCoding<T>::decode(member);
            if (!value) return std::unexpected(value.error());
            result.emplace(key, std::move(*value));
        }
        return result;
    }
    static void encode(const std::map<std::string, T>& values, JsonEncoder& encoder) {
        encoder.beginObject();
        for (const auto& [key, value] : values) encoder.encode(key, value);
    }
};

// Enumerations with raw values: the raw value string. An unknown string is data corruption.
template <class T>
    requires RawValueEnum<T>
struct JsonCoding<T> {
    static std::string typeName() { return demangledTypeName(typeid(T)); }
    static std::expected<T, DecodingError> decode(const JsonDecoder& decoder) {
        auto text = JsonCoding<std::string>::decode(decoder);
        if (!text) {
            auto error = text.error();
            if (!error.typeName.empty()) error.typeName = typeName();
            return std::unexpected(std::move(error));
        }
        if (auto value = fromRawValue<T>(*text)) return *value;
        return std::unexpected(decoder.dataCorrupted("Cannot initialize " + typeName() +
                                                     " from invalid String value " + *text));
    }
    static void encode(T value, JsonEncoder& encoder) {
        JsonCoding<std::string>::encode(std::string(rawValue(value)), encoder);
    }
};

// How a value shows in an encoding failure: its description() when it has one, else its
// type's name.
template <class T>
std::string recordDescription(const T& value) {
    if constexpr (DescribableRecord<T>) {
        return std::string(value.description());
    } else if constexpr (requires { JsonCoding<T>::typeName(); }) {
        return JsonCoding<T>::typeName();
    } else {
        return demangledTypeName(typeid(T));
    }
}

// --- Template members ----------------------------------------------------------------------

template <class T>
std::expected<T, DecodingError> JsonDecoder::decode() const {
    return JsonCoding<T>::decode(*this);
}

template <class T>
std::expected<T, DecodingError> JsonDecoder::decode(std::string_view key) const {
    auto decoder = member(key);
    if (!decoder) return std::unexpected(decoder.error());
    return JsonCoding<T>::decode(*decoder);
}

template <class T>
std::expected<std::optional<T>, DecodingError> JsonDecoder::decodeIfPresent(
    std::string_view key) const {
    if (auto object = requireObject(); !object) return std::unexpected(object.error());
    const nlohmann::json* value = find(key);
    if (value == nullptr || value->is_null()) return std::optional<T>();
    auto decoded = JsonCoding<T>::decode(
        JsonDecoder(*value, appending(codingPath_, CodingKey::member(std::string(key)))));
    if (!decoded) return std::unexpected(decoded.error());
    return std::optional<T>(std::move(*decoded));
}

template <class T>
void JsonEncoder::encode(std::string_view key, const T& value) {
    if (failed()) return;
    beginObject();
    JsonEncoder member(appending(codingPath_, CodingKey::member(std::string(key))));
    if (!acceptKey(key, member.codingPath())) return;
    JsonCoding<T>::encode(value, member);
    if (member.failed()) {
        fail(*member.error());
        return;
    }
    value_[std::string(key)] = member.take();
}

template <class T>
void JsonEncoder::encodeValue(const T& value) {
    if (failed()) return;
    JsonCoding<T>::encode(value, *this);
}

template <class T>
void JsonEncoder::append(const T& value) {
    if (failed()) return;
    if (!value_.is_array()) beginArray();
    JsonEncoder element(appending(codingPath_, CodingKey::index(value_.size())));
    JsonCoding<T>::encode(value, element);
    if (element.failed()) {
        fail(*element.error());
        return;
    }
    value_.push_back(element.take());
}

}  // namespace tern
