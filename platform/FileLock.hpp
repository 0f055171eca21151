#pragma once

#include <cstdint>
#include <expected>
#include <optional>

#include "platform/AutoMockable.hpp"
#include "platform/FileError.hpp"

namespace vontu::platform {

// An exclusive lock that processes take on one file, for state that several processes share
// (the app and its extensions work on one queue). The file also keeps a small counter that the
// holder may read and change.
//
// - Exclusive across processes: while one process holds the lock, lock() in any other process
//   waits and tryLock() there answers false. The system releases the lock when the holding
//   process ends, however it ends, so a killed process never leaves it taken.
// - Held by the process, not by a thread: within a process callers keep threads apart
//   themselves (one object per file is shared, and taken by one thread at a time). lock() on a
//   lock this process already holds returns at once.
// - Fork: a child process does not inherit the lock or share it with its parent; its first
//   lock() opens the file anew and waits for the parent like any other process. A lock must
//   not be used in a child forked while another of its threads held it.
// - A removed or replaced file: the lock is always taken on the file now at the path (made,
//   0600, when missing; its directory must exist), so two processes can never each hold a lock
//   on a different file of the same name. A file that keeps being replaced fails the lock.
// - Failure (the file cannot be made, opened or locked): an error with a text fit for a log
//   line, and the lock is not held. Nothing is thrown.
// Destroying the object releases the lock and closes the file.
class FileLock : public AutoMockable {
public:
    // Waits until this process holds the lock.
    virtual std::expected<void, FileError> lock() = 0;
    // Takes the lock when no other process holds it; false, at once, when one does.
    virtual std::expected<bool, FileError> tryLock() = 0;
    // Releases the lock; nothing when it is not held.
    virtual void unlock() = 0;

    // The counter in the file's first eight bytes: 0 for a new, empty file. Only while the lock
    // is held; absent when it is not, or when the file cannot be read.
    virtual std::optional<std::uint64_t> readCounter() = 0;
    // Stores the counter; false when the lock is not held or the file cannot be written.
    virtual bool writeCounter(std::uint64_t value) = 0;
};

}  // namespace vontu::platform
