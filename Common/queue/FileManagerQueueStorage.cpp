#include "Common/queue/FileManagerQueueStorage.hpp"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <unordered_set>
#include <utility>

#include "Common/queue/LocalDateFormat.hpp"
#include "platform/Crypto.hpp"

namespace tern {

using vontu::platform::Bytes;
using vontu::platform::Date;

class FileManagerQueueStorage::OperationLock {
public:
    explicit OperationLock(FileManagerQueueStorage& storage)
        : inProcess_(*storage.lock_), acrossProcesses_(storage.directoryLock_) {}

private:
    std::lock_guard<Lock> inProcess_;
    std::lock_guard<QueueDirectoryLock> acrossProcesses_;
};

namespace {

// The expiry in whole seconds, or absent when the configured value has no such form (not
// finite, or beyond a signed 64-bit count).
std::optional<std::int64_t> wholeSeconds(double seconds) {
    if (!std::isfinite(seconds)) return std::nullopt;
    double truncated = std::trunc(seconds);
    // 2^63 is exactly representable; every double below it and at or above -2^63 fits.
    if (truncated < -9223372036854775808.0 || truncated >= 9223372036854775808.0) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(truncated);
}

std::string setDescription(const std::vector<QueueTaskMetadata>& entries) {
    std::string description = "[";
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (i > 0) description += ", ";
        description += entries[i].description();
    }
    return description + "]";
}

}  // namespace

FileManagerQueueStorage::FileManagerQueueStorage(std::shared_ptr<FileStorage> fileStorage,
                                                 std::shared_ptr<JsonAdapter> jsonAdapter,
                                                 std::string siteId, SdkConfig sdkConfig,
                                                 std::shared_ptr<Logger> logger,
                                                 std::shared_ptr<DateUtil> dateUtil,
                                                 const std::shared_ptr<LockManager>& lockManager)
    : fileStorage_(std::move(fileStorage)),
      jsonAdapter_(std::move(jsonAdapter)),
      siteId_(std::move(siteId)),
      sdkConfig_(std::move(sdkConfig)),
      logger_(std::move(logger)),
      dateUtil_(std::move(dateUtil)),
      lock_(lockManager->getLock(LockReference::queueStorage)),
      directoryLock_(siteId_, logger_) {}

std::vector<QueueTaskMetadata> FileManagerQueueStorage::getInventory() {
    OperationLock hold(*this);
    auto data = fileStorage_->get(FileType::queueInventory, std::nullopt);
    if (!data) return {};
    // A run reads the inventory several times per task, mostly unchanged since the last read.
    if (decodedInventory_ && *data == decodedInventory_->bytes) return decodedInventory_->entries;
    auto inventory = jsonAdapter_->fromJson<std::vector<QueueTaskMetadata>>(*data, true);
    if (!inventory) return {};
    decodedInventory_ = DecodedInventory{std::move(*data), *inventory};
    return std::move(*inventory);
}

bool FileManagerQueueStorage::saveInventory(const std::vector<QueueTaskMetadata>& inventory) {
    OperationLock hold(*this);
    return writeInventory(inventory, false);
}

bool FileManagerQueueStorage::writeInventory(const std::vector<QueueTaskMetadata>& inventory,
                                             bool entriesReadFromFile) {
    auto data = jsonAdapter_->toJson(inventory);
    if (!data) return false;
    if (!fileStorage_->save(FileType::queueInventory, *data, std::nullopt)) return false;
    // Entries decoded from the file read back exactly as they are; others (a new entry's date
    // has a fraction that the file drops) are decoded again on the next read.
    if (entriesReadFromFile) {
        decodedInventory_ = DecodedInventory{std::move(*data), inventory};
    } else {
        decodedInventory_.reset();
    }
    return true;
}

