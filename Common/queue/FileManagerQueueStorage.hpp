#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Common/config/SdkConfig.hpp"
#include "Common/queue/QueueDirectoryLock.hpp"
#include "Common/queue/QueueRunLease.hpp"
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
// Every operation holds the process-wide queueStorage lock (so two storage objects of one
// process exclude each other, and operations may call one another) and, inside it, the queue
// directory's lock (so other processes that share the directory are kept out too). A file is
// always replaced whole, never rewritten in place, so a process that dies mid-operation leaves
// every file readable.
//
// The files are the state. The process also remembers the inventory it last read or wrote, in
// one record per queue directory that all storage objects of that queue share (the graph makes
// a storage object per use): the decoded entries and each entry's encoding, so that a queue
// run, which reads the inventory and rewrites it once per task, neither decodes nor encodes
// the whole list again. What it remembers is used only while the inventory file is still the
// very file it read or wrote, with the same stamp, and the directory lock's change count is
// still the same: other processes of the library count their changes, and anybody else who
// replaces the file makes another file.
class FileManagerQueueStorage final : public QueueStorage {
public:
    // The most tasks create() lets the inventory hold. Reading and changing the inventory takes
    // about 1.6 KB of memory an entry (the file is about 150 bytes an entry): 5,000 entries
    // cost an extension about 8 MB, which with its own 4-6 MB stays well inside the 24 MB the
    // phone allows it. Beyond the limit a new task is refused and logged; the queue makes room
    // as its tasks are sent or expire. An inventory made bigger by another writer is still read.
    static constexpr std::int64_t maxQueuedTasks = 5000;

    FileManagerQueueStorage(std::shared_ptr<FileStorage> fileStorage,
                            std::shared_ptr<JsonAdapter> jsonAdapter, std::string siteId,
                            SdkConfig sdkConfig, std::shared_ptr<Logger> logger,
                            std::shared_ptr<DateUtil> dateUtil,
                            const std::shared_ptr<LockManager>& lockManager);

    QueueInventory getInventory() override;
    bool saveInventory(const std::vector<QueueTaskMetadata>& inventory) override;
    CreateQueueStorageTaskResult create(
        const std::string& type, const vontu::platform::Bytes& data,
        const std::optional<QueueTaskGroup>& groupStart,
        const std::optional<std::vector<QueueTaskGroup>>& blockingGroups) override;
    bool update(const std::string& storageId, const QueueTaskRunResults& runResults) override;
    std::optional<QueueTask> get(const std::string& storageId) override;
    bool deleteTask(const std::string& storageId) override;
    std::vector<QueueTaskMetadata> deleteExpired() override;
    bool takeRunLease() override;
    void releaseRunLease() override;

private:
    // Both locks for the length of one operation, the in-process lock first.
    class OperationLock;
    // What the process knows of one queue's inventory.
    struct KnownInventory;

    // The inventory as the file holds it now: what is remembered, if still current, else what
    // the file gives. Call under the operation lock.
    KnownInventory& currentInventory();
    // Reads and decodes the inventory file into known_; changeCount is the directory's count,
    // read before the file (absent when there is none to trust).
    void readInventory(std::optional<std::uint64_t> changeCount);
    // The entries of known_, to change: shared with no inventory handed out.
    std::vector<QueueTaskMetadata>& entriesToChange();
    // Fills known_'s encodings, unless all are there. False when an entry cannot be encoded.
    bool encodeEntries();
    // Writes known_ to the inventory file. On failure what is remembered is dropped (the file
    // keeps its old contents, which the next read finds).
    bool writeInventory();
    // Writes the task file named by fileId (the task's own id, or the id it was read under).
    // False when encoding or writing fails.
    bool saveTask(const QueueTask& task, const std::string& fileId);
    // The entry as the JSON adapter writes it.
    std::optional<std::string> encodeEntry(const QueueTaskMetadata& entry) const;
    CreateQueueStorageTaskResult failedCreate(std::int64_t countBefore) const;
    // The inventory entries that deleteExpired removes, as of now.
    std::vector<QueueTaskMetadata> expiredTasks(const QueueInventory& inventory,
                                                vontu::platform::Date threshold) const;

    std::shared_ptr<FileStorage> fileStorage_;
    std::shared_ptr<JsonAdapter> jsonAdapter_;
    std::string siteId_;
    SdkConfig sdkConfig_;
    std::shared_ptr<Logger> logger_;
    std::shared_ptr<DateUtil> dateUtil_;
    std::shared_ptr<Lock> lock_;
    QueueDirectoryLock directoryLock_;
    QueueRunLease runLease_;
    // Shared by every storage object of this queue directory in the process; guarded by the
    // directory lock (which serialises the process's threads even where the file lock cannot
    // be had).
    std::shared_ptr<KnownInventory> known_;
};

}  // namespace tern
