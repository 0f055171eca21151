#pragma once

#include <optional>
#include <string_view>

namespace tern {

// Enumerations with raw values are `enum class` types with two helpers each:
//   std::string_view rawValue(E)                 the case's raw value
//   template <> std::optional<E> fromRawValue<E>(std::string_view)
// The second is absent for any text that is not exactly a raw value (case-sensitive).
// Callers write `fromRawValue<Region>("US")`; every enumeration specialises this template
// next to its own declaration.
template <class E>
std::optional<E> fromRawValue(std::string_view rawValue);

}  // namespace tern
