#include "TernTracking/MetricRequest.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

using vontu::platform::Date;

std::expected<MetricRequest, DecodingError> MetricRequest::decode(const JsonDecoder& decoder) {
    JsonRecordReader reader(decoder);
    auto deliveryId = reader.decode<std::string>("delivery_id");
    auto event = reader.decode<Metric>("event");
    auto deviceToken = reader.decode<std::string>("device_id");
    auto timestamp = reader.decode<Date>("timestamp");
    if (!reader.ok()) return reader.failure();
    return MetricRequest{std::move(deliveryId), event, std::move(deviceToken), timestamp};
}

void MetricRequest::encode(JsonEncoder& encoder) const {
    encoder.encode("delivery_id", deliveryId);
    encoder.encode("event", event);
    encoder.encode("device_id", deviceToken);
    encoder.encode("timestamp", timestamp);
}

std::string MetricRequest::description() const {
    return "MetricRequest(deliveryId: " + quotedDescription(deliveryId) +
           ", event: " + std::string(rawValue(event)) +
           ", deviceToken: " + quotedDescription(deviceToken) +
           ", timestamp: " + describeDate(timestamp) + ")";
}

}  // namespace tern
