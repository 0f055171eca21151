#pragma once

#include <expected>
#include <string>

#include "Common/util/AnyEncodable.hpp"
#include "Common/util/JsonCoding.hpp"
#include "TernTracking/EventType.hpp"
#include "platform/Date.hpp"

namespace tern {

// The body of a "track profile event" request: {"data", "name", "timestamp", "type"}. data is
// whatever the caller gave (an empty object when nothing), encoded in place.
struct TrackRequestBody {
    EventType type = EventType::event;
    std::string name;
    AnyEncodable data;
    vontu::platform::Date timestamp;

    void encode(JsonEncoder& encoder) const;
    // "TrackRequestBody(type: event, name: \"...\", data: ..., timestamp: ...)".
    std::string description() const;
};

}  // namespace tern
