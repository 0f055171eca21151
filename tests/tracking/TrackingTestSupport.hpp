#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "TernTracking/Tern.hpp"
#include "tests/tracking_runner/TrackingServer.hpp"

namespace tern::testing {

// Waits, checking now and then, until condition holds; false after a generous deadline.
inline bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

// The start-up clean-up of the last initialisation has finished and let go of its repository.
// Until then it works on the queue's files in the background, and it would release the
// repository of a next initialisation before that one's clean-up could use it.
inline bool cleanupFinished() {
    return eventually([] { return Tern::shared()->cleanupRepository() == nullptr; });
}

// One task of the queue as stored: its type, its groups and its data as JSON.
struct QueuedTask {
    std::string type;
    std::optional<std::string> groupStart;
    std::optional<std::vector<std::string>> groupMember;
    nlohmann::json data;
};

// A site of its own for one test (a new site id, so its profile and queue start empty),
// initialised in the app form against a TrackingServer, with a queue that never runs by itself
// so that the test runs it when it wants to. Runs on the test program's global environment.
class TrackingSite {
public:
    explicit TrackingSite(TrackingServer& server) : server_(server) {
        initialize();
        // The push token belongs to the app, not to a site: start without one.
        Tern::shared()->diGraph()->globalDataStore()->deleteAll();
    }

    const std::string& siteId() const { return siteId_; }

    // Initialises the shared Tern object for this site again.
    void initialize() {
        Tern::initialize(siteId_, "test-api-key", Region::US, [this](SdkConfig& config) {
            config.modify({{"trackingApiUrl", server_.baseUrl()},
                           {"backgroundQueueMinNumberOfTasks", 100000},
                           {"backgroundQueueSecondsDelay", 3600.0}});
        });
        EXPECT_TRUE(cleanupFinished());
    }

    // Runs the background queue and waits until that run has ended.
    bool runQueue() const {
        auto done = std::make_shared<std::promise<void>>();
        auto finished = done->get_future();
        Tern::shared()->diGraph()->queue()->run([done] { done->set_value(); });
        return finished.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    }

    std::vector<QueuedTask> queued() const {
        auto graph = Tern::shared()->diGraph();
        auto storage = graph->queueStorage();
        std::vector<QueuedTask> tasks;
        for (const auto& entry : storage->getInventory()) {
            auto task = storage->get(entry.taskPersistedId);
            const std::string data = task ? vontu::platform::toString(task->data) : "";
            tasks.push_back({entry.taskType, entry.groupStart, entry.groupMember,
                             nlohmann::json::parse(data, nullptr, false)});
        }
        return tasks;
    }
    // Token registrations end on another thread, once the device attributes have arrived.
    bool waitForQueuedRegistrations(std::ptrdiff_t count) const {
        return eventually([&] {
            return std::ranges::count(queued(), "registerPushToken", &QueuedTask::type) >= count;
        });
    }

    static std::string newSiteId() {
        static std::atomic<int> counter{0};
        return "site-" + std::to_string(++counter) + "-tracking";
    }

private:
    TrackingServer& server_;
    const std::string siteId_ = newSiteId();
};

}  // namespace tern::testing
