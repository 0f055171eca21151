#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vontu::testing {

// Holds server handlers back until the test lets them go, and tells the test when they have
// been reached.
class Gate {
public:
    void arrive() {
        std::lock_guard lock(mutex_);
        ++arrivals_;
        changed_.notify_all();
    }
    bool waitForArrivals(int count, std::chrono::seconds limit = std::chrono::seconds(30)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return arrivals_ >= count; });
    }
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    // True once opened; false when the limit passed first.
    bool waitOpen(std::chrono::milliseconds limit = std::chrono::seconds(60)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int arrivals_ = 0;
    bool open_ = false;
};

}  // namespace vontu::testing
