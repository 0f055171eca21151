#pragma once

#include <optional>
#include <string_view>

#include "Common/util/RawValue.hpp"

namespace tern {

// The shared resources that have a lock of their own in LockManager. The raw value is the key
// under which the manager keeps the lock.
enum class LockReference { queueStorage, singleScheduleTimer };

// "queueStorage", "singleScheduleTimer".
std::string_view rawValue(LockReference reference);
template <>
std::optional<LockReference> fromRawValue<LockReference>(std::string_view rawValue);

}  // namespace tern
