#pragma once

#include <expected>
#include <optional>
#include <string>

#include "Common/util/JsonCoding.hpp"

namespace tern {

// Payload of a "registerPushToken" queue task:
// {"attributes_json_string", "profile_identifier"}.
struct RegisterPushNotificationQueueTaskData {
    // The profile the token is registered to.
    std::string profileIdentifier;
    // The JSON text of the whole RegisterDeviceRequest. Always written by this library; an
    // absent value (read from an older or foreign task) means the request goes without a body.
    std::optional<std::string> attributesJsonString;

    static std::expected<RegisterPushNotificationQueueTaskData, DecodingError> decode(
        const JsonDecoder& decoder);
    void encode(JsonEncoder& encoder) const;
    std::string description() const;

    bool operator==(const RegisterPushNotificationQueueTaskData&) const = default;
};

}  // namespace tern
