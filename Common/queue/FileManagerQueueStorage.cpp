#include "Common/queue/FileManagerQueueStorage.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <unordered_set>
#include <utility>

#include "Common/queue/LocalDateFormat.hpp"
#include "Common/queue/PerDirectoryRecord.hpp"
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

// What the process last read or wrote of one queue's inventory.
struct FileManagerQueueStorage::KnownInventory {
    // The entries, which inventories handed out read without a lock: changed in place only
    // while none holds them, else replaced by a copy.
    struct SharedEntries {
        std::vector<QueueTaskMetadata> list;
        // Inventories handed out that still hold the list. Released with release order, read
        // with acquire order, so that a writer who finds none is ordered after their reads.
        std::atomic<int> readers{0};
    };
    std::shared_ptr<SharedEntries> entries = std::make_shared<SharedEntries>();
    // Each entry as the JSON adapter writes it: all of them, or none yet (they are encoded
    // when first written, so that a read costs no more than decoding).
    std::vector<std::string> encodedEntries;
    // The file that holds exactly these entries and the directory's change count at the time;
    // absent while the entries are not known to be current (an unreadable or missing file, a
    // failed write, entries that the file will not give back as they are).
    std::shared_ptr<const vontu::platform::FilePin> file;
    std::uint64_t changeCount = 0;
    // False when writing the entries stores something else: dates are written as whole
    // seconds, and another writer's file, or a list given to saveInventory, may have more.
    bool readBackAsTheyAre = true;
    // The file is there but could not be read: the entries are not known, and the file must
    // not be replaced by a list that lacks them.
    bool unreadable = false;

    bool isEncoded() const { return encodedEntries.size() == entries->list.size(); }
    void forget() { file.reset(); }
};

