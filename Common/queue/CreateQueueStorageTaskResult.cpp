#include "Common/queue/CreateQueueStorageTaskResult.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

std::string CreateQueueStorageTaskResult::description() const {
    std::optional<std::string> createdTaskText;
    if (createdTask) createdTaskText = createdTask->description();
    return std::string("CreateQueueStorageTaskResult(success: ") + (success ? "true" : "false") +
           ", queueStatus: " + queueStatus.description() +
           ", createdTask: " + optionalDescription(createdTaskText) + ")";
}

}  // namespace tern
