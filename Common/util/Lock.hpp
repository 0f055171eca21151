#pragma once

#include <memory>
#include <mutex>

namespace tern {

// A recursive lock: the thread that holds it may take it again, and every take needs its own
// release. Usable with std::lock_guard and std::unique_lock.
//
// Locks that guard a shared resource come from LockManager, so that every user of the resource
// takes the same one; unsafeInit() makes a lock that nobody else can find.
class Lock {
public:
    // A new stand-alone lock, not known to any LockManager.
    static std::shared_ptr<Lock> unsafeInit();

    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void lock() { lock_.lock(); }
    void unlock() { lock_.unlock(); }

private:
    friend class LockManager;
    Lock() = default;

    std::recursive_mutex lock_;
};

}  // namespace tern
