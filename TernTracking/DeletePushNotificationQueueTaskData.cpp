#include "TernTracking/DeletePushNotificationQueueTaskData.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

std::expected<DeletePushNotificationQueueTaskData, DecodingError>
DeletePushNotificationQueueTaskData::decode(const JsonDecoder& decoder) {
    JsonRecordReader reader(decoder);
    auto profileIdentifier = reader.decode<std::string>("profile_identifier");
    auto deviceToken = reader.decode<std::string>("device_token");
    if (!reader.ok()) return reader.failure();
    return DeletePushNotificationQueueTaskData{std::move(profileIdentifier),
                                               std::move(deviceToken)};
}

void DeletePushNotificationQueueTaskData::encode(JsonEncoder& encoder) const {
    encoder.encode("profile_identifier", profileIdentifier);
    encoder.encode("device_token", deviceToken);
}

std::string DeletePushNotificationQueueTaskData::description() const {
    return "DeletePushNotificationQueueTaskData(profileIdentifier: " +
           quotedDescription(profileIdentifier) +
           ", deviceToken: " + quotedDescription(deviceToken) + ")";
}

}  // namespace tern
