#include "platform/linux/FlockFileLock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace vontu::platform::linux_host {

namespace fs = std::filesystem;

namespace {

FileError lockError(const std::string& what, const fs::path& path, int error) {
    return FileError{what + " " + path.string() + ": " +
                     std::error_code(error, std::generic_category()).message()};
}

}  // namespace

FlockFileLock::FlockFileLock(fs::path path) : path_(std::move(path)) {}

FlockFileLock::~FlockFileLock() {
    if (fd_ >= 0) closeFile();
}

std::expected<void, FileError> FlockFileLock::lock() {
    auto taken = take(LOCK_EX);
    if (!taken) return std::unexpected(taken.error());
    return {};
}

std::expected<bool, FileError> FlockFileLock::tryLock() { return take(LOCK_EX | LOCK_NB); }

std::expected<bool, FileError> FlockFileLock::take(int operation) {
    if (held_ && openedBy_ == ::getpid()) return true;
    // A lock on a file that was removed or replaced meanwhile guards nothing: try again on
    // the file now at the path. Two rounds suffice unless someone keeps replacing it.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (auto opened = ensureOpen(); !opened) return std::unexpected(opened.error());
        int result = 0;
        do {
            result = ::flock(fd_, operation);
        } while (result != 0 && errno == EINTR);
        if (result != 0) {
            if (errno == EWOULDBLOCK) return false;
            return std::unexpected(lockError("could not lock", path_, errno));
        }
        if (stillAtPath()) {
            held_ = true;
            return true;
        }
        closeFile();
    }
    return std::unexpected(FileError{"the lock file " + path_.string() + " keeps being replaced"});
}

void FlockFileLock::unlock() {
    if (!held_) return;
    ::flock(fd_, LOCK_UN);
    held_ = false;
}

std::optional<std::uint64_t> FlockFileLock::readCounter() {
    if (!held_) return std::nullopt;
    std::uint64_t count = 0;
    ssize_t n = 0;
    do {
        n = ::pread(fd_, &count, sizeof count, 0);
    } while (n < 0 && errno == EINTR);
    if (n == 0) return 0;  // nothing stored yet
    if (n != static_cast<ssize_t>(sizeof count)) return std::nullopt;
    return count;
}

bool FlockFileLock::writeCounter(std::uint64_t value) {
    if (!held_) return false;
    ssize_t n = 0;
    do {
        n = ::pwrite(fd_, &value, sizeof value, 0);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(sizeof value);
}

std::expected<void, FileError> FlockFileLock::ensureOpen() {
    if (fd_ >= 0 && openedBy_ != ::getpid()) closeFile();  // inherited across fork
    if (fd_ >= 0) return {};
    fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) return std::unexpected(lockError("could not open", path_, errno));
    openedBy_ = ::getpid();
    return {};
}

bool FlockFileLock::stillAtPath() const {
    // A file removed, or replaced by a rename, has no name left; asking the open file spares
    // a walk of the path on every take. Not noticed: the file (or a directory above it) moved
    // to another name.
    struct stat opened {};
    return ::fstat(fd_, &opened) == 0 && opened.st_nlink > 0;
}

void FlockFileLock::closeFile() {
    // Closing drops the lock only with the last descriptor of the open file: a parent that
    // shares it across a fork keeps its lock when the child closes its copy.
    ::close(fd_);
    fd_ = -1;
    held_ = false;
}

}  // namespace vontu::platform::linux_host
