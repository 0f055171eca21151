#pragma once

#include <expected>
#include <string>

#include "Common/queue/Metric.hpp"
#include "Common/util/JsonCoding.hpp"
#include "platform/Date.hpp"

namespace tern {

// A push metric: the payload of a "trackPushMetric" queue task and, unchanged, the body of its
// request: {"delivery_id", "device_id", "event", "timestamp"}.
struct MetricRequest {
    std::string deliveryId;
    Metric event = Metric::delivered;
    std::string deviceToken;
    vontu::platform::Date timestamp;

    static std::expected<MetricRequest, DecodingError> decode(const JsonDecoder& decoder);
    void encode(JsonEncoder& encoder) const;
    std::string description() const;

    bool operator==(const MetricRequest&) const = default;
};

}  // namespace tern
