#include "TernTracking/TrackRequestBody.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

void TrackRequestBody::encode(JsonEncoder& encoder) const {
    encoder.encode("type", type);
    encoder.encode("name", name);
    encoder.encode("data", data);
    encoder.encode("timestamp", timestamp);
}

std::string TrackRequestBody::description() const {
    return "TrackRequestBody(type: " + std::string(rawValue(type)) +
           ", name: " + quotedDescription(name) + ", data: " + data.description() +
           ", timestamp: " + describeDate(timestamp) + ")";
}

}  // namespace tern