namespace {

bool hasWholeSecondDate(const QueueTaskMetadata& entry) {
    const double seconds = entry.createdAt.secondsSince1970;
    return std::trunc(seconds) == seconds;
}

// The JSON array of the encoded entries, as the JSON adapter writes a list.
Bytes joinedArray(const std::vector<std::string>& encodedEntries) {
    std::size_t length = 2;
    for (const auto& entry : encodedEntries) length += entry.size() + 1;
    Bytes bytes;
    bytes.reserve(length);
    bytes.push_back('[');
    for (std::size_t i = 0; i < encodedEntries.size(); ++i) {
        if (i > 0) bytes.push_back(',');
        bytes.insert(bytes.end(), encodedEntries[i].begin(), encodedEntries[i].end());
    }
    bytes.push_back(']');
    return bytes;
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
      directoryLock_(siteId_, logger_),
      runLease_(siteId_, logger_) {
    if (const auto lockFile = directoryLock_.lockFilePath()) {
        known_ = perDirectoryRecord<KnownInventory>(*lockFile);
    } else {
        // Without a directory lock nothing is shared, and nothing counts changes: this object
        // reads the file every time.
        known_ = std::make_shared<KnownInventory>();
    }
}

FileManagerQueueStorage::KnownInventory& FileManagerQueueStorage::currentInventory() {
    KnownInventory& known = *known_;
    const auto changeCount = directoryLock_.inventoryChanges();
    const bool current = known.file && changeCount && *changeCount == known.changeCount &&
                         fileStorage_->isUnchanged(FileType::queueInventory, std::nullopt,
                                                   *known.file);
    if (!current) readInventory(changeCount);
    return known;
}

void FileManagerQueueStorage::readInventory(std::optional<std::uint64_t> changeCount) {
    KnownInventory& known = *known_;
    known = KnownInventory{};
    auto read = fileStorage_->getPinned(FileType::queueInventory, std::nullopt);
    if (!read) {
        known.unreadable = !read.error().nothingThere;
        return;
    }
    auto entries = jsonAdapter_->fromJson<std::vector<QueueTaskMetadata>>(read->contents, true);
    if (!entries) return;
    known.entries->list = std::move(*entries);
    known.readBackAsTheyAre = std::ranges::all_of(known.entries->list, hasWholeSecondDate);
    if (changeCount) {
        known.file = std::move(read->pin);
        known.changeCount = *changeCount;
    }
}

bool FileManagerQueueStorage::encodeEntries() {
    KnownInventory& known = *known_;
    if (known.isEncoded()) return true;  // else there are none yet
    for (const auto& entry : known.entries->list) {
        auto encoded = encodeEntry(entry);
        if (!encoded) {
            known.encodedEntries.clear();
            return false;
        }
        known.encodedEntries.push_back(std::move(*encoded));
    }
    return true;
}

std::vector<QueueTaskMetadata>& FileManagerQueueStorage::entriesToChange() {
    auto& entries = known_->entries;
    if (entries->readers.load(std::memory_order_acquire) > 0) {
        auto copy = std::make_shared<KnownInventory::SharedEntries>();
        copy->list = entries->list;
        entries = std::move(copy);
    }
    return entries->list;
}

bool FileManagerQueueStorage::writeInventory() {
    KnownInventory& known = *known_;
    auto written = encodeEntries() ? fileStorage_->rewrite(FileType::queueInventory,
                                                           joinedArray(known.encodedEntries),
                                                           std::nullopt)
                                   : nullptr;
    if (!written) {
        known.forget();
        return false;
    }
    const auto changeCount = directoryLock_.noteInventoryChange();
    // Entries that read back other than they are now: the next read decodes the file.
    if (known.readBackAsTheyAre && changeCount) {
        known.file = std::move(written);
        known.changeCount = *changeCount;
    } else {
        known.forget();
    }
    return true;
}

std::optional<std::string> FileManagerQueueStorage::encodeEntry(
    const QueueTaskMetadata& entry) const {
    auto encoded = jsonAdapter_->toJson(entry);
    if (!encoded) return std::nullopt;
    return std::string(encoded->begin(), encoded->end());
}

QueueInventory FileManagerQueueStorage::getInventory() {
    OperationLock hold(*this);
    // The inventory handed out holds the list, and counts as its reader, until its last copy
    // is gone.
    auto entries = currentInventory().entries;
    entries->readers.fetch_add(1, std::memory_order_relaxed);
    return QueueInventory(std::shared_ptr<const std::vector<QueueTaskMetadata>>(
        &entries->list, [entries](const std::vector<QueueTaskMetadata>*) {
            entries->readers.fetch_sub(1, std::memory_order_release);
        }));
}

bool FileManagerQueueStorage::saveInventory(const std::vector<QueueTaskMetadata>& inventory) {
    OperationLock hold(*this);
    KnownInventory& known = *known_;
    known = KnownInventory{};
    known.entries->list = inventory;
    known.readBackAsTheyAre = false;
    return writeInventory();
}

CreateQueueStorageTaskResult FileManagerQueueStorage::create(
    const std::string& type, const Bytes& data, const std::optional<QueueTaskGroup>& groupStart,
    const std::optional<std::vector<QueueTaskGroup>>& blockingGroups) {
    OperationLock hold(*this);

    KnownInventory& known = currentInventory();
    const auto countBefore = static_cast<std::int64_t>(known.entries->list.size());
    if (known.unreadable) {
        logger_->error("fail adding queue task, the queue inventory cannot be read.");
        return failedCreate(countBefore);
    }
    if (countBefore >= maxQueuedTasks) {
        logger_->error("fail adding queue task " + type + ", the queue is full with " +
                       std::to_string(countBefore) + " tasks.");
        return failedCreate(countBefore);
    }

    // The task file comes first: an entry in the inventory must always find its file. If a
    // later step fails, the file stays behind unlisted, which nobody reads.
    QueueTask task{vontu::platform::newUuidString(), type, data, QueueTaskRunResults{0}};
    if (!saveTask(task, task.storageId)) return failedCreate(countBefore);

    QueueTaskMetadata metadata{task.storageId, type, std::nullopt, std::nullopt, dateUtil_->now()};
    if (groupStart) metadata.groupStart = groupStart->string();
    if (blockingGroups) {
        metadata.groupMember.emplace();
        for (const auto& group : *blockingGroups) metadata.groupMember->push_back(group.string());
    }
    auto encoded = encodeEntry(metadata);
    if (!encoded) return failedCreate(countBefore);
    // Kept as later reads of the file give it (whole-second dates).
    auto stored = jsonAdapter_->fromJson<QueueTaskMetadata>(std::string_view(*encoded), true);
    if (!stored) return failedCreate(countBefore);

    const bool encodedBefore = known.isEncoded();
    entriesToChange().push_back(std::move(*stored));
    if (encodedBefore) known.encodedEntries.push_back(std::move(*encoded));
    const auto countAfter = static_cast<std::int64_t>(known.entries->list.size());
    if (!writeInventory()) return failedCreate(countBefore);

    const auto& after = currentInventory().entries->list;
    auto created = std::ranges::find(after, task.storageId, &QueueTaskMetadata::taskPersistedId);
    if (created == after.end()) {
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
    // Under the id asked for: a file whose storage_id says otherwise must not overwrite
    // another task's file.
    return saveTask(*task, storageId);
}

std::optional<QueueTask> FileManagerQueueStorage::get(const std::string& storageId) {
    OperationLock hold(*this);
    auto data = fileStorage_->get(FileType::queueTask, storageId);
    if (!data) return std::nullopt;
    return jsonAdapter_->fromJson<QueueTask>(*data, true);
}

bool FileManagerQueueStorage::deleteTask(const std::string& storageId) {
    OperationLock hold(*this);
    KnownInventory& known = currentInventory();
    if (known.unreadable) return false;
    const bool encoded = known.isEncoded();
    auto& entries = entriesToChange();
    // Every entry of that id goes; the encodings go with their entries.
    for (std::size_t i = entries.size(); i-- > 0;) {
        if (entries[i].taskPersistedId != storageId) continue;
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(i));
        if (encoded) known.encodedEntries.erase(known.encodedEntries.begin() +
                                                static_cast<std::ptrdiff_t>(i));
    }
    // The entry goes first: a task file without an entry is never read, while an entry
    // without its file would be.
    if (!writeInventory()) return false;
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
    const QueueInventory& inventory, Date threshold) const {
    // A task that opens a group never expires: the tasks of its group wait for it.
    std::unordered_set<QueueTaskMetadata> expired;
    for (const auto& entry : inventory) {
        if (entry.groupStart) continue;
        if (entry.createdAt.secondsSince1970 < threshold.secondsSince1970) expired.insert(entry);
    }
    return {expired.begin(), expired.end()};
}

bool FileManagerQueueStorage::takeRunLease() { return runLease_.take(); }

void FileManagerQueueStorage::releaseRunLease() { runLease_.release(); }

bool FileManagerQueueStorage::saveTask(const QueueTask& task, const std::string& fileId) {
    auto data = jsonAdapter_->toJson(task);
    if (!data) return false;
    return fileStorage_->save(FileType::queueTask, *data, fileId);
}

CreateQueueStorageTaskResult FileManagerQueueStorage::failedCreate(std::int64_t countBefore) const {
    return CreateQueueStorageTaskResult{false, QueueStatus{siteId_, countBefore}, std::nullopt};
}

}  // namespace tern
