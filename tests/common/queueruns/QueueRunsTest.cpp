// Runs of the background queue against a tracking service on 127.0.0.1: when adding a task runs
// the queue, what a run sends or offers the modules, what becomes of each task, who is told.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>

#include "Common/DIGraph.hpp"
#include "Common/hooks/ModuleHookProvider.hpp"
#include "Common/queue/TernQueueRunRequest.hpp"
#include "Common/queue/TrackDeliveryEventRequestBody.hpp"
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

constexpr auto generousDeadline = 30s;
constexpr const char* siteId = "site1";

// A tracking API on 127.0.0.1 that keeps each request as "path body" and answers with the
// status the responder gives for its delivery id (200 by default); a responder may block.
class TrackingServer {
public:
    std::string origin() const { return server_.url(); }
    void respond(std::function<int(const std::string& deliveryId)> responder) {
        std::lock_guard guard(mutex_);
        responder_ = std::move(responder);
    }
    Ids received() const {
        std::lock_guard guard(mutex_);
        return received_;
    }
    Ids receivedDeliveryIds() const {
        std::lock_guard guard(mutex_);
        return deliveryIds_;
    }

private:
    mutable std::mutex mutex_;
    std::function<int(const std::string&)> responder_;
    Ids received_, deliveryIds_;
    vontu::testing::LoopbackServer server_{[this](httplib::Server& server) {  // last: stops first
        server.Post(".*", [this](const httplib::Request& request, httplib::Response& out) {
            const std::string id = nlohmann::json::parse(request.body)["payload"]["delivery_id"];
            std::unique_lock guard(mutex_);
            received_.push_back(request.path + " " + request.body);
            deliveryIds_.push_back(id);
            auto responder = responder_;
            guard.unlock();
            out.status = responder ? responder(id) : 200;
            out.set_content("{}", "application/json");
        });
    }};
};

// Set while a block sent to the background by the library runs.
thread_local bool inBackgroundJob = false;

struct CountingThreadUtil final : ThreadUtil {
    void runBackground(std::function<void()> block) override {
        ++backgroundJobs;
        TernThreadUtil().runBackground([block = std::move(block)] {
            inBackgroundJob = true;
            block();
            inBackgroundJob = false;
        });
    }
    void runMain(std::function<void()> b) override { TernThreadUtil().runMain(std::move(b)); }
    std::atomic<int> backgroundJobs{0};
};

// A module whose hook takes the tasks of one type and answers them at once.
struct Taker final : QueueRunnerHook, ModuleHookProvider, std::enable_shared_from_this<Taker> {
    Taker(std::string taken, Outcome outcome) : type(std::move(taken)), answer(outcome) {}
    bool runTask(const QueueTask& task, Completion onComplete) override {
        if (task.type == type) onComplete(answer);
        return task.type == type;
    }
    std::shared_ptr<ProfileIdentifyHook> profileIdentifyHook() override { return nullptr; }
    std::shared_ptr<QueueRunnerHook> queueRunnerHook() override { return shared_from_this(); }
    std::shared_ptr<ScreenTrackingHook> screenTrackingHook() override { return nullptr; }
    const std::string type;
    const Outcome answer;
};

template <typename T>
bool ready(const std::future<T>& future) {
    return future.wait_for(generousDeadline) == std::future_status::ready;
}

