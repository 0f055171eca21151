#include "TernTracking/EventType.hpp"

namespace tern {

std::string_view rawValue(EventType type) {
    switch (type) {
        case EventType::event:
            return "event";
        case EventType::screen:
            return "screen";
    }
    return "event";
}

template <>
std::optional<EventType> fromRawValue<EventType>(std::string_view rawValue) {
    if (rawValue == "event") return EventType::event;
    if (rawValue == "screen") return EventType::screen;
    return std::nullopt;
}

}  // namespace tern
