#pragma once

#include <expected>
#include <string>

#include "Common/util/JsonCoding.hpp"

namespace tern {

// Payload of a "trackEvent" queue task: {"attributes_json_string", "identifier"}.
struct TrackEventQueueTaskData {
    // The profile that was identified when the event happened.
    std::string identifier;
    // The JSON text of the whole TrackRequestBody, sent as it is.
    std::string attributesJsonString;

    static std::expected<TrackEventQueueTaskData, DecodingError> decode(const JsonDecoder& decoder);
    void encode(JsonEncoder& encoder) const;
    std::string description() const;

    bool operator==(const TrackEventQueueTaskData&) const = default;
};

}  // namespace tern
