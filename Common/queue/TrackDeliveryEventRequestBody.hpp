#pragma once

#include <expected>
#include <string>

#include "Common/queue/DeliveryPayload.hpp"
#include "Common/queue/DeliveryType.hpp"
#include "Common/queue/InAppMetric.hpp"
#include "Common/util/JsonCoding.hpp"
#include "platform/Date.hpp"

namespace tern {

// A delivery event: {"payload": {"delivery_id", "event", "timestamp"}, "type": "in_app"}.
//
// This one record is both the data of a "trackDeliveryMetric" queue task and the body of the
// request that the queue runner sends for it: the task keeps exactly the JSON that goes out,
// and the runner re-encodes what it decodes from the task.
struct TrackDeliveryEventRequestBody {
    // The type of the queue tasks that carry this record.
    static constexpr const char* queueTaskType = "trackDeliveryMetric";

    DeliveryType type = DeliveryType::inApp;
    DeliveryPayload payload;

    // The event of an in-app message.
    static TrackDeliveryEventRequestBody inApp(std::string deliveryId, InAppMetric event,
                                               vontu::platform::Date timestamp);

    static std::expected<TrackDeliveryEventRequestBody, DecodingError> decode(
        const JsonDecoder& decoder);
    void encode(JsonEncoder& encoder) const;
    // "TrackDeliveryEventRequestBody(type: in_app, payload: DeliveryPayload(...))"
    std::string description() const;

    bool operator==(const TrackDeliveryEventRequestBody&) const = default;
};

}  // namespace tern
