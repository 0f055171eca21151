#include "Common/util/JsonCoding.hpp"

namespace tern {

JsonDecoder::JsonDecoder(const nlohmann::json& value, CodingPath codingPath)
    : value_(&value), codingPath_(std::move(codingPath)) {}

bool JsonDecoder::contains(std::string_view key) const { return find(key) != nullptr; }

const nlohmann::json* JsonDecoder::find(std::string_view key) const {
    if (!value_->is_object()) return nullptr;
    auto found = value_->find(std::string(key));
    return found == value_->end() ? nullptr : &*found;
}

std::expected<void, DecodingError> JsonDecoder::requireObject() const {
    static const std::string objectTypeName = "nlohmann::json::object_t";
    if (value_->is_null()) return std::unexpected(valueNotFound(objectTypeName));
    if (!value_->is_object()) return std::unexpected(typeMismatch(objectTypeName));
    return {};
}

std::expected<JsonDecoder, DecodingError> JsonDecoder::member(std::string_view key) const {
    if (auto object = requireObject(); !object) return std::unexpected(object.error());
    const nlohmann::json* value = find(key);
    if (value == nullptr) {
        return std::unexpected(DecodingError::keyNotFound(
            std::string(key), codingPath_,
            "No value associated with key \"" + std::string(key) + "\"."));
    }
    return JsonDecoder(*value, appending(codingPath_, CodingKey::member(std::string(key))));
}

std::expected<std::vector<JsonDecoder>, DecodingError> JsonDecoder::elements() const {
    static const std::string arrayTypeName = "nlohmann::json::array_t";
    if (value_->is_null()) return std::unexpected(valueNotFound(arrayTypeName));
    if (!value_->is_array()) return std::unexpected(typeMismatch(arrayTypeName));
    std::vector<JsonDecoder> decoders;
    decoders.reserve(value_->size());
    for (std::size_t index = 0; index < value_->size(); ++index) {
        decoders.emplace_back((*value_)[index], appending(codingPath_, CodingKey::index(index)));
    }
    return decoders;
}

std::expected<std::vector<std::pair<std::string, JsonDecoder>>, DecodingError>
JsonDecoder::members() const {
    if (auto object = requireObject(); !object) return std::unexpected(object.error());
    std::vector<std::pair<std::string, JsonDecoder>> decoders;
    decoders.reserve(value_->size());
    for (const auto& [key, value] : value_->items()) {
        decoders.emplace_back(key, JsonDecoder(value, appending(codingPath_, CodingKey::member(key))));
    }
    return decoders;
}

DecodingError JsonDecoder::typeMismatch(const std::string& typeName) const {
    return DecodingError::typeMismatch(typeName, codingPath_,
                                       "Expected to decode " + typeName + " but found " +
                                           jsonKindDescription(*value_) + " instead.");
}

DecodingError JsonDecoder::valueNotFound(const std::string& typeName) const {
    return DecodingError::valueNotFound(typeName, codingPath_,
                                        "Expected " + typeName + " value but found null instead.");
}

DecodingError JsonDecoder::dataCorrupted(std::string debugDescription) const {
    return DecodingError::dataCorrupted(codingPath_, std::move(debugDescription));
}

}  // namespace tern
