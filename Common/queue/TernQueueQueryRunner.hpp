#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "Common/queue/QueueQueryCriteria.hpp"
#include "Common/queue/QueueQueryRunner.hpp"
#include "Common/util/Logger.hpp"

namespace tern {

// Walks the inventory in order. After a task that failed it goes on behind that task; after
// any other it starts again at the front (a task that succeeded is gone from the inventory).
// Tasks that belong to a group whose opening task failed during this run are skipped until
// reset().
class TernQueueQueryRunner final : public QueueQueryRunner {
public:
    explicit TernQueueQueryRunner(std::shared_ptr<Logger> logger);

    std::optional<QueueTaskMetadata> getNextTask(
        const std::vector<QueueTaskMetadata>& queue,
        const std::optional<QueueTaskMetadata>& lastRanTask,
        const std::optional<QueueTaskMetadata>& lastFailedTask) override;
    void reset() override;

    QueueQueryCriteria queryCriteria() const;

private:
    bool isExcluded(const QueueTaskMetadata& task) const;

    // A run uses one query runner from one thread at a time; the mutex only makes handing it
    // between threads (the loop and a task's completion) safe by itself.
    mutable std::mutex mutex_;
    QueueQueryCriteria queryCriteria_;
    const std::shared_ptr<Logger> logger_;
};

}  // namespace tern
