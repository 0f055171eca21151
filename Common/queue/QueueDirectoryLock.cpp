#include "Common/queue/QueueDirectoryLock.hpp"

#include <atomic>
#include <mutex>
#include <utility>

#include "Common/queue/PerDirectoryRecord.hpp"
#include "Common/storage/StorageNames.hpp"
#include "platform/Env.hpp"

namespace tern {

namespace fs = std::filesystem;

namespace {

constexpr const char* lockFileName = ".lock";

}  // namespace

// The lock file of one queue directory, shared by every QueueDirectoryLock of that directory
// in this process. Its fields other than path and mutex are touched only by the thread that
// holds mutex.
struct QueueDirectoryLock::LockFile {
    explicit LockFile(fs::path lockPath) : path(std::move(lockPath)) {}

    // Called by the outermost take: locks the file.
    void acquire(Logger* logger);
    // Called by the outermost release.
    void release();

    const fs::path path;
    std::recursive_mutex mutex;
    int depth = 0;
    // The platform's lock on the file, kept open for the life of the process; made anew when
    // another Env is current (a test's), so that every lock goes through the Env in force.
    std::unique_ptr<vontu::platform::FileLock> file;
    vontu::platform::Env* madeBy = nullptr;
    bool held = false;
    bool failureReported = false;

private:
    void reportOnce(Logger* logger, const std::string& reason);
};

void QueueDirectoryLock::LockFile::acquire(Logger* logger) {
    auto& env = vontu::platform::Env::current();
    if (!file || madeBy != &env) {
        file = env.newFileLock(path);
        madeBy = &env;
    }
    auto locked = file->lock();
    if (!locked) {
        // The queue directory may not exist yet, or no longer: make it, and try once more.
        auto directory = env.createDirectories(path.parent_path());
        if (!directory) {
            reportOnce(logger, directory.error().localizedDescription);
            return;
        }
        locked = file->lock();
    }
    if (!locked) {
        reportOnce(logger, locked.error().localizedDescription);
        return;
    }
    held = true;
}

void QueueDirectoryLock::LockFile::release() {
    if (!held) return;
    file->unlock();
    held = false;
}

void QueueDirectoryLock::LockFile::reportOnce(Logger* logger, const std::string& reason) {
    if (failureReported) return;
    failureReported = true;
    if (logger != nullptr) {
        logger->error(
            "queue directory lock unavailable, other processes are not kept out of "
            "the queue: " +
            reason);
    }
}

QueueDirectoryLock::QueueDirectoryLock(const std::string& siteId, std::shared_ptr<Logger> logger)
    : logger_(std::move(logger)) {
    auto support = vontu::platform::Env::current().applicationSupportDirectory();
    if (!support) {
        static std::atomic<bool> reported{false};
        if (!reported.exchange(true) && logger_) {
            logger_->error(
                "queue directory lock unavailable, other processes are not kept out of the "
                "queue: no application support directory");
        }
        return;
    }
    // Lock files stay open for the life of the process: one per site's queue.
    file_ = perDirectoryRecord<LockFile>(*support / libraryDirectoryName / siteId / "queue" /
                                         lockFileName);
}

QueueDirectoryLock::~QueueDirectoryLock() = default;

void QueueDirectoryLock::lock() {
    if (!file_) return;
    file_->mutex.lock();
    if (file_->depth++ == 0) file_->acquire(logger_.get());
}

void QueueDirectoryLock::unlock() {
    if (!file_) return;
    if (--file_->depth == 0) file_->release();
    file_->mutex.unlock();
}

std::optional<std::uint64_t> QueueDirectoryLock::inventoryChanges() const {
    if (!file_ || !file_->held) return std::nullopt;
    return file_->file->readCounter();
}

std::optional<std::uint64_t> QueueDirectoryLock::noteInventoryChange() {
    if (!file_) return std::nullopt;
    // A count that cannot be read cannot be added to; readers then find it unreadable too and
    // trust nothing they remember.
    const auto count = inventoryChanges();
    if (!count || !file_->file->writeCounter(*count + 1)) return std::nullopt;
    return *count + 1;
}

std::optional<fs::path> QueueDirectoryLock::lockFilePath() const {
    if (!file_) return std::nullopt;
    return file_->path;
}

}  // namespace tern