// A graph for siteId that sends to the server and keeps its log lines. Queue settings default
// to "never run by itself" so that a test decides when runs happen.
class QueueRunsTest : public ::testing::Test {
protected:
    DIGraph& graph(std::int64_t minNumberOfTasks = 1000, double secondsDelay = 600.0) {
        if (graph_) return *graph_;
        SdkConfig config;
        config.trackingApiUrl = server.origin();
        config.logLevel = TernLogLevel::debug;
        config.backgroundQueueMinNumberOfTasks = minNumberOfTasks;
        config.backgroundQueueSecondsDelay = secondsDelay;
        graph_ = std::make_unique<DIGraph>(siteId, "k", config);
        graph_->override<ThreadUtil>(threads);
        graph_->override<Logger>(logger);
        return *graph_;
    }
    QueueAddResult addDelivery(const std::string& deliveryId,
                               const std::optional<QueueTaskGroup>& groupStart = {},
                               const std::optional<std::vector<QueueTaskGroup>>& blocking = {}) {
        auto body = TrackDeliveryEventRequestBody::inApp(deliveryId, InAppMetric::opened, {1.0});
        return graph().queue()->addTask(TrackDeliveryEventRequestBody::queueTaskType,
                                        AnyEncodable(body), groupStart, blocking);
    }
    // Runs the queue and waits for its end; true when the run's callback came, which must be
    // on the run's background thread (not the HTTP session's, nor the main one).
    bool runQueue() {
        auto done = std::make_shared<std::promise<bool>>();
        graph().queue()->run([done] { done->set_value(inBackgroundJob); });
        auto answer = done->get_future();
        return ready(answer) && answer.get();
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
    std::int64_t totalRunsOf(const std::string& id) {
        return graph().queueStorage()->get(id).value_or(QueueTask{}).runResults.totalRuns;
    }

    vontu::testing::TestEnv testEnv;
    TrackingServer server;
    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<CountingThreadUtil> threads = std::make_shared<CountingThreadUtil>();

private:
    std::unique_ptr<DIGraph> graph_;
};

TEST_F(QueueRunsTest, BelowTheMinimumTheTimerIsScheduledOnceAndRunsTheQueue) {
    graph(/*minNumberOfTasks=*/3, /*secondsDelay=*/2.0);
    EXPECT_TRUE(addDelivery("one").success);
    EXPECT_TRUE(addDelivery("two").success);
    EXPECT_EQ(logged(Level::info, "queue timer: scheduled to run queue in "), 1);
    ASSERT_TRUE(logger->waitForMessage("queue timer: queue done running", generousDeadline));
    EXPECT_EQ(server.receivedDeliveryIds(), (Ids{"one", "two"}));
}

TEST_F(QueueRunsTest, ReachingTheMinimumCancelsTheTimerAndRunsAtOnce) {
    graph(/*minNumberOfTasks=*/2, /*secondsDelay=*/600.0);
    addDelivery("one");
    EXPECT_EQ(addDelivery("two").queueStatus, (QueueStatus{siteId, 2}));
    ASSERT_TRUE(logger->waitForMessage("queue completed all tasks", generousDeadline));
    EXPECT_EQ(server.receivedDeliveryIds(), (Ids{"one", "two"}));
    addDelivery("three");  // the cancelled schedule no longer blocks a new one
    EXPECT_EQ(logged(Level::info, "queue timer: scheduled to run queue in "), 2);
}

TEST_F(QueueRunsTest, DeliveryMetricIsStoredAndSentAsTheTrackingServiceExpects) {
    struct FixedClock final : DateUtil {
        vontu::platform::Date now() const override { return {1700000123.75}; }
    };
    graph().override<DateUtil>(std::make_shared<FixedClock>());
    ASSERT_TRUE(graph().queue()->addTrackInAppDeliveryTask("dlv-7", InAppMetric::clicked).success);
    ASSERT_TRUE(runQueue());
    EXPECT_EQ(server.received(), (Ids{"/api/v1/tern_deliveries/events "
                                      R"({"payload":{"delivery_id":"dlv-7","event":"clicked",)"
                                      R"("timestamp":1700000123},"type":"in_app"})"}));
}

TEST_F(QueueRunsTest, StartsDuringARunJoinItAndAreCalledInOrderWhenItEnds) {
    ASSERT_TRUE(runQueue());  // an empty queue: the run ends at once
    EXPECT_EQ(logged(Level::debug, "queue out of tasks to run."), 1);
    addDelivery("first");
    addDelivery("second");
    std::promise<void> arrived, release, last;
    server.respond([&arrived, held = release.get_future().share()](const std::string& id) {
        if (id == "first") arrived.set_value();
        held.wait();
        return 200;
    });
    std::vector<int> called;  // by the run's thread, one after the other
    graph().queue()->run([&] { called.push_back(1); });
    ASSERT_TRUE(ready(arrived.get_future()));
    graph().queueRunRequest()->start([&] { called.push_back(2); });
    graph().queueRunRequest()->start([&] {
        called.push_back(3);
        last.set_value();
    });
    release.set_value();
    ASSERT_TRUE(ready(last.get_future()));
    EXPECT_EQ(threads->backgroundJobs, 2);  // one for each run
    EXPECT_EQ(server.receivedDeliveryIds(), (Ids{"first", "second"}));
    EXPECT_EQ(called, (std::vector<int>{1, 2, 3}));
}

// Tasks run in inventory order. A failed task (404: not retried) is counted and the search goes
// on behind it, past the members of the group it opens; a rejected one (400) is deleted. No
// task is tried twice in one run, however many succeed behind it.
TEST_F(QueueRunsTest, FailedTasksAreCountedOnceAndMembersOfTheirGroupsWaitWhileOthersRun) {
    const auto group = QueueTaskGroup::identifiedProfile("ann");
    addDelivery("opener", group);
    addDelivery("member", {}, std::vector{group});
    addDelivery("rejected");
    addDelivery("loose");
    addDelivery("failing");
    addDelivery("other-member", {}, std::vector{QueueTaskGroup::identifiedProfile("bob")});
    addDelivery("last");
    const auto ids = inventoryIds();
    server.respond([](const std::string& id) {
        return id == "opener" ? 404 : id == "rejected" ? 400 : id == "failing" ? 429 : 200;
    });
    ASSERT_TRUE(runQueue());
    EXPECT_EQ(server.receivedDeliveryIds(),
              (Ids{"opener", "rejected", "loose", "failing", "other-member", "last"}));
    EXPECT_EQ(totalRunsOf(ids[0]), 1);
    EXPECT_EQ(totalRunsOf(ids[4]), 1);
    EXPECT_EQ(inventoryIds(), (Ids{ids[0], ids[1], ids[4]}));

    // A task file may hold any count: the largest stays as it is rather than wrapping round.
    constexpr auto largest = std::numeric_limits<std::int64_t>::max();
    ASSERT_TRUE(graph().queueStorage()->update(ids[0], QueueTaskRunResults{largest}));
    ASSERT_TRUE(runQueue());
    EXPECT_EQ(totalRunsOf(ids[0]), largest);
    // Log lines shorten ids by characters, never cutting one in two.
    EXPECT_EQ(TernQueueRunRequest::shortTaskId("\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9"),
              "\u00e9\u00e9\u00e9\u00e9\u00e9");
}

// Other tasks are offered to the modules in turn: the taker's outcome is the task's, and one
// that no module takes fails without a request. A pause ends the run, counting nothing.
TEST_F(QueueRunsTest, OtherTasksAreOfferedToTheModulesAndAPauseEndsTheRun) {
    const Outcome paused = std::unexpected(HttpRequestError::requestsPaused());
    auto hooks = graph().hooksManager();
    hooks->add(HookModule::tracking, std::make_shared<Taker>("identifyProfile", paused));
    hooks->add(HookModule::messagingPush, std::make_shared<Taker>("registerPushToken", Outcome{}));
    for (const char* type : {"registerPushToken", "syncInbox", "identifyProfile"}) {
        ASSERT_TRUE(graph().queue()->addTask(type, AnyEncodable(std::string())).success);
    }
    addDelivery("after-the-pause");
    const auto ids = inventoryIds();
    ASSERT_TRUE(runQueue());
    EXPECT_EQ(inventoryIds(), (Ids{ids[1], ids[2], ids[3]}));
    EXPECT_EQ(totalRunsOf(ids[1]), 1);
    EXPECT_EQ(totalRunsOf(ids[2]), 0);
    ASSERT_TRUE(runQueue());  // the manager is idle again: the next run starts anew
}

// The loop offers every task from its background thread, also when a module answers on the
// main thread (as a timer would), and the run goes on after each answer.
TEST_F(QueueRunsTest, OutcomesReportedOnTheMainThreadDoNotBringTheRunThere) {
    struct MainThreadAnswerer final : QueueRunnerHook, ModuleHookProvider,
                                      std::enable_shared_from_this<MainThreadAnswerer> {
        bool runTask(const QueueTask&, Completion onComplete) override {
            // Offers come one at a time, each after the answer to the one before.
            offeredOnMainThread.push_back(vontu::platform::Env::current().isMainThread());
            TernThreadUtil().runMain([onComplete] { onComplete(Outcome{}); });
            return true;
        }
        std::shared_ptr<ProfileIdentifyHook> profileIdentifyHook() override { return nullptr; }
        std::shared_ptr<QueueRunnerHook> queueRunnerHook() override { return shared_from_this(); }
        std::shared_ptr<ScreenTrackingHook> screenTrackingHook() override { return nullptr; }
        std::vector<bool> offeredOnMainThread;
    };
    auto answerer = std::make_shared<MainThreadAnswerer>();
    graph().hooksManager()->add(HookModule::tracking, answerer);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(graph().queue()->addTask("syncInbox", AnyEncodable(std::string())).success);
    }
    ASSERT_TRUE(runQueue());
    EXPECT_EQ(answerer->offeredOnMainThread, (std::vector<bool>{false, false, false}));
    EXPECT_TRUE(inventoryIds().empty());
}

