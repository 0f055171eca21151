#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Common/config/SdkConfig.hpp"
#include "Common/queue/QueueDirectoryLock.hpp"
#include "Common/queue/QueueStorage.hpp"
#include "Common/storage/FileStorage.hpp"
#include "Common/util/DateUtil.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "Common/util/Lock.hpp"
#include "Common/util/LockManager.hpp"
#include "Common/util/Logger.hpp"

namespace tern {

// QueueStorage on the library's files: the inventory is "queue/inventory.json" (a JSON array
// of QueueTaskMetadata, oldest first) and each task is "queue/tasks/<storage id>.json", both
// in the site's directory of the file storage and coded by the JSON adapter.
//
// The files are the state; this object keeps only the last inventory it decoded, with the
// bytes it was decoded from, and uses it only while the file still holds those bytes. Every operation holds the process-wide
// queueStorage lock (so two storage objects of one process exclude each other, and operations
// may call one another) and, inside it, the queue directory's lock (so other processes that
// share the directory are kept out too). A file is always replaced whole, never rewritten in
// place, so a process that dies mid-operation leaves every file readable.
class FileManagerQueueStorage final : public QueueStorage {
public:
    FileManagerQueueStorage(std::shared_ptr<FileStorage> fileStorage,
                            std::shared_ptr<JsonAdapter> jsonAdapter, std::string siteId,
                            SdkConfig sdkConfig, std::shared_ptr<Logger> logger,
                            std::shared_ptr<DateUtil> dateUtil,
                            const std::shared_ptr<LockManager>& lockManager);

    std::vector<QueueTaskMetadata> getInventory() override;
    bool saveInventory(const std::vector<QueueTaskMetadata>& inventory) override;
    CreateQueueStorageTaskResult create(
        const std::string& type, const vontu::platform::Bytes& data,
        const std::optional<QueueTaskGroup>& groupStart,
        const std::optional<std::vector<QueueTaskGroup>>& blockingGroups) override;
    bool update(const std::string& storageId, const QueueTaskRunResults& runResults) override;
    std::optional<QueueTask> get(const std::string& storageId) override;
    bool deleteTask(const std::string& storageId) override;
    std::vector<QueueTaskMetadata> deleteExpired() override;

private:
    // Both locks for the length of one operation, the in-process lock first.
    class OperationLock;

    // Replaces the inventory file; entriesReadFromFile tells that every entry came from a read
    // of the file, so the written bytes decode to exactly these entries.
    bool writeInventory(const std::vector<QueueTaskMetadata>& inventory, bool entriesReadFromFile);
    // Writes the task file of task.storageId. False when encoding or writing fails.
    bool saveTask(const QueueTask& task);
    CreateQueueStorageTaskResult failedCreate(std::int64_t countBefore) const;
    // The inventory entries that deleteExpired removes, as of now.
    std::vector<QueueTaskMetadata> expiredTasks(const std::vector<QueueTaskMetadata>& inventory,
                                                vontu::platform::Date threshold) const;

    std::shared_ptr<FileStorage> fileStorage_;
    std::shared_ptr<JsonAdapter> jsonAdapter_;
    std::string siteId_;
    SdkConfig sdkConfig_;
    std::shared_ptr<Logger> logger_;
    std::shared_ptr<DateUtil> dateUtil_;
    std::shared_ptr<Lock> lock_;
    QueueDirectoryLock directoryLock_;

    struct DecodedInventory {
        vontu::platform::Bytes bytes;
        std::vector<QueueTaskMetadata> entries;
    };
    // Guarded by the operation lock.
    std::optional<DecodedInventory> decodedInventory_;
};

}  // namespace tern
