#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Common/queue/CreateQueueStorageTaskResult.hpp"
#include "Common/queue/QueueInventory.hpp"
#include "Common/queue/QueueTask.hpp"
#include "Common/queue/QueueTaskGroup.hpp"
#include "Common/queue/QueueTaskMetadata.hpp"
#include "Common/queue/QueueTaskRunResults.hpp"
#include "platform/AutoMockable.hpp"
#include "platform/Bytes.hpp"

namespace tern {

// The persisted background queue: an inventory that lists the queued tasks in creation order,
// and one record per task. A task is queued exactly while its entry is in the inventory.
// Every operation is whole: callers on any thread never see half of another's change.
class QueueStorage : public vontu::AutoMockable {
public:
    // The inventory, oldest first; empty when there is none or it cannot be read. An inventory
    // that is there but cannot be read is never replaced by create or deleteTask, which fail.
    virtual QueueInventory getInventory() = 0;
    // Replaces the inventory whole. True when it was written.
    virtual bool saveInventory(const std::vector<QueueTaskMetadata>& inventory) = 0;
    // Stores a new task with a fresh storage id and appends its entry to the inventory.
    // blockingGroups absent and empty are told apart: only the empty list is stored as a list.
    virtual CreateQueueStorageTaskResult create(
        const std::string& type, const vontu::platform::Bytes& data,
        const std::optional<QueueTaskGroup>& groupStart,
        const std::optional<std::vector<QueueTaskGroup>>& blockingGroups) = 0;
    // Replaces the run results of a stored task. False when there is no such task or it
    // cannot be written. The inventory is not touched.
    virtual bool update(const std::string& storageId, const QueueTaskRunResults& runResults) = 0;
    // The stored task; absent when there is none or it cannot be read.
    virtual std::optional<QueueTask> get(const std::string& storageId) = 0;
    // Takes the task out of the inventory, then removes its record. False when either fails.
    // (Not named delete: C++ reserves that word.)
    virtual bool deleteTask(const std::string& storageId) = 0;
    // Deletes the tasks older than the configured expiry, except those that open a group.
    // Returns the entries deleted.
    virtual std::vector<QueueTaskMetadata> deleteExpired() = 0;

    // The queue for one run, across the processes that share it: true when this object now has
    // it, false (at once) when a run elsewhere has it. A run that has it works through the
    // whole inventory, so one that does not get it has nothing to do.
    virtual bool takeRunLease() = 0;
    // Gives back what takeRunLease took; nothing when this object holds no lease.
    virtual void releaseRunLease() = 0;
};

}  // namespace tern
