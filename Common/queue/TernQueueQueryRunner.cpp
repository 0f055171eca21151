#include "Common/queue/TernQueueQueryRunner.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tern {

TernQueueQueryRunner::TernQueueQueryRunner(std::shared_ptr<Logger> logger)
    : logger_(std::move(logger)) {}

std::optional<QueueTaskMetadata> TernQueueQueryRunner::getNextTask(
    const std::vector<QueueTaskMetadata>& queue,
    const std::optional<QueueTaskMetadata>& lastRanTask,
    const std::optional<QueueTaskMetadata>& lastFailedTask) {
    if (queue.empty()) return std::nullopt;

    auto candidates = queue.begin();
    if (lastRanTask) {
        auto lastRan = std::ranges::find(queue, *lastRanTask);
        if (lastRan != queue.end()) candidates = std::next(lastRan);
    }

    std::lock_guard guard(mutex_);
    if (lastFailedTask && lastFailedTask->groupStart) {
        queryCriteria_.excludeGroups.insert(*lastFailedTask->groupStart);
    }
    logger_->debug("queue querying next task. criteria: " + queryCriteria_.description());

    auto next = std::find_if(candidates, queue.end(),
                             [this](const QueueTaskMetadata& task) { return !isExcluded(task); });
    if (next == queue.end()) return std::nullopt;
    return *next;
}

void TernQueueQueryRunner::reset() {
    logger_->debug("resetting queue tasks query criteria");
    std::lock_guard guard(mutex_);
    queryCriteria_.excludeGroups.clear();
}

QueueQueryCriteria TernQueueQueryRunner::queryCriteria() const {
    std::lock_guard guard(mutex_);
    return queryCriteria_;
}

bool TernQueueQueryRunner::isExcluded(const QueueTaskMetadata& task) const {
    if (!task.groupMember) return false;
    return std::ranges::any_of(*task.groupMember, [this](const std::string& group) {
        return queryCriteria_.excludeGroups.contains(group);
    });
}

}  // namespace tern
