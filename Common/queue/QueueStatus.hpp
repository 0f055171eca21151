#pragma once

#include <cstdint>
#include <string>

namespace tern {

// What an add operation reports about the queue it added to.
struct QueueStatus {
    // The site id whose queue this is.
    std::string queueId;
    // The number of inventory entries.
    std::int64_t numTasksInQueue = 0;

    // "QueueStatus(queueId: \"site\", numTasksInQueue: 3)"
    std::string description() const;

    bool operator==(const QueueStatus&) const = default;
};

}  // namespace tern
