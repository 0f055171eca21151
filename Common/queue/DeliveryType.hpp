#pragma once

#include <optional>
#include <string_view>

#include "Common/util/RawValue.hpp"

namespace tern {

// The kind of delivery that a delivery event is about. Only in-app messages report through
// the delivery-events API.
enum class DeliveryType { inApp };

// "in_app".
std::string_view rawValue(DeliveryType type);
// Exact raw values only; anything else is absent.
template <>
std::optional<DeliveryType> fromRawValue<DeliveryType>(std::string_view rawValue);

}  // namespace tern
