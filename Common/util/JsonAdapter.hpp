#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "Common/util/JsonCoding.hpp"
#include "Common/util/Logger.hpp"
#include "platform/Bytes.hpp"

namespace tern {

// The library's one place for JSON: every persisted queue task and every HTTP body goes through
// here, so all share the same settings. Writing sorts the keys (equal records give identical
// bytes) and writes dates as whole seconds since 1970; reading accepts dates as any number of
// seconds. Nothing throws: every failure is logged with Logger::error and gives absent.
//
// Records take part through JsonCoding (see JsonCoding.hpp). Coding paths in log lines read
// like "tasks[2].storage_id", the root being "(root)"; type names are C++ qualified names
// ("std::string", "tern::QueueTask").
class JsonAdapter {
public:
    explicit JsonAdapter(std::shared_ptr<Logger> log);

    // Decodes data as T. With logErrors false a failure is not logged.
    template <class T>
    std::optional<T> fromJson(const vontu::platform::Bytes& data, bool logErrors = true) const {
        auto document = parse(data);
        if (!document) {
            if (logErrors) logDecodingError(document.error(), data);
            return std::nullopt;
        }
        auto decoded = JsonCoding<T>::decode(JsonDecoder(*document));
        if (decoded) return std::move(*decoded);
        if (logErrors) logDecodingError(decoded.error(), data);
        return std::nullopt;
    }
    template <class T>
    std::optional<T> fromJson(std::string_view text, bool logErrors = true) const {
        return fromJson<T>(vontu::platform::toBytes(text), logErrors);
    }

    template <class T>
    std::optional<vontu::platform::Bytes> toJson(const T& record) const {
        auto describeRecord = [&record] { return recordDescription(record); };
        JsonEncoder encoder;
        JsonCoding<T>::encode(record, encoder);
        if (encoder.failed()) {
            logEncodingError(*encoder.error(), describeRecord());
            return std::nullopt;
        }
        return serialize(encoder.json());
    }

    // toJson() as text; with nilIfEmpty, "{}" gives absent.
    template <class T>
    std::optional<std::string> toJsonString(const T& record, bool nilIfEmpty) const {
        auto data = toJson(record);
        if (!data) return std::nullopt;
        return jsonText(*data, nilIfEmpty);
    }

    // dictionary written as JSON text and read back as T, logging failures.
    template <class T>
    std::optional<T> fromDictionary(const nlohmann::json& dictionary) const {
        auto data = serializeDictionary(dictionary);
        if (!data) return std::nullopt;
        return fromJson<T>(*data, true);
    }

    // record written as JSON and read back as a plain object; absent unless it is an object.
    template <class T>
    std::optional<nlohmann::json> toDictionary(const T& record) const {
        auto data = toJson(record);
        if (!data) return std::nullopt;
        return parseDictionary(*data, [&record] { return recordDescription(record); });
    }

private:
    // data as a JSON document (at most maxJsonNestingDepth deep), or data corruption at the root.
    std::expected<nlohmann::json, DecodingError> parse(const vontu::platform::Bytes& data) const;
    // Logs "Decode ... json: J" for the failure.
    void logDecodingError(const DecodingError& error, const vontu::platform::Bytes& data) const;
    // Logs "Encoding could not encode value. ..." or "Generic encode error. ...".
    void logEncodingError(const EncodingError& error, const std::string& recordDescription) const;
    // The document as compact text with sorted keys; absent (and logged) on failure.
    std::optional<vontu::platform::Bytes> serialize(const nlohmann::json& document) const;
    std::optional<std::string> jsonText(const vontu::platform::Bytes& data, bool nilIfEmpty) const;
    std::optional<vontu::platform::Bytes> serializeDictionary(
        const nlohmann::json& dictionary) const;
    std::optional<nlohmann::json> parseDictionary(
        const vontu::platform::Bytes& data,
        const std::function<std::string()>& describeRecord) const;

    std::shared_ptr<Logger> log_;
};

}  // namespace tern
