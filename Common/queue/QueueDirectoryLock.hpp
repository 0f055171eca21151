#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "Common/util/Logger.hpp"

namespace tern {

// Excludes other processes from a site's queue directory while a storage operation runs: the
// app and its extensions share one queue, and two read-modify-writes of the inventory that
// interleave would lose an entry.
//
// It is the platform's inter-process lock (Env::newFileLock) on
// "<application support>/dev.tern/<site id>/queue/.lock". Within the process it is recursive:
// every QueueDirectoryLock of the same directory shares one lock file, the thread that holds it
// may take it again, and the file lock is released when the outermost take is released. Take
// it after the in-process queue lock and release it before, so the two are always taken in the
// same order.
//
// If the lock file cannot be opened (or locked), operations go ahead without it, guarded only
// by the in-process lock; that is reported with one error line per directory and process.
// A child made by fork takes a lock of its own (see FileLock); like any lock, it must not be
// taken in a child forked while it was held. Usable with std::lock_guard.
class QueueDirectoryLock {
public:
    QueueDirectoryLock(const std::string& siteId, std::shared_ptr<Logger> logger);
    ~QueueDirectoryLock();
    QueueDirectoryLock(const QueueDirectoryLock&) = delete;
    QueueDirectoryLock& operator=(const QueueDirectoryLock&) = delete;

    void lock();
    void unlock();

    // The lock file also counts the changes that the library makes to the queue's inventory,
    // so that a process can tell whether what it remembers of the inventory is still current.
    // Both calls are for the thread that holds this lock.
    //
    // The count now; absent when the lock file could not be opened or locked, and nothing can
    // be told.
    std::optional<std::uint64_t> inventoryChanges() const;
    // Adds one to the count, after a change of the inventory; the new count, absent as above.
    std::optional<std::uint64_t> noteInventoryChange();

    // Where the lock file is; absent when the platform has no application-support directory.
    std::optional<std::filesystem::path> lockFilePath() const;

private:
    struct LockFile;

    std::shared_ptr<LockFile> file_;
    std::shared_ptr<Logger> logger_;
};

}  // namespace tern
