// Runs of the background queue on the real platform against a tracking service on 127.0.0.1:
// when adding a task makes the queue run, which tasks a run sends and in what order, what
// becomes of each, who is told when a run ends, and the runner's offer of tasks to the modules.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Common/DIGraph.hpp"
#include "Common/hooks/HookModule.hpp"
#include "Common/hooks/ModuleHookProvider.hpp"
#include "Common/hooks/TernHooksManager.hpp"
#include "Common/queue/TernQueueRunRequest.hpp"
#include "Common/queue/TernQueueRunner.hpp"
#include "Common/queue/TrackDeliveryEventRequestBody.hpp"
#include "Common/util/AnyEncodable.hpp"
#include "Common/util/TernThreadUtil.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/support/LoopbackServer.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern::testing {
namespace {

using namespace std::chrono_literals;
using Outcome = std::expected<void, HttpRequestError>;
using Level = RecordingLogger::Level;
using Ids = std::vector<std::string>;
using nlohmann::json;

constexpr auto generousDeadline = 30s;
constexpr const char* siteId = "site1";
const std::string runEnded = "queue out of tasks to run.";
const std::string scheduledLine = "queue timer: scheduled to run queue in ";

struct FixedClock final : DateUtil {
    vontu::platform::Date now() const override { return {1700000123.75}; }
};

// A tracking API on 127.0.0.1 that records every request (path, body) and answers with the status
// the responder gives for the delivery id (200 by default); it may block to hold a run in flight.
class TrackingServer {
public:
    std::string origin() const { return server_.url(); }
    void respond(std::function<int(const std::string& deliveryId)> responder) {
        std::lock_guard guard(mutex_);
        responder_ = std::move(responder);
    }
    std::vector<std::pair<std::string, std::string>> received() const {
        std::lock_guard guard(mutex_);
        return received_;
    }
    Ids receivedDeliveryIds() const {
        Ids ids;
        for (const auto& request : received()) ids.push_back(deliveryId(request.second));
        return ids;
    }
    static std::string deliveryId(const std::string& body) {
        return nlohmann::json::parse(body).value(json::json_pointer("/payload/delivery_id"), "");
    }

private:
    mutable std::mutex mutex_;
    std::function<int(const std::string&)> responder_;
    std::vector<std::pair<std::string, std::string>> received_;
    vontu::testing::LoopbackServer server_{[this](httplib::Server& server) {  // last: stops first
        server.Post(".*", [this](const httplib::Request& request, httplib::Response& out) {
            std::unique_lock guard(mutex_);
            received_.emplace_back(request.path, request.body);
            auto responder = responder_;
            guard.unlock();
            out.status = responder ? responder(deliveryId(request.body)) : 200;
            out.set_content(out.status == 200 ? "{}" : R"({"meta":{"error":"refused"}})",
                            "application/json");
        });
    }};
};

// The platform's threads, counting the runs sent to the background.
struct CountingThreadUtil final : ThreadUtil {
    void runBackground(std::function<void()> block) override {
        ++backgroundJobs;
        TernThreadUtil().runBackground(std::move(block));
    }
    void runMain(std::function<void()> block) override {
        TernThreadUtil().runMain(std::move(block));
    }
    std::atomic<int> backgroundJobs{0};
};

// A module's hook that takes the tasks of one type and answers them at once. Every offer is
// noted in `offers`, by the hook's name.
class TypeHook final : public QueueRunnerHook,
                       public ModuleHookProvider,
                       public std::enable_shared_from_this<TypeHook> {
public:
    TypeHook(std::string type, std::string name, Ids& offers, Outcome answer)
        : type_(std::move(type)), name_(std::move(name)), offers_(offers), answer_(answer) {}

    bool runTask(const QueueTask& task, Completion onComplete) override {
        offers_.push_back(name_);
        if (task.type != type_) return false;
        onComplete(answer_);
        return true;
    }
    std::shared_ptr<ProfileIdentifyHook> profileIdentifyHook() override { return nullptr; }
    std::shared_ptr<QueueRunnerHook> queueRunnerHook() override { return shared_from_this(); }
    std::shared_ptr<ScreenTrackingHook> screenTrackingHook() override { return nullptr; }

private:
    const std::string type_, name_;
    Ids& offers_;
    const Outcome answer_;
};

bool ready(std::future<void> future) {
    return future.wait_for(generousDeadline) == std::future_status::ready;
}

// A graph for siteId that sends to the server and keeps its log lines. Queue settings default
// to "never run by itself" so that a test decides when runs happen.
class QueueRunsTest : public ::testing::Test {
protected:
    SdkConfig configFor(std::int64_t minNumberOfTasks = 1000, double secondsDelay = 600.0) {
        SdkConfig config;
        config.trackingApiUrl = server.origin();
        config.logLevel = TernLogLevel::debug;
        config.backgroundQueueMinNumberOfTasks = minNumberOfTasks;
        config.backgroundQueueSecondsDelay = secondsDelay;
        return config;
    }
    void makeGraph(std::int64_t minNumberOfTasks = 1000, double secondsDelay = 600.0) {
        graph_ = std::make_unique<DIGraph>(siteId, "k", configFor(minNumberOfTasks, secondsDelay));
        graph_->override<ThreadUtil>(threads);
        graph_->override<Logger>(logger);
    }
    DIGraph& graph() {
        if (!graph_) makeGraph();
        return *graph_;
    }

