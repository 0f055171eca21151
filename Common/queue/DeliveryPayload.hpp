#pragma once

#include <expected>
#include <string>

#include "Common/queue/InAppMetric.hpp"
#include "Common/util/JsonCoding.hpp"
#include "platform/Date.hpp"

namespace tern {

// Which delivery a delivery event is about, what happened to it and when:
// {"delivery_id", "event", "timestamp"}, the timestamp in whole seconds since 1970.
struct DeliveryPayload {
    std::string deliveryId;
    InAppMetric event = InAppMetric::opened;
    vontu::platform::Date timestamp;

    static std::expected<DeliveryPayload, DecodingError> decode(const JsonDecoder& decoder);
    void encode(JsonEncoder& encoder) const;
    // "DeliveryPayload(deliveryId: \"…\", event: opened, timestamp: 2024-01-31 12:00:00 +0000)"
    std::string description() const;

    bool operator==(const DeliveryPayload&) const = default;
};

}  // namespace tern
