#pragma once

#include <optional>
#include <string_view>

#include "Common/util/RawValue.hpp"

namespace tern {

// What a person did with an in-app message, as the delivery-events API names it.
enum class InAppMetric { opened, clicked };

// "opened", "clicked".
std::string_view rawValue(InAppMetric metric);
// Exact raw values only; anything else is absent.
template <>
std::optional<InAppMetric> fromRawValue<InAppMetric>(std::string_view rawValue);

}  // namespace tern
