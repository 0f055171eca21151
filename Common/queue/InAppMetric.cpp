#include "Common/queue/InAppMetric.hpp"

namespace tern {

std::string_view rawValue(InAppMetric metric) {
    switch (metric) {
        case InAppMetric::opened: return "opened";
        case InAppMetric::clicked: return "clicked";
    }
    return "opened";
}

template <>
std::optional<InAppMetric> fromRawValue<InAppMetric>(std::string_view text) {
    for (InAppMetric metric : {InAppMetric::opened, InAppMetric::clicked}) {
        if (rawValue(metric) == text) return metric;
    }
    return std::nullopt;
}

}  // namespace tern
