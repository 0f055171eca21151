#include "TernTracking/TrackEventQueueTaskData.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

std::expected<TrackEventQueueTaskData, DecodingError> TrackEventQueueTaskData::decode(
    const JsonDecoder& decoder) {
    JsonRecordReader reader(decoder);
    auto identifier = reader.decode<std::string>("identifier");
    auto attributesJsonString = reader.decode<std::string>("attributes_json_string");
    if (!reader.ok()) return reader.failure();
    return TrackEventQueueTaskData{std::move(identifier), std::move(attributesJsonString)};
}

void TrackEventQueueTaskData::encode(JsonEncoder& encoder) const {
    encoder.encode("identifier", identifier);
    encoder.encode("attributes_json_string", attributesJsonString);
}

std::string TrackEventQueueTaskData::description() const {
    return "TrackEventQueueTaskData(identifier: " + quotedDescription(identifier) +
           ", attributesJsonString: " + quotedDescription(attributesJsonString) + ")";
}

}  // namespace tern
