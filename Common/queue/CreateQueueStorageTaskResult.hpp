#pragma once

#include <optional>
#include <string>

#include "Common/queue/QueueStatus.hpp"
#include "Common/queue/QueueTaskMetadata.hpp"

namespace tern {

// The outcome of storing a new task.
struct CreateQueueStorageTaskResult {
    bool success = false;
    // On success the count after the new entry; on failure the count from before.
    QueueStatus queueStatus;
    // The new inventory entry as read back from the inventory; absent on failure.
    std::optional<QueueTaskMetadata> createdTask;

    // "CreateQueueStorageTaskResult(success: true, queueStatus: QueueStatus(...),
    //  createdTask: Optional(QueueTaskMetadata(...)))"
    std::string description() const;

    bool operator==(const CreateQueueStorageTaskResult&) const = default;
};

}  // namespace tern
