#include "Common/queue/DeliveryPayload.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

using vontu::platform::Date;

std::expected<DeliveryPayload, DecodingError> DeliveryPayload::decode(
    const JsonDecoder& decoder) {
    JsonRecordReader reader(decoder);
    auto deliveryId = reader.decode<std::string>("delivery_id");
    auto event = reader.decode<InAppMetric>("event");
    auto timestamp = reader.decode<Date>("timestamp");
    if (!reader.ok()) return reader.failure();
    return DeliveryPayload{std::move(deliveryId), event, timestamp};
}

void DeliveryPayload::encode(JsonEncoder& encoder) const {
    encoder.encode("delivery_id", deliveryId);
    encoder.encode("event", event);
    encoder.encode("timestamp", timestamp);
}

std::string DeliveryPayload::description() const {
    return "DeliveryPayload(deliveryId: " + quotedDescription(deliveryId) +
           ", event: " + std::string(rawValue(event)) +
           ", timestamp: " + describeDate(timestamp) + ")";
}

}  // namespace tern
