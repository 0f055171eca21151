#pragma once

#include <sys/types.h>

#include <filesystem>

#include "platform/FileLock.hpp"

namespace vontu::platform::linux_host {

// FileLock on flock(2): the lock belongs to the open file, so every lock of one process is
// one open file, and the system drops it when the process ends.
class FlockFileLock final : public FileLock {
public:
    explicit FlockFileLock(std::filesystem::path path);
    ~FlockFileLock() override;
    FlockFileLock(const FlockFileLock&) = delete;
    FlockFileLock& operator=(const FlockFileLock&) = delete;

    std::expected<void, FileError> lock() override;
    std::expected<bool, FileError> tryLock() override;
    void unlock() override;
    std::optional<std::uint64_t> readCounter() override;
    bool writeCounter(std::uint64_t value) override;

private:
    // flock with operation, repeated on a file replaced meanwhile; false when it would block.
    std::expected<bool, FileError> take(int operation);
    std::expected<void, FileError> ensureOpen();
    // True while fd_ is still the file at path_ (nobody removed or replaced it).
    bool stillAtPath() const;
    void closeFile();

    const std::filesystem::path path_;
    int fd_ = -1;
    // The process that opened fd_. A child made by fork inherits fd_, but the file lock
    // belongs to the open file, which the child shares with its parent: it must open its own.
    pid_t openedBy_ = 0;
    bool held_ = false;
};

}  // namespace vontu::platform::linux_host
