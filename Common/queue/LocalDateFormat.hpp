#pragma once

#include <string>

#include "platform/Date.hpp"

namespace tern {

// The date in the device's time zone as "yyyy-MM-dd'T'HH:mm:ssZ", e.g.
// "2024-01-31T13:00:00+0100": whole seconds (fractions dropped) and the zone's offset as
// +hhmm. A date too far out for the calendar shows as the library's plain date description.
std::string formatLocalTimestamp(vontu::platform::Date date);

}  // namespace tern
