#include "TernTracking/RegisterPushNotificationQueueTaskData.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

std::expected<RegisterPushNotificationQueueTaskData, DecodingError>
RegisterPushNotificationQueueTaskData::decode(const JsonDecoder& decoder) {
    JsonRecordReader reader(decoder);
    auto profileIdentifier = reader.decode<std::string>("profile_identifier");
    auto attributesJsonString = reader.decodeIfPresent<std::string>("attributes_json_string");
    if (!reader.ok()) return reader.failure();
    return RegisterPushNotificationQueueTaskData{std::move(profileIdentifier),
                                                 std::move(attributesJsonString)};
}

void RegisterPushNotificationQueueTaskData::encode(JsonEncoder& encoder) const {
    encoder.encode("profile_identifier", profileIdentifier);
    encoder.encodeIfPresent("attributes_json_string", attributesJsonString);
}

std::string RegisterPushNotificationQueueTaskData::description() const {
    std::optional<std::string> attributes;
    if (attributesJsonString) attributes = quotedDescription(*attributesJsonString);
    return "RegisterPushNotificationQueueTaskData(profileIdentifier: " +
           quotedDescription(profileIdentifier) +
           ", attributesJsonString: " + optionalDescription(attributes) + ")";
}

}  // namespace tern
