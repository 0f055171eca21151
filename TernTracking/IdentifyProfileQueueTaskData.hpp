#pragma once

#include <expected>
#include <optional>
#include <string>

#include "Common/util/JsonCoding.hpp"

namespace tern {

// Payload of an "identifyProfile" queue task: {"attributes_json_string", "identifier"}.
struct IdentifyProfileQueueTaskData {
    std::string identifier;
    // The JSON text of the identify body; absent (and left out) when the body could not be
    // encoded, in which case the request goes out without a body.
    std::optional<std::string> attributesJsonString;

    static std::expected<IdentifyProfileQueueTaskData, DecodingError> decode(
        const JsonDecoder& decoder);
    void encode(JsonEncoder& encoder) const;
    std::string description() const;

    bool operator==(const IdentifyProfileQueueTaskData&) const = default;
};

}  // namespace tern
