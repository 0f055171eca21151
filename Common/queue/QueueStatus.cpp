#include "Common/queue/QueueStatus.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

std::string QueueStatus::description() const {
    return "QueueStatus(queueId: " + quotedDescription(queueId) +
           ", numTasksInQueue: " + std::to_string(numTasksInQueue) + ")";
}

}  // namespace tern