    QueueAddResult addDelivery(const std::string& deliveryId,
                               const std::optional<QueueTaskGroup>& groupStart = {},
                               const std::optional<std::vector<QueueTaskGroup>>& blocking = {}) {
        auto body = TrackDeliveryEventRequestBody::inApp(deliveryId, InAppMetric::opened,
                                                         {1700000000.0});
        return graph().queue()->addTask(TrackDeliveryEventRequestBody::queueTaskType,
                                        AnyEncodable(body), groupStart, blocking);
    }
    // Runs the queue and waits until the run has ended.
    bool runQueue() {
        auto done = std::make_shared<std::promise<void>>();
        graph().queue()->run([done] { done->set_value(); });
        return ready(done->get_future());
    }
    long logged(Level level, const std::string& start) const {
        auto lines = logger->messages(level);
        return std::ranges::count_if(lines, [&](const auto& l) { return l.starts_with(start); });
    }

    Ids inventoryIds() {
        Ids ids;
        for (auto& e : graph().queueStorage()->getInventory()) ids.push_back(e.taskPersistedId);
        return ids;
    }
    std::int64_t totalRunsOf(const std::string& storageId) {
        auto task = graph().queueStorage()->get(storageId);
        return task ? task->runResults.totalRuns : -1;
    }

    vontu::testing::TestEnv testEnv;
    TrackingServer server;
    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<CountingThreadUtil> threads = std::make_shared<CountingThreadUtil>();

private:
    std::unique_ptr<DIGraph> graph_;
};

// --- Adding tasks: the facade and its timer

TEST_F(QueueRunsTest, BelowTheMinimumTheTimerIsScheduledOnceAndRunsTheQueue) {
    makeGraph(/*minNumberOfTasks=*/3, /*secondsDelay=*/2.0);
    EXPECT_TRUE(addDelivery("one").success);
    EXPECT_TRUE(addDelivery("two").success);

    EXPECT_EQ(logged(Level::info, scheduledLine), 1);
    EXPECT_EQ(logged(Level::info, scheduledLine + "2.0 seconds"), 1);
    ASSERT_TRUE(logger->waitForMessage("queue timer: queue done running", generousDeadline));
    EXPECT_EQ(server.receivedDeliveryIds(), (Ids{"one", "two"}));
}

TEST_F(QueueRunsTest, ReachingTheMinimumCancelsTheTimerAndRunsAtOnce) {
    makeGraph(/*minNumberOfTasks=*/2, /*secondsDelay=*/600.0);
    addDelivery("one");
    EXPECT_EQ(addDelivery("two").queueStatus, (QueueStatus{siteId, 2}));
    ASSERT_TRUE(logger->waitForMessage("queue completed all tasks", generousDeadline));
    EXPECT_EQ(server.receivedDeliveryIds(), (Ids{"one", "two"}));
    addDelivery("three");  // the cancelled schedule no longer blocks a new one
    EXPECT_EQ(logged(Level::info, scheduledLine), 2);
}

struct UnwritableRecord {  // the JSON adapter refuses to write it
    void encode(JsonEncoder& encoder) const { encoder.encode("value", std::nan("")); }
};

TEST_F(QueueRunsTest, DataThatCannotBeEncodedStoresNothingAndLeavesTheTimerAlone) {
    addDelivery("stored");
    auto result = graph().queue()->addTask("trackEvent", AnyEncodable(UnwritableRecord{}));
    EXPECT_EQ(result, (QueueAddResult{false, QueueStatus{siteId, 1}}));
    EXPECT_EQ(logged(Level::error, "fail adding queue task, json encoding fail."), 1);
    EXPECT_EQ(logged(Level::debug, "processing queue status "), 1);  // only the first add's
}

TEST_F(QueueRunsTest, DeliveryMetricIsStoredAndSentAsTheTrackingServiceExpects) {
    graph().override<DateUtil>(std::make_shared<FixedClock>());
    const std::string body =
        R"({"payload":{"delivery_id":"dlv-7","event":"clicked","timestamp":1700000123},)"
        R"("type":"in_app"})";
    ASSERT_TRUE(graph().queue()->addTrackInAppDeliveryTask("dlv-7", InAppMetric::clicked).success);
    EXPECT_EQ(vontu::platform::toString(graph().queueStorage()->get(inventoryIds().at(0))->data),
              body);
    ASSERT_TRUE(runQueue());
    using Request = std::pair<std::string, std::string>;
    EXPECT_EQ(server.received(), (std::vector{Request("/api/v1/tern_deliveries/events", body)}));
    EXPECT_TRUE(inventoryIds().empty());
}

// --- Runs

TEST_F(QueueRunsTest, StartsDuringARunJoinItAndAreCalledInOrderWhenItEnds) {
    addDelivery("first");
    addDelivery("second");
    std::promise<void> arrived, release;
    server.respond([&arrived, held = release.get_future().share()](const std::string& id) {
        if (id == "first") arrived.set_value();
        held.wait();
        return 200;
    });
    std::vector<int> called;  // by the run's thread, one after the other
    std::promise<void> last;
    graph().queue()->run([&] { called.push_back(1); });
    ASSERT_TRUE(ready(arrived.get_future()));
    graph().queue()->run([&] { called.push_back(2); });
    graph().queueRunRequest()->start([&] {
        called.push_back(3);
        last.set_value();
    });
    release.set_value();

    ASSERT_TRUE(ready(last.get_future()));
    EXPECT_EQ(threads->backgroundJobs, 1);
    EXPECT_EQ(server.receivedDeliveryIds(), (Ids{"first", "second"}));
    EXPECT_EQ(logged(Level::debug, runEnded), 1);
    EXPECT_EQ(called, (std::vector<int>{1, 2, 3}));
}

// Tasks run in inventory order. A failed task (404: not retried) is counted and the search goes on
// behind it, past the members of the group it opens; a rejected one (400) is deleted uncounted.
// Once the task last run is gone, the search starts again at the front.
TEST_F(QueueRunsTest, FailedTasksAreCountedAndMembersOfTheirGroupsWaitWhileOthersRun) {
    const auto group = QueueTaskGroup::identifiedProfile("ann");
    addDelivery("opener", group);
    addDelivery("member", {}, std::vector{group});
    addDelivery("rejected");
    addDelivery("loose");
    addDelivery("other-member", {}, std::vector{QueueTaskGroup::identifiedProfile("bob")});
    const auto ids = inventoryIds();
    server.respond([](const std::string& id) {
        return id == "opener" ? 404 : id == "rejected" ? 400 : 200;
    });

    ASSERT_TRUE(runQueue());
    EXPECT_EQ(server.receivedDeliveryIds(),
              (Ids{"opener", "rejected", "opener", "loose", "opener", "other-member", "opener"}));
    EXPECT_EQ(totalRunsOf(ids[0]), 4);
    EXPECT_EQ(inventoryIds(), (Ids{ids[0], ids[1]}));
    EXPECT_EQ(logged(Level::error, "Received HTTP 400 response while trying to trackDeliveryMetric."
                                   " 400 responses never"), 1);
    const auto shortId = TernQueueRunRequest::shortTaskId(ids[2]);
    EXPECT_EQ(logged(Level::debug, "queue task " + shortId + " updating run history"), 0);
}

TEST_F(QueueRunsTest, PausedRequestsEndTheRunWithNothingDeletedOrCounted) {
    Ids offers;
    graph().hooksManager()->add(
        HookModule::tracking,
        std::make_shared<TypeHook>("identifyProfile", "tracking", offers,
                                   std::unexpected(HttpRequestError::requestsPaused())));
    ASSERT_TRUE(graph().queue()->addTask("identifyProfile", AnyEncodable(std::string())).success);
    addDelivery("after-the-pause");
    const auto pausedId = inventoryIds().at(0);

    ASSERT_TRUE(runQueue());
    EXPECT_TRUE(server.received().empty());
    EXPECT_EQ(totalRunsOf(pausedId), 0);  // neither counted nor deleted
    EXPECT_EQ(offers.size(), 1u);
    EXPECT_EQ(logged(Level::info, "queue is quitting early because all HTTP requests"), 1);
    ASSERT_TRUE(runQueue());  // the manager is idle again: the next run starts anew
    EXPECT_EQ(offers.size(), 2u);
}

TEST_F(QueueRunsTest, MissingTaskFileEndsTheRunAndLeavesTheManagerRunning) {
    addDelivery("lost");
    addDelivery("never-sent");
    const auto lostId = inventoryIds().at(0);
    std::filesystem::remove(*testEnv.env().applicationSupportDirectory() / "dev.tern" / siteId /
                            "queue" / "tasks" / (lostId + ".json"));

    std::atomic<int> completed{0};
    graph().queue()->run([&] { ++completed; });
    ASSERT_TRUE(logger->waitForMessage("Tried to get queue task with storage id: " + lostId +
                                           ", but storage couldn't find it.",
                                       generousDeadline));
    graph().queue()->run([&] { ++completed; });
    EXPECT_EQ(threads->backgroundJobs, 1);  // the second run() started nothing
    EXPECT_EQ(completed, 0);
    EXPECT_EQ(logged(Level::debug, runEnded), 0);
    EXPECT_TRUE(server.received().empty());
}

TEST_F(QueueRunsTest, TasksAddedFromSeveralThreadsDuringRunsAreEachSentOnce) {
    makeGraph(/*minNumberOfTasks=*/1);
    std::vector<std::thread> adders;
    for (int t = 0; t < 100; t += 25) {
        adders.emplace_back([this, t] {
            for (int i = t; i < t + 25; ++i) EXPECT_TRUE(addDelivery(std::to_string(i)).success);
        });
    }
    for (auto& adder : adders) adder.join();
    ASSERT_TRUE(runQueue());  // joins the run under way, or starts one for what is left

    auto sent = server.receivedDeliveryIds();
    std::ranges::sort(sent, {}, [](const std::string& id) { return std::stoi(id); });
    Ids expected;
    for (int i = 0; i < 100; ++i) expected.push_back(std::to_string(i));
    EXPECT_EQ(sent, expected);  // each once
    EXPECT_EQ(logged(Level::info, "queue completed all tasks"), 100);
}

// --- The runner

TEST_F(QueueRunsTest, RunnerOffersOtherTasksToTheModulesInOrderUntilOneTakesThem) {
    Ids offers;
    const Outcome unauthorized = std::unexpected(HttpRequestError::unauthorized());
    auto hooks = std::make_shared<TernHooksManager>();
    hooks->add(HookModule::tracking,
               std::make_shared<TypeHook>("identifyProfile", "tracking", offers, Outcome{}));
    hooks->add(HookModule::messagingPush,
               std::make_shared<TypeHook>("registerPushToken", "push", offers, unauthorized));
    TernQueueRunner runner(siteId, graph().jsonAdapter(), graph().logger(), graph().httpClient(),
                           configFor(), hooks);
    std::vector<Outcome> outcomes;
    for (const char* type : {"registerPushToken", "syncInbox"}) {
        runner.runTask(QueueTask{"A", type, {}, {}}, [&](Outcome out) { outcomes.push_back(out); });
    }
    EXPECT_EQ(offers, (Ids{"tracking", "push", "tracking", "push"}));
    // The taker's outcome is the task's; a task that no module takes fails without a request.
    EXPECT_EQ(outcomes, (std::vector<Outcome>{
                            unauthorized, std::unexpected(HttpRequestError::noRequestMade({}))}));
    EXPECT_EQ(logged(Level::error, "task syncInbox not handled by any module"), 1);
}

}  // namespace
}  // namespace tern::testing
