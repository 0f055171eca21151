#include "Common/queue/Metric.hpp"

#include <algorithm>
#include <cctype>
#include <string>

namespace tern {

std::string_view rawValue(Metric metric) {
    switch (metric) {
        case Metric::delivered: return "delivered";
        case Metric::opened: return "opened";
        case Metric::converted: return "converted";
    }
    return "delivered";
}

template <>
std::optional<Metric> fromRawValue<Metric>(std::string_view text) {
    for (Metric metric : {Metric::delivered, Metric::opened, Metric::converted}) {
        if (rawValue(metric) == text) return metric;
    }
    return std::nullopt;
}

std::optional<Metric> getEvent(std::string_view from) {
    std::string lowerCased(from);
    std::ranges::transform(lowerCased, lowerCased.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return fromRawValue<Metric>(lowerCased);
}

}  // namespace tern
