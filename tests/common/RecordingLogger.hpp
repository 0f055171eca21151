#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "Common/util/Logger.hpp"

namespace tern::testing {

// A Logger that keeps every line, safe from any thread, and lets a test wait for a line.
class RecordingLogger final : public Logger {
public:
    enum class Level { debug, info, error };
    struct Line {
        Level level;
        std::string message;
    };

    void debug(const std::string& message) override { record(Level::debug, message); }
    void info(const std::string& message) override { record(Level::info, message); }
    void error(const std::string& message) override { record(Level::error, message); }

    std::vector<Line> lines() const {
        std::lock_guard guard(mutex_);
        return lines_;
    }

    std::vector<std::string> messages(Level level) const {
        std::vector<std::string> selected;
        for (const auto& line : lines()) {
            if (line.level == level) selected.push_back(line.message);
        }
        return selected;
    }

    // True once a line with exactly this message has been logged; false after the deadline.
    bool waitForMessage(const std::string& message,
                        std::chrono::milliseconds deadline = std::chrono::seconds(10)) const {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, deadline, [&] {
            for (const auto& line : lines_) {
                if (line.message == message) return true;
            }
            return false;
        });
    }

private:
    // Notifies under the mutex: a waiter that wakes up may destroy the logger at once.
    void record(Level level, const std::string& message) {
        std::lock_guard guard(mutex_);
        lines_.push_back({level, message});
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Line> lines_;
};

}  // namespace tern::testing
