// The queue against a platform whose file operations fail: every changing call of a small
// scenario (add three tasks, run the queue, delete expired tasks) is made to fail in turn, with
// EIO, with ENOSPC and as a short write, and a power cut is played after each. After each, the
// inventory still reads, no task the queue acknowledged or lists is lost (a later run sends it
// if this one did not), and no run sends a task twice.

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Common/DIGraph.hpp"
#include "Common/queue/TrackDeliveryEventRequestBody.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/support/FaultInjectingEnv.hpp"
#include "tests/support/LoopbackServer.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern::testing {
namespace {

using vontu::testing::FaultInjectingEnv;
using Fault = FaultInjectingEnv::Fault;
using Counts = std::map<std::string, int>;

constexpr const char* siteId = "faults";

// One state root, its platform with faults, and a tracking API that counts each delivery id.
class Scenario {
public:
    Scenario() {
        SdkConfig config;
        config.trackingApiUrl = server_.url();
        config.backgroundQueueMinNumberOfTasks = 1000;  // runs only when the test says
        config.backgroundQueueSecondsDelay = 600;
        graph_ = std::make_unique<DIGraph>(siteId, "k", config);
        graph_->override<Logger>(std::make_shared<RecordingLogger>());
    }

    FaultInjectingEnv& env() { return faulty_; }

    // Adds three tasks, runs the queue and deletes expired tasks; the ids the queue
    // acknowledged, or absent when the run did not end.
    std::optional<std::vector<std::string>> play() {
        std::vector<std::string> acknowledged;
        for (const char* id : {"a", "b", "c"}) {
            auto body = TrackDeliveryEventRequestBody::inApp(id, InAppMetric::opened, {1.0});
            if (graph_->queue()
                    ->addTask(TrackDeliveryEventRequestBody::queueTaskType, AnyEncodable(body))
                    .success) {
                acknowledged.push_back(id);
            }
        }
        if (!runQueue()) return std::nullopt;
        graph_->queue()->deleteExpiredTasks();
        return acknowledged;
    }

    bool runQueue() {
        auto ended = std::make_shared<std::promise<void>>();
        graph_->queue()->run([ended] { ended->set_value(); });
        return ended->get_future().wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    }

    Counts sent() {
        std::lock_guard guard(mutex_);
        return sent_;
    }

    std::filesystem::path queueDirectory() {
        return *host_.env().applicationSupportDirectory() / "dev.tern" / siteId / "queue";
    }

    // The inventory file is missing or a JSON array: never half written.
    bool inventoryReads() { return listedCount().has_value(); }

    // How many tasks the inventory file lists (0 when there is none); absent when it is no
    // JSON array.
    std::optional<int> listedCount() {
        std::ifstream in(queueDirectory() / "inventory.json");
        if (!in) return 0;
        const auto inventory = nlohmann::json::parse(in, nullptr, false);
        if (!inventory.is_array()) return std::nullopt;
        return static_cast<int>(inventory.size());
    }

private:
    vontu::testing::TestEnv host_;
    FaultInjectingEnv faulty_{host_.env()};
    std::mutex mutex_;
    Counts sent_;
    vontu::testing::LoopbackServer server_{[this](httplib::Server& server) {
        server.Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
            const auto body = nlohmann::json::parse(request.body, nullptr, false);
            std::lock_guard guard(mutex_);
            ++sent_[body["payload"]["delivery_id"].get<std::string>()];
            response.set_content("{}", "application/json");
        });
    }};
    std::unique_ptr<DIGraph> graph_;
};

TEST(QueueFaults, NoFailedFileOperationLosesAnAcknowledgedTaskOrSendsOneTwiceInARun) {
    int changingCalls = 0;
    {
        Scenario clean;
        ASSERT_EQ(clean.play(), (std::vector<std::string>{"a", "b", "c"}));
        changingCalls = clean.env().changingCalls();
        EXPECT_EQ(clean.sent(), (Counts{{"a", 1}, {"b", 1}, {"c", 1}}));
    }
    ASSERT_GT(changingCalls, 6);  // 14 today: two files an add, two a sent task, directories
    for (const Fault fault : {Fault::eio, Fault::enospc, Fault::shortWrite}) {
        for (int nth = 1; nth <= changingCalls; ++nth) {
            SCOPED_TRACE("fault " + std::to_string(static_cast<int>(fault)) + " at call " +
                         std::to_string(nth));
            Scenario scenario;
            scenario.env().arm(nth, fault);
            const auto acknowledged = scenario.play();
            ASSERT_TRUE(acknowledged.has_value()) << "the run did not end";
            EXPECT_TRUE(scenario.env().fired());
            for (const auto& [id, times] : scenario.sent()) EXPECT_EQ(times, 1) << id;
            EXPECT_TRUE(scenario.inventoryReads());

            // Without faults, a later run sends whatever this one left.
            scenario.env().arm(0, fault);
            ASSERT_TRUE(scenario.runQueue());
            EXPECT_TRUE(scenario.inventoryReads());
            const auto sent = scenario.sent();
            for (const auto& id : *acknowledged) EXPECT_TRUE(sent.contains(id)) << id << " lost";
            EXPECT_NE(vontu::platform::Env::current().defaultsSuite("fault-walk"), nullptr);
        }
    }
}

// A power cut may undo the last changes, but it never makes a file torn (each is replaced
// whole) nor keeps a later replacement without an earlier one (the file system commits them in
// order): it leaves the queue as it was after some number of its changing calls. From each
// such state the queue reads, and a run sends every task it lists once and ends.
TEST(QueueFaults, AfterAPowerCutAtAnyCallTheQueueReadsAndSendsWhatItListsOnce) {
    namespace fs = std::filesystem;
    vontu::testing::TempDir snapshots;
    int taken = 0;
    {
        Scenario clean;
        clean.env().afterChange = [&] {
            fs::copy(clean.queueDirectory(), snapshots.path() / std::to_string(++taken),
                     fs::copy_options::recursive);
        };
        ASSERT_TRUE(clean.play().has_value());
        clean.env().afterChange = nullptr;
    }
    ASSERT_GT(taken, 6);
    for (int state = 1; state <= taken; ++state) {
        SCOPED_TRACE("power cut after change " + std::to_string(state));
        Scenario after;
        fs::create_directories(after.queueDirectory().parent_path());
        fs::copy(snapshots.path() / std::to_string(state), after.queueDirectory(),
                 fs::copy_options::recursive);
        const auto listed = after.listedCount();
        ASSERT_TRUE(listed.has_value());
        ASSERT_TRUE(after.runQueue());
        int sent = 0;
        for (const auto& [id, times] : after.sent()) {
            EXPECT_EQ(times, 1) << id;
            sent += times;
        }
        EXPECT_EQ(sent, *listed);
        EXPECT_EQ(after.listedCount(), 0);
    }
}

}  // namespace
}  // namespace tern::testing