// A listed task whose file is gone, is a directory or is not a task can never run: its entry
// is dropped and the run goes on to the others and ends as any run does.
TEST_F(QueueRunsTest, ListedTasksWhoseFilesCannotBeReadAreDroppedAndTheRunGoesOn) {
    for (const char* id : {"removed", "directory", "garbage", "sent"}) addDelivery(id);
    const auto ids = inventoryIds();
    const auto tasks =
        *testEnv.env().applicationSupportDirectory() / "dev.tern" / siteId / "queue" / "tasks";
    std::filesystem::remove(tasks / (ids[0] + ".json"));
    std::filesystem::remove(tasks / (ids[1] + ".json"));
    std::filesystem::create_directory(tasks / (ids[1] + ".json"));
    std::ofstream(tasks / (ids[2] + ".json")) << "not a task";
    ASSERT_TRUE(runQueue());
    EXPECT_EQ(server.receivedDeliveryIds(), (Ids{"sent"}));
    EXPECT_TRUE(inventoryIds().empty());
    EXPECT_TRUE(logger->waitForMessage("Tried to get queue task with storage id: " + ids[0] +
                                           ", but storage couldn't find it.",
                                       generousDeadline));
    addDelivery("next");
    ASSERT_TRUE(runQueue());  // the manager is idle again
    EXPECT_EQ(server.receivedDeliveryIds(), (Ids{"sent", "next"}));
}

