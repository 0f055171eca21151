#pragma once

#include <optional>
#include <string_view>

#include "Common/util/RawValue.hpp"

namespace tern {

// What happened to a push notification, as the push-metrics API names it.
enum class Metric { delivered, opened, converted };

// "delivered", "opened", "converted".
std::string_view rawValue(Metric metric);
// Exact raw values only; anything else is absent.
template <>
std::optional<Metric> fromRawValue<Metric>(std::string_view rawValue);

// Lenient reading of a metric typed by a person or passed by a wrapper: the text is lower-cased
// first, so "OPENED" reads as opened; any other text is absent.
std::optional<Metric> getEvent(std::string_view from);

}  // namespace tern