CreateQueueStorageTaskResult FileManagerQueueStorage::create(
    const std::string& type, const Bytes& data, const std::optional<QueueTaskGroup>& groupStart,
    const std::optional<std::vector<QueueTaskGroup>>& blockingGroups) {
    OperationLock hold(*this);

    auto inventory = getInventory();
    const auto countBefore = static_cast<std::int64_t>(inventory.size());

    // The task file comes first: an entry in the inventory must always find its file. If a
    // later step fails, the file stays behind unlisted, which nobody reads.
    QueueTask task{vontu::platform::newUuidString(), type, data, QueueTaskRunResults{0}};
    if (!saveTask(task)) return failedCreate(countBefore);

    QueueTaskMetadata metadata{task.storageId, type, std::nullopt, std::nullopt, dateUtil_->now()};
    if (groupStart) metadata.groupStart = groupStart->string();
    if (blockingGroups) {
        metadata.groupMember.emplace();
        for (const auto& group : *blockingGroups) metadata.groupMember->push_back(group.string());
    }

    inventory.push_back(metadata);
    const auto countAfter = static_cast<std::int64_t>(inventory.size());
    if (!saveInventory(inventory)) return failedCreate(countBefore);

    // Report the entry as stored, which is what later reads will see (whole-second dates).
    auto stored = getInventory();
    auto created = std::find_if(stored.begin(), stored.end(), [&](const QueueTaskMetadata& entry) {
        return entry.taskPersistedId == task.storageId;
    });
    if (created == stored.end()) {
        logger_->error("expected to find task " + metadata.description() +
                       " to be in the inventory but it wasn't");
        return failedCreate(countBefore);
    }
    return CreateQueueStorageTaskResult{true, QueueStatus{siteId_, countAfter}, *created};
}

bool FileManagerQueueStorage::update(const std::string& storageId,
                                     const QueueTaskRunResults& runResults) {
    OperationLock hold(*this);
    auto task = get(storageId);
    if (!task) return false;
    task->runResults = runResults;
    return saveTask(*task);
}

std::optional<QueueTask> FileManagerQueueStorage::get(const std::string& storageId) {
    OperationLock hold(*this);
    auto data = fileStorage_->get(FileType::queueTask, storageId);
    if (!data) return std::nullopt;
    return jsonAdapter_->fromJson<QueueTask>(*data, true);
}

bool FileManagerQueueStorage::deleteTask(const std::string& storageId) {
    OperationLock hold(*this);
    auto inventory = getInventory();
    std::erase_if(inventory, [&](const QueueTaskMetadata& entry) {
        return entry.taskPersistedId == storageId;
    });
    // The entry goes first: a task file without an entry is never read, while an entry
    // without its file would be.
    if (!writeInventory(inventory, true)) return false;
    return fileStorage_->deleteFile(FileType::queueTask, storageId);
}

std::vector<QueueTaskMetadata> FileManagerQueueStorage::deleteExpired() {
    OperationLock hold(*this);
    logger_->debug("deleting expired tasks from the queue");

    auto expirySeconds = wholeSeconds(sdkConfig_.backgroundQueueExpiredSeconds);
    if (!expirySeconds) {
        // Deleting nothing is the safe answer to a setting that names no span of time.
        logger_->error(
            "backgroundQueueExpiredSeconds is not a whole number of seconds that "
            "can be used, no queue tasks deleted");
        return {};
    }
    const Date now = dateUtil_->now();
    const Date threshold = now.addingSeconds(-static_cast<double>(*expirySeconds));
    logger_->debug("deleting tasks older then " + formatLocalTimestamp(threshold) +
                   ",\ncurrent time is: " + formatLocalTimestamp(now));

    auto expired = expiredTasks(getInventory(), threshold);
    logger_->debug("deleting " + std::to_string(expired.size()) +
                   " tasks. \n Tasks: " + setDescription(expired));
    for (const auto& entry : expired) deleteTask(entry.taskPersistedId);
    return expired;
}

std::vector<QueueTaskMetadata> FileManagerQueueStorage::expiredTasks(
    const std::vector<QueueTaskMetadata>& inventory, Date threshold) const {
    // A task that opens a group never expires: the tasks of its group wait for it.
    std::unordered_set<QueueTaskMetadata> expired;
    for (const auto& entry : inventory) {
        if (entry.groupStart) continue;
        if (entry.createdAt.secondsSince1970 < threshold.secondsSince1970) expired.insert(entry);
    }
    return {expired.begin(), expired.end()};
}

bool FileManagerQueueStorage::saveTask(const QueueTask& task) {
    auto data = jsonAdapter_->toJson(task);
    if (!data) return false;
    return fileStorage_->save(FileType::queueTask, *data, task.storageId);
}

CreateQueueStorageTaskResult FileManagerQueueStorage::failedCreate(std::int64_t countBefore) const {
    return CreateQueueStorageTaskResult{false, QueueStatus{siteId_, countBefore}, std::nullopt};
}

}  // namespace tern
