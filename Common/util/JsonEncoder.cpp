#include "Common/util/JsonCoding.hpp"

#include "Common/util/Utf8.hpp"

namespace tern {

JsonEncoder::JsonEncoder(CodingPath codingPath) : codingPath_(std::move(codingPath)) {}

void JsonEncoder::beginObject() {
    if (!value_.is_object()) value_ = nlohmann::json::object();
}

void JsonEncoder::beginArray() { value_ = nlohmann::json::array(); }

void JsonEncoder::fail(EncodingError error) {
    if (!error_) error_ = std::move(error);
}

EncodingError JsonEncoder::invalidValue(std::string valueDescription,
                                        std::string debugDescription) const {
    return EncodingError::invalidValue(std::move(valueDescription), codingPath_,
                                       std::move(debugDescription));
}

bool JsonEncoder::acceptKey(std::string_view key, const CodingPath& memberPath) {
    if (isValidUtf8(key)) return true;
    fail(EncodingError::invalidValue("\"" + repairedUtf8(key) + "\"", memberPath,
                                     "Key is not valid UTF-8."));
    return false;
}

}  // namespace tern
