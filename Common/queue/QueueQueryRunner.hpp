#pragma once

#include <optional>
#include <vector>

#include "Common/queue/QueueTaskMetadata.hpp"
#include "platform/AutoMockable.hpp"

namespace tern {

// Chooses the task that a run takes next.
class QueueQueryRunner : public vontu::AutoMockable {
public:
    // The next entry of queue to run, given the task run last and the task that failed last
    // (both absent at the start of a run); absent when nothing is left to run.
    virtual std::optional<QueueTaskMetadata> getNextTask(
        const std::vector<QueueTaskMetadata>& queue,
        const std::optional<QueueTaskMetadata>& lastRanTask,
        const std::optional<QueueTaskMetadata>& lastFailedTask) = 0;
    // Forgets what the run learnt, for the next run.
    virtual void reset() = 0;
};

}  // namespace tern
