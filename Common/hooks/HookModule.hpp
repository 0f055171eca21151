#pragma once

#include <optional>
#include <string_view>

#include "Common/util/RawValue.hpp"

namespace tern {

// The modules of the library that register hooks; each has at most one hook provider.
enum class HookModule { tracking, messagingPush, messagingInApp };

// "tracking", "messagingPush", "messagingInApp".
std::string_view rawValue(HookModule module);
template <>
std::optional<HookModule> fromRawValue<HookModule>(std::string_view rawValue);

}  // namespace tern
