#pragma once

#include <expected>
#include <string>

#include "Common/util/JsonCoding.hpp"

namespace tern {

// Payload of a "deletePushToken" queue task: {"device_token", "profile_identifier"}.
struct DeletePushNotificationQueueTaskData {
    std::string profileIdentifier;
    std::string deviceToken;

    static std::expected<DeletePushNotificationQueueTaskData, DecodingError> decode(
        const JsonDecoder& decoder);
    void encode(JsonEncoder& encoder) const;
    std::string description() const;

    bool operator==(const DeletePushNotificationQueueTaskData&) const = default;
};

}  // namespace tern
