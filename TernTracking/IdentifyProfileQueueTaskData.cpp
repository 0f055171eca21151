#include "TernTracking/IdentifyProfileQueueTaskData.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

std::expected<IdentifyProfileQueueTaskData, DecodingError> IdentifyProfileQueueTaskData::decode(
    const JsonDecoder& decoder) {
    JsonRecordReader reader(decoder);
    auto identifier = reader.decode<std::string>("identifier");
    auto attributesJsonString = reader.decodeIfPresent<std::string>("attributes_json_string");
    if (!reader.ok()) return reader.failure();
    return IdentifyProfileQueueTaskData{std::move(identifier), std::move(attributesJsonString)};
}

void IdentifyProfileQueueTaskData::encode(JsonEncoder& encoder) const {
    encoder.encode("identifier", identifier);
    encoder.encodeIfPresent("attributes_json_string", attributesJsonString);
}

std::string IdentifyProfileQueueTaskData::description() const {
    std::optional<std::string> attributes;
    if (attributesJsonString) attributes = quotedDescription(*attributesJsonString);
    return "IdentifyProfileQueueTaskData(identifier: " + quotedDescription(identifier) +
           ", attributesJsonString: " + optionalDescription(attributes) + ")";
}

}  // namespace tern
