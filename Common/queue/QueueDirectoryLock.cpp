#include "Common/queue/QueueDirectoryLock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <system_error>
#include <utility>

#include "Common/queue/PerDirectoryRecord.hpp"
#include "Common/storage/StorageNames.hpp"
#include "platform/Env.hpp"

namespace tern {

namespace fs = std::filesystem;

namespace {

constexpr const char* lockFileName = ".lock";

std::string errnoText(int error) {
    return std::error_code(error, std::generic_category()).message();
}

}  // namespace

// The lock file of one queue directory, shared by every QueueDirectoryLock of that directory
// in this process. Its fields other than path and mutex are touched only by the thread that
// holds mutex.
struct QueueDirectoryLock::LockFile {
    explicit LockFile(fs::path lockPath) : path(std::move(lockPath)) {}

    // Called by the outermost take: opens the file if needed and locks it.
    void acquire(Logger* logger);
    // Called by the outermost release.
    void release();
    // The change count at the start of the file (0 for a new, empty file); absent unless held.
    std::optional<std::uint64_t> readChangeCount() const;
    bool writeChangeCount(std::uint64_t count) const;

    const fs::path path;
    std::recursive_mutex mutex;
    int depth = 0;
    int fd = -1;
    // The process that opened fd. A child made by fork inherits fd, but the file lock belongs
    // to the open file, which the child shares with its parent: the child must open its own.
    pid_t openedBy = 0;
    bool held = false;
    bool failureReported = false;

private:
    bool ensureOpen(Logger* logger);
    // True while fd is still the file at path (nobody removed or replaced it).
    bool stillAtPath() const;
    void closeFile();
    void reportOnce(Logger* logger, const std::string& reason);
};

void QueueDirectoryLock::LockFile::acquire(Logger* logger) {
    // A lock on a file that was removed or replaced meanwhile guards nothing: try again on
    // the file now at the path. Two rounds suffice unless someone keeps deleting it.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!ensureOpen(logger)) return;
        int result = 0;
        do {
            result = ::flock(fd, LOCK_EX);
        } while (result != 0 && errno == EINTR);
        if (result != 0) {
            reportOnce(logger, "could not lock " + path.string() + ": " + errnoText(errno));
            return;
        }
        if (stillAtPath()) {
            held = true;
            return;
        }
        closeFile();
    }
    reportOnce(logger, "the lock file " + path.string() + " keeps being replaced");
}

void QueueDirectoryLock::LockFile::release() {
    if (!held) return;
    ::flock(fd, LOCK_UN);
    held = false;
}

std::optional<std::uint64_t> QueueDirectoryLock::LockFile::readChangeCount() const {
    if (!held) return std::nullopt;
    std::uint64_t count = 0;
    ssize_t n = 0;
    do {
        n = ::pread(fd, &count, sizeof count, 0);
    } while (n < 0 && errno == EINTR);
    if (n == 0) return 0;  // no change recorded yet
    if (n != static_cast<ssize_t>(sizeof count)) return std::nullopt;
    return count;
}

bool QueueDirectoryLock::LockFile::writeChangeCount(std::uint64_t count) const {
    if (!held) return false;
    ssize_t n = 0;
    do {
        n = ::pwrite(fd, &count, sizeof count, 0);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(sizeof count);
}

bool QueueDirectoryLock::LockFile::ensureOpen(Logger* logger) {
    if (fd >= 0 && openedBy != ::getpid()) closeFile();
    if (fd >= 0) return true;

    auto directory = vontu::platform::Env::current().createDirectories(path.parent_path());
    if (!directory) {
        reportOnce(logger, directory.error().localizedDescription);
        return false;
    }
    fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        reportOnce(logger, "could not open " + path.string() + ": " + errnoText(errno));
        return false;
    }
    openedBy = ::getpid();
    return true;
}

bool QueueDirectoryLock::LockFile::stillAtPath() const {
    // A file removed, or replaced by a rename, has no name left; asking the open file spares
    // a walk of the path on every operation. Not noticed: the lock file (or a directory above
    // it) moved to another name, which nothing in the library does.
    struct stat opened {};
    return ::fstat(fd, &opened) == 0 && opened.st_nlink > 0;
}

void QueueDirectoryLock::LockFile::closeFile() {
    // Closing releases this process's lock only; a parent that shares the open file across a
    // fork keeps its own.
    ::close(fd);
    fd = -1;
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
    if (!file_) return std::nullopt;
    return file_->readChangeCount();
}

std::optional<std::uint64_t> QueueDirectoryLock::noteInventoryChange() {
    if (!file_) return std::nullopt;
    // A count that cannot be read cannot be added to; readers then find it unreadable too and
    // trust nothing they remember.
    const auto count = file_->readChangeCount();
    if (!count || !file_->writeChangeCount(*count + 1)) return std::nullopt;
    return *count + 1;
}

std::optional<fs::path> QueueDirectoryLock::lockFilePath() const {
    if (!file_) return std::nullopt;
    return file_->path;
}

}  // namespace tern
