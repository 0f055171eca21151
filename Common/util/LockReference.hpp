#pragma once

#include <string_view>


namespace tern {

// The shared resources that have a lock of their own in LockManager. The raw value is the key
// under which the manager keeps the lock.
enum class LockReference { queueStorage, singleScheduleTimer };

// "queueStorage", "singleScheduleTimer".
std::string_view rawValue(LockReference reference);

}  // namespace tern
