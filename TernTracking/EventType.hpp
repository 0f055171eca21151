#pragma once

#include <optional>
#include <string_view>

#include "Common/util/RawValue.hpp"

namespace tern {

// What a tracked event is: a named event of the app or the view of one of its screens.
enum class EventType { event, screen };

// "event", "screen".
std::string_view rawValue(EventType type);
template <>
std::optional<EventType> fromRawValue<EventType>(std::string_view rawValue);

}  // namespace tern