// Found by fuzzing: an inventory that lists one failing task twice, whose file names another
// storage id, made the run look for its next task for good. Tasks are updated and deleted under
// the id they were listed and read under.
TEST_F(QueueRunsTest, AListThatNamesAFailingTaskTwiceEndsItsRun) {
    addDelivery("twice");
    const auto id = inventoryIds().at(0);
    const auto queue = *testEnv.env().applicationSupportDirectory() / "dev.tern" / siteId / "queue";
    auto inventory = nlohmann::json::parse(std::ifstream(queue / "inventory.json"));
    inventory.push_back(inventory[0]);
    std::ofstream(queue / "inventory.json") << inventory.dump();
    auto task = nlohmann::json::parse(std::ifstream(queue / "tasks" / (id + ".json")));
    task["storage_id"] = "another";
    std::ofstream(queue / "tasks" / (id + ".json")) << task.dump();
    server.respond([](const std::string&) { return 404; });
    ASSERT_TRUE(runQueue());
    EXPECT_EQ(server.receivedDeliveryIds(), (Ids{"twice"}));
    EXPECT_EQ(totalRunsOf(id), 1);
}

// One run at a time works through a queue, across processes: the lease is a lock file, and a
// second graph of the site stands for another process here. A run that finds the queue taken
// ends at once, calling its callbacks; the run under way sends what it added.
TEST_F(QueueRunsTest, ARunThatFindsTheQueueTakenEndsAtOnceAndTheOtherSendsItsTasks) {
    addDelivery("first");
    std::promise<void> arrived, release;
    server.respond([&arrived, held = release.get_future().share()](const std::string& id) {
        if (id == "first") {
            arrived.set_value();
            held.wait();
        }
        return 200;
    });
    auto firstRun = std::make_shared<std::promise<void>>();
    graph().queue()->run([firstRun] { firstRun->set_value(); });
    ASSERT_TRUE(ready(arrived.get_future()));

    SdkConfig config = graph().sdkConfig();
    DIGraph otherProcess(siteId, "k", config);
    otherProcess.override<Logger>(logger);
    auto body = TrackDeliveryEventRequestBody::inApp("second", InAppMetric::opened, {1.0});
    ASSERT_TRUE(otherProcess.queue()
                    ->addTask(TrackDeliveryEventRequestBody::queueTaskType, AnyEncodable(body))
                    .success);
    std::promise<void> otherRun;
    otherProcess.queue()->run([&otherRun] { otherRun.set_value(); });
    ASSERT_TRUE(ready(otherRun.get_future()));
    EXPECT_EQ(logged(Level::info, "queue is being run by another process, this run ends."), 1);

    release.set_value();
    ASSERT_TRUE(ready(firstRun->get_future()));
    EXPECT_EQ(server.receivedDeliveryIds(), (Ids{"first", "second"}));
    EXPECT_TRUE(inventoryIds().empty());
}

TEST_F(QueueRunsTest, TasksAddedFromSeveralThreadsDuringRunsAreEachSentOnce) {
    graph(/*minNumberOfTasks=*/1);
    std::vector<std::thread> adders;
    for (int t = 0; t < 100; t += 25) {
        adders.emplace_back([this, t] {
            for (int i = t; i < t + 25; ++i) EXPECT_TRUE(addDelivery(std::to_string(i)).success);
        });
    }
    for (auto& adder : adders) adder.join();
    ASSERT_TRUE(runQueue());  // joins the run under way, or starts one for what is left
    const auto sent = server.receivedDeliveryIds();
    EXPECT_EQ(sent.size(), 100u);
    EXPECT_EQ(std::set(sent.begin(), sent.end()).size(), 100u);  // each once
}

}  // namespace
}  // namespace tern::testing
