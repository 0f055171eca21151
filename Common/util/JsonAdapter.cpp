#include "Common/util/JsonAdapter.hpp"

#include "Common/util/Utf8.hpp"

namespace tern {

namespace {

using nlohmann::json;
using vontu::platform::Bytes;

// Foundation's text for data that is not JSON, which the log lines of reading failures show.
constexpr std::string_view notJsonDescription =
    "The data couldn\u2019t be read because it isn\u2019t in the correct format.";

// A pass over the text that only checks syntax and nesting depth, so that the document is
// built only from input that the JSON library can copy and print without deep recursion.
class DepthCheckingSax : public nlohmann::json_sax<json> {
public:
    bool tooDeep = false;

    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override { return enter(); }
    bool key(string_t&) override { return true; }
    bool end_object() override { return leave(); }
    bool start_array(std::size_t) override { return enter(); }
    bool end_array() override { return leave(); }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

private:
    bool enter() {
        if (++depth_ > maxJsonNestingDepth) {
            tooDeep = true;
            return false;
        }
        return true;
    }
    bool leave() {
        --depth_;
        return true;
    }

    std::size_t depth_ = 0;
};

// The JSON text J of a decoding failure's log line.
std::string jsonForLog(const Bytes& data) {
    std::string text = vontu::platform::toString(data);
    return isValidUtf8(text) ? text : "(error getting json string)";
}

// A dictionary as a log line shows it; safe for any value, however deep or malformed.
std::string describeDictionary(const json& dictionary) {
    auto problem = validateJsonValue(dictionary, {});
    if (problem && problem->valueDescription == "<nested too deeply>") {
        return "<dictionary nested too deeply to print>";
    }
    return dictionary.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

JsonAdapter::JsonAdapter(std::shared_ptr<Logger> log) : log_(std::move(log)) {}

std::expected<json, DecodingError> JsonAdapter::parse(const Bytes& data) const {
    DepthCheckingSax sax;
    bool wellFormed = false;
    try {
        wellFormed = json::sax_parse(data.begin(), data.end(), &sax);
    } catch (const std::exception&) {
        wellFormed = false;
    }
    if (!wellFormed) {
        return std::unexpected(DecodingError::dataCorrupted(
            {}, sax.tooDeep ? "Too many nested arrays or dictionaries."
                            : "The given data was not valid JSON."));
    }
    json document = json::parse(data.begin(), data.end(), nullptr, false);
    if (document.is_discarded()) {
        return std::unexpected(
            DecodingError::dataCorrupted({}, "The given data was not valid JSON."));
    }
    return document;
}

void JsonAdapter::logDecodingError(const DecodingError& error, const Bytes& data) const {
    if (!log_) return;
    std::string path = describe(error.codingPath);
    std::string jsonText = jsonForLog(data);
    switch (error.kind) {
        case DecodingError::Kind::typeMismatch:
            log_->error("Decode type did not match payload. Type: " + error.typeName +
                        ", Json path: " + path + ", json: " + jsonText);
            return;
        case DecodingError::Kind::valueNotFound:
            log_->error("Decode non-optional value not found. Value: " + error.typeName +
                        ", Json path: " + path + ", json: " + jsonText);
            return;
        case DecodingError::Kind::keyNotFound:
            log_->error("Decode key not found. Key: " + error.key + ",\nJson path: " + path +
                        ", json: " + jsonText);
            return;
        case DecodingError::Kind::dataCorrupted:
            log_->error("Decode data corrupted. Json path: " + path + ", json: " + jsonText);
            return;
        case DecodingError::Kind::other:
            log_->error("Generic decode error. " + error.debugDescription + ", json: " + jsonText);
            return;
    }
}

void JsonAdapter::logEncodingError(const EncodingError& error,
                                   const std::string& recordDescription) const {
    if (!log_) return;
    switch (error.kind) {
        case EncodingError::Kind::invalidValue:
            log_->error("Encoding could not encode value. " + error.valueDescription +
                        ", Json path: " + describe(error.codingPath) + ", object: " +
                        recordDescription);
            return;
        case EncodingError::Kind::other:
            log_->error("Generic encode error. " + error.debugDescription);
            return;
    }
}

std::optional<Bytes> JsonAdapter::serialize(const json& document) const {
    try {
        // Objects keep their keys sorted, so the text is the same for equal records.
        return vontu::platform::toBytes(document.dump(-1, ' ', false, json::error_handler_t::strict));
    } catch (const std::exception& exception) {
        if (log_) log_->error("Generic encode error. " + std::string(exception.what()));
        return std::nullopt;
    }
}

std::optional<std::string> JsonAdapter::jsonText(const Bytes& data, bool nilIfEmpty) const {
    std::string text = vontu::platform::toString(data);
    if (!isValidUtf8(text)) return std::nullopt;
    if (nilIfEmpty && text == "{}") return std::nullopt;
    return text;
}

std::optional<Bytes> JsonAdapter::serializeDictionary(const json& dictionary) const {
    std::string failure;
    if (!dictionary.is_object() && !dictionary.is_array()) {
        failure = "Invalid top-level type in JSON write";
    } else if (auto problem = validateJsonValue(dictionary, {})) {
        failure = "Invalid value in JSON write at " + describe(problem->codingPath) + ": " +
                  problem->debugDescription;
    }
    if (failure.empty()) {
        try {
            return vontu::platform::toBytes(
                dictionary.dump(-1, ' ', false, json::error_handler_t::strict));
        } catch (const std::exception& exception) {
            failure = exception.what();
        }
    }
    if (log_) log_->error(failure + ", dictionary: " + describeDictionary(dictionary));
    return std::nullopt;
}

std::optional<json> JsonAdapter::parseDictionary(
    const Bytes& data, const std::function<std::string()>& describeRecord) const {
    auto document = parse(data);
    if (!document) {
        if (log_) log_->error(std::string(notJsonDescription) + ", object: " + describeRecord());
        return std::nullopt;
    }
    if (!document->is_object()) return std::nullopt;
    return std::move(*document);
}

}  // namespace tern
