#pragma once

#include <string>

#include "Common/queue/QueueStatus.hpp"

namespace tern {

// What adding a task to the queue reports.
struct QueueAddResult {
    // True when the task was stored and listed in the inventory.
    bool success = false;
    // The queue after the addition; after a failure, the queue as it was.
    QueueStatus queueStatus;

    bool operator==(const QueueAddResult&) const = default;
};

}  // namespace tern
