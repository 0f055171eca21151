#include "Common/queue/TrackDeliveryEventRequestBody.hpp"

namespace tern {

TrackDeliveryEventRequestBody TrackDeliveryEventRequestBody::inApp(
    std::string deliveryId, InAppMetric event, vontu::platform::Date timestamp) {
    return {DeliveryType::inApp, DeliveryPayload{std::move(deliveryId), event, timestamp}};
}

std::expected<TrackDeliveryEventRequestBody, DecodingError> TrackDeliveryEventRequestBody::decode(
    const JsonDecoder& decoder) {
    JsonRecordReader reader(decoder);
    auto type = reader.decode<DeliveryType>("type");
    auto payload = reader.decode<DeliveryPayload>("payload");
    if (!reader.ok()) return reader.failure();
    return TrackDeliveryEventRequestBody{type, std::move(payload)};
}

void TrackDeliveryEventRequestBody::encode(JsonEncoder& encoder) const {
    encoder.encode("type", type);
    encoder.encode("payload", payload);
}

std::string TrackDeliveryEventRequestBody::description() const {
    return "TrackDeliveryEventRequestBody(type: " + std::string(rawValue(type)) +
           ", payload: " + payload.description() + ")";
}

}  // namespace tern
