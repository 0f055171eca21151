// Runs of the background queue on the real platform against a tracking service on 127.0.0.1:
// when adding a task makes the queue run, which tasks a run sends and in what order, what
// becomes of each, who is told when a run ends, and the runner's offer of tasks to the modules.

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
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
#include "tests/support/LoopbackServer.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern::testing {
namespace {

using namespace std::chrono_literals;
using Outcome = std::expected<void, HttpRequestError>;

constexpr auto generousDeadline = 30s;
constexpr const char* siteId = "site1";
const std::string runEnded = "queue out of tasks to run.";
const std::string scheduledLine = "\u2139\uFE0F queue timer: scheduled to run queue in ";

// A clock that stands still.
class FixedClock final : public DateUtil {
public:
    explicit FixedClock(double seconds) : seconds_(seconds) {}
    vontu::platform::Date now() const override { return {seconds_}; }

private:
    double seconds_;
};

// Holds the real platform; a base class so that it exists before the wrapper refers to it.
struct RealHost {
    std::unique_ptr<vontu::testing::TestEnv> host = std::make_unique<vontu::testing::TestEnv>();
};

// A real LinuxEnv over a fresh state root with its main loop running, installed as the Env,
// that keeps every log line of the library (without the site prefix) for the test.
class LogCapturingEnv : private RealHost, public vontu::platform::EnvWrapper {
public:
    LogCapturingEnv() : EnvWrapper(host->env()) { vontu::platform::Env::setCurrent(this); }
    ~LogCapturingEnv() override {
        vontu::platform::Env::setCurrent(&host->env());
        host.reset();  // the main loop and background threads stop while the lines are here
    }

    void writeLog(const std::string&, const std::string&, vontu::platform::LogType,
                  const std::string& message) override {
        const std::string prefix = std::string("(siteid:") + siteId + ") ";
        std::lock_guard guard(mutex_);
        lines_.push_back(message.starts_with(prefix) ? message.substr(prefix.size()) : message);
        changed_.notify_all();
    }
    std::size_t countStartingWith(const std::string& start) const {
        std::lock_guard guard(mutex_);
        return static_cast<std::size_t>(std::ranges::count_if(
            lines_, [&](const std::string& line) { return line.starts_with(start); }));
    }
    // True once a line that starts and ends so has been logged; false after the deadline.
    bool waitFor(const std::string& start, const std::string& end = {}) const {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, generousDeadline, [&] {
            return std::ranges::any_of(lines_, [&](const std::string& line) {
                return line.starts_with(start) && line.ends_with(end);
            });
        });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> lines_;
};

// A tracking API on 127.0.0.1 that records every request and answers with the status the
// test's responder gives for the delivery id (200 by default). A responder may block to hold a
// run in flight.
class TrackingServer {
public:
    struct Received {
        std::string path;
        std::string body;
    };

    TrackingServer()
        : server_([this](httplib::Server& server) {
              server.Post(".*", [this](const httplib::Request& request, httplib::Response& out) {
                  std::function<int(const std::string&)> responder;
                  {
                      std::lock_guard guard(mutex_);
                      received_.push_back({request.path, request.body});
                      responder = responder_;
                  }
                  out.status = responder ? responder(deliveryId(request.body)) : 200;
                  out.set_content(out.status == 200 ? "{}" : R"({"meta":{"error":"refused"}})",
                                  "application/json");
              });
          }) {}

    std::string origin() const { return "http://127.0.0.1:" + std::to_string(server_.port()); }
    void respond(std::function<int(const std::string& deliveryId)> responder) {
        std::lock_guard guard(mutex_);
        responder_ = std::move(responder);
    }
    std::vector<Received> received() const {
        std::lock_guard guard(mutex_);
        return received_;
    }
    std::vector<std::string> receivedDeliveryIds() const {
        std::vector<std::string> ids;
        for (const auto& request : received()) ids.push_back(deliveryId(request.body));
        return ids;
    }
    static std::string deliveryId(const std::string& body) {
        auto json = nlohmann::json::parse(body, nullptr, false);
        return json.is_object() && json["payload"].is_object()
                   ? json["payload"].value("delivery_id", std::string())
                   : std::string();
    }

private:
    mutable std::mutex mutex_;
    std::function<int(const std::string&)> responder_;
    std::vector<Received> received_;
    vontu::testing::LoopbackServer server_;  // last: it stops before the state above goes
};

// The platform's threads, counting the runs sent to the background.
class CountingThreadUtil final : public ThreadUtil {
public:
    void runBackground(std::function<void()> block) override {
        ++backgroundJobs;
        threads_.runBackground(std::move(block));
    }
    void runMain(std::function<void()> block) override { threads_.runMain(std::move(block)); }
    std::atomic<int> backgroundJobs{0};

private:
    TernThreadUtil threads_;
};

// A module's hook that takes the tasks of one type and answers them at once. Every offer is
// noted in `offers`, by the hook's name.
class TypeHook final : public QueueRunnerHook,
                       public ModuleHookProvider,
                       public std::enable_shared_from_this<TypeHook> {
public:
    TypeHook(std::string type, std::string name, std::vector<std::string>& offers, Outcome answer)
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
    const std::string type_;
    const std::string name_;
    std::vector<std::string>& offers_;
    const Outcome answer_;
};

// Waits for a callback.
class Signal {
public:
    std::function<void()> callback() {
        return [this] { promise_.set_value(); };
    }
    bool wait() { return future_.wait_for(generousDeadline) == std::future_status::ready; }
    bool fired() { return future_.wait_for(0s) == std::future_status::ready; }

private:
    std::promise<void> promise_;
    std::future<void> future_ = promise_.get_future();
};

// A dependency graph for siteId whose configuration points at the server and logs everything.
// Queue settings default to "never run by itself" so that a test decides when runs happen.
class QueueRunsTest : public ::testing::Test {
protected:
    SdkConfig configFor(const std::string& trackingApiUrl, std::int64_t minNumberOfTasks = 1000,
                        double secondsDelay = 600.0) {
        SdkConfig config;
        config.trackingApiUrl = trackingApiUrl;
        config.logLevel = TernLogLevel::debug;
        config.backgroundQueueMinNumberOfTasks = minNumberOfTasks;
        config.backgroundQueueSecondsDelay = secondsDelay;
        return config;
    }
    void makeGraph(std::int64_t minNumberOfTasks = 1000, double secondsDelay = 600.0) {
        graph_ = std::make_unique<DIGraph>(
            siteId, "key1", configFor(server.origin(), minNumberOfTasks, secondsDelay));
        graph_->override<ThreadUtil>(threads);
    }
    DIGraph& graph() {
        if (!graph_) makeGraph();
        return *graph_;
    }

    QueueAddResult addDelivery(const std::string& deliveryId,
                               const std::optional<QueueTaskGroup>& groupStart = std::nullopt,
                               const std::optional<std::vector<QueueTaskGroup>>& blockingGroups =
                                   std::nullopt) {
        auto body = TrackDeliveryEventRequestBody::inApp(deliveryId, InAppMetric::opened,
                                                         {1700000000.0});
        return graph().queue()->addTask(TrackDeliveryEventRequestBody::queueTaskType,
                                        AnyEncodable(body), groupStart, blockingGroups);
    }
    // Runs the queue and waits until the run has ended.
    bool runQueue() {
        Signal done;
        graph().queue()->run(done.callback());
        return done.wait();
    }

    std::vector<QueueTaskMetadata> inventory() { return graph().queueStorage()->getInventory(); }
    std::string idAt(std::size_t index) { return inventory().at(index).taskPersistedId; }
    std::int64_t totalRunsOf(const std::string& storageId) {
        auto task = graph().queueStorage()->get(storageId);
        return task ? task->runResults.totalRuns : -1;
    }

    LogCapturingEnv host;
    TrackingServer server;
    std::shared_ptr<CountingThreadUtil> threads = std::make_shared<CountingThreadUtil>();

private:
    std::unique_ptr<DIGraph> graph_;
};

// --- Adding tasks: the facade and its timer

TEST_F(QueueRunsTest, BelowTheMinimumTheTimerIsScheduledOnceAndRunsTheQueue) {
    makeGraph(/*minNumberOfTasks=*/3, /*secondsDelay=*/2.0);
    EXPECT_TRUE(addDelivery("one").success);
    EXPECT_TRUE(addDelivery("two").success);

    EXPECT_EQ(host.countStartingWith(scheduledLine), 1u);
    EXPECT_EQ(host.countStartingWith(scheduledLine + "2.0 seconds"), 1u);
    ASSERT_TRUE(host.waitFor("\u2139\uFE0F queue timer: queue done running"));
    EXPECT_EQ(server.receivedDeliveryIds(), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(host.countStartingWith("\u2139\uFE0F queue timer: now running queue"), 1u);
    EXPECT_TRUE(inventory().empty());
}

TEST_F(QueueRunsTest, ReachingTheMinimumCancelsTheTimerAndRunsAtOnce) {
    makeGraph(/*minNumberOfTasks=*/2, /*secondsDelay=*/600.0);
    addDelivery("one");
    auto second = addDelivery("two");

    EXPECT_EQ(second.queueStatus, (QueueStatus{siteId, 2}));
    ASSERT_TRUE(host.waitFor("\u2139\uFE0F queue completed all tasks"));
    EXPECT_EQ(server.receivedDeliveryIds(), (std::vector<std::string>{"one", "two"}));
    ASSERT_TRUE(host.waitFor("Timer (", ") timer is being cancelled"));
    addDelivery("three");  // the cancelled schedule no longer blocks a new one
    EXPECT_EQ(host.countStartingWith(scheduledLine), 2u);
    EXPECT_EQ(host.countStartingWith("\u2139\uFE0F queue timer: now running queue"), 0u);
}

// A record that the JSON adapter refuses to write.
struct UnwritableRecord {
    void encode(JsonEncoder& encoder) const { encoder.encode("value", std::nan("")); }
};

TEST_F(QueueRunsTest, DataThatCannotBeEncodedStoresNothingAndLeavesTheTimerAlone) {
    addDelivery("stored");
    auto result = graph().queue()->addTask("trackEvent", AnyEncodable(UnwritableRecord{}));

    EXPECT_EQ(result, (QueueAddResult{false, QueueStatus{siteId, 1}}));
    EXPECT_EQ(inventory().size(), 1u);
    EXPECT_EQ(host.countStartingWith("\U0001F6D1 fail adding queue task, json encoding fail."), 1u);
    EXPECT_EQ(host.countStartingWith("processing queue status "), 1u);  // only the first add's
}

TEST_F(QueueRunsTest, DeliveryMetricIsStoredAndSentAsTheTrackingServiceExpects) {
    graph().override<DateUtil>(std::make_shared<FixedClock>(1700000123.75));
    const std::string body =
        R"({"payload":{"delivery_id":"dlv-7","event":"clicked","timestamp":1700000123},)"
        R"("type":"in_app"})";

    ASSERT_TRUE(graph().queue()->addTrackInAppDeliveryTask("dlv-7", InAppMetric::clicked).success);
    auto entry = inventory().at(0);
    EXPECT_EQ(entry, (QueueTaskMetadata{entry.taskPersistedId, "trackDeliveryMetric",
                                        std::nullopt, std::nullopt, entry.createdAt}));
    EXPECT_EQ(vontu::platform::toString(graph().queueStorage()->get(entry.taskPersistedId)->data),
              body);
    ASSERT_TRUE(runQueue());

    auto received = server.received();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].path, "/api/v1/tern_deliveries/events");
    EXPECT_EQ(received[0].body, body);
    EXPECT_TRUE(inventory().empty());
}

// --- Runs

TEST_F(QueueRunsTest, EmptyQueueEndsTheRunAtOnce) {
    ASSERT_TRUE(runQueue());
    EXPECT_EQ(host.countStartingWith(runEnded), 1u);
    EXPECT_TRUE(server.received().empty());
    EXPECT_EQ(threads->backgroundJobs, 1);
}

TEST_F(QueueRunsTest, StartsDuringARunJoinItAndAreCalledInOrderWhenItEnds) {
    addDelivery("first");
    addDelivery("second");
    auto arrived = std::make_shared<std::promise<void>>();
    std::promise<void> release;
    server.respond([arrived, held = release.get_future().share()](const std::string& id) {
        if (id == "first") arrived->set_value();
        held.wait();
        return 200;
    });
    std::mutex mutex;
    std::vector<int> called;
    auto record = [&](int caller) {
        std::lock_guard guard(mutex);
        called.push_back(caller);
    };
    Signal last;

    graph().queue()->run([&] { record(1); });
    // The run is under way, held at the server.
    ASSERT_EQ(arrived->get_future().wait_for(generousDeadline), std::future_status::ready);
    graph().queue()->run([&] { record(2); });
    graph().queueRunRequest()->start([&] {
        record(3);
        last.callback()();
    });
    release.set_value();

    ASSERT_TRUE(last.wait());
    EXPECT_EQ(threads->backgroundJobs, 1);
    EXPECT_EQ(server.receivedDeliveryIds(), (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(host.countStartingWith(runEnded), 1u);
    std::lock_guard guard(mutex);
    EXPECT_EQ(called, (std::vector<int>{1, 2, 3}));
}

// Tasks run in inventory order. A failed task (404: neither retried nor deleted) is counted
// and the search goes on behind it, past the members of the group it opens; after a success it
// starts again at the front.
TEST_F(QueueRunsTest, MembersOfAFailedGroupOpenerWaitWhileOthersRun) {
    const auto group = QueueTaskGroup::identifiedProfile("ann");
    addDelivery("opener", group);
    addDelivery("member", std::nullopt, std::vector{group});
    addDelivery("loose");
    addDelivery("other-member", std::nullopt,
                std::vector{QueueTaskGroup::identifiedProfile("bob")});
    const auto openerId = idAt(0);
    const auto memberId = idAt(1);
    server.respond([](const std::string& id) { return id == "opener" ? 404 : 200; });

    ASSERT_TRUE(runQueue());

    EXPECT_EQ(server.receivedDeliveryIds(),
              (std::vector<std::string>{"opener", "loose", "opener", "other-member", "opener"}));
    EXPECT_EQ(totalRunsOf(openerId), 3);
    std::vector<std::string> left;
    for (const auto& entry : inventory()) left.push_back(entry.taskPersistedId);
    EXPECT_EQ(left, (std::vector{openerId, memberId}));
}

TEST_F(QueueRunsTest, BadRequestDeletesTheTaskWithoutCountingIt) {
    addDelivery("rejected");
    addDelivery("accepted");
    const auto rejectedId = idAt(0);
    server.respond([](const std::string& id) { return id == "rejected" ? 400 : 200; });

    ASSERT_TRUE(runQueue());

    EXPECT_EQ(server.receivedDeliveryIds(), (std::vector<std::string>{"rejected", "accepted"}));
    EXPECT_TRUE(inventory().empty());
    EXPECT_EQ(graph().queueStorage()->get(rejectedId), std::nullopt);
    EXPECT_EQ(host.countStartingWith("\U0001F6D1 Received HTTP 400 response while trying to "
                                     "trackDeliveryMetric. 400 responses never succeed and "
                                     "therefore, the SDK is deleting this SDK request and not "
                                     "retry. Error message from API: refused"),
              1u);
    const auto shortId = TernQueueRunRequest::shortTaskId(rejectedId);
    EXPECT_EQ(host.countStartingWith("queue task " + shortId + " updating run history"), 0u);
}

TEST_F(QueueRunsTest, PausedRequestsEndTheRunWithNothingDeletedOrCounted) {
    std::vector<std::string> offers;
    auto paused = std::make_shared<TypeHook>("identifyProfile", "tracking", offers,
                                             std::unexpected(HttpRequestError::requestsPaused()));
    graph().hooksManager()->add(HookModule::tracking, paused);
    auto identify = graph().queue()->addTask("identifyProfile", AnyEncodable(std::string("x")));
    ASSERT_TRUE(identify.success);
    addDelivery("after-the-pause");
    const auto pausedId = idAt(0);

    ASSERT_TRUE(runQueue());

    EXPECT_TRUE(server.received().empty());
    EXPECT_EQ(inventory().size(), 2u);
    EXPECT_EQ(totalRunsOf(pausedId), 0);
    EXPECT_EQ(offers.size(), 1u);
    EXPECT_EQ(host.countStartingWith("\u2139\uFE0F queue is quitting early because all HTTP "
                                     "requests are paused."),
              1u);
    ASSERT_TRUE(runQueue());  // the manager is idle again: the next run starts anew
    EXPECT_EQ(offers.size(), 2u);
}

TEST_F(QueueRunsTest, MissingTaskFileEndsTheRunAndLeavesTheManagerRunning) {
    addDelivery("lost");
    addDelivery("never-sent");
    const auto lostId = idAt(0);
    std::filesystem::remove(*host.applicationSupportDirectory() / "dev.tern" / siteId / "queue" /
                            "tasks" / (lostId + ".json"));

    Signal first;
    graph().queue()->run(first.callback());
    ASSERT_TRUE(host.waitFor("\U0001F6D1 Tried to get queue task with storage id: " + lostId));
    Signal second;
    graph().queue()->run(second.callback());

    EXPECT_EQ(threads->backgroundJobs, 1);  // the second run() started nothing
    EXPECT_FALSE(first.fired());
    EXPECT_FALSE(second.fired());
    EXPECT_EQ(host.countStartingWith(runEnded), 0u);
    EXPECT_TRUE(server.received().empty());
    EXPECT_EQ(inventory().size(), 2u);
}

TEST_F(QueueRunsTest, TasksAddedFromSeveralThreadsDuringRunsAreEachSentOnce) {
    makeGraph(/*minNumberOfTasks=*/1);
    std::vector<std::thread> adders;
    std::set<std::string> expected;
    for (int t = 0; t < 4; ++t) {
        for (int i = 0; i < 25; ++i) expected.insert(std::to_string(t) + "-" + std::to_string(i));
        adders.emplace_back([this, t] {
            for (int i = 0; i < 25; ++i) {
                EXPECT_TRUE(addDelivery(std::to_string(t) + "-" + std::to_string(i)).success);
            }
        });
    }
    for (auto& adder : adders) adder.join();
    ASSERT_TRUE(runQueue());  // joins the run under way, or starts one for what is left

    auto sent = server.receivedDeliveryIds();
    EXPECT_EQ(sent.size(), expected.size());
    EXPECT_EQ(std::set<std::string>(sent.begin(), sent.end()), expected);
    EXPECT_TRUE(inventory().empty());
    EXPECT_EQ(host.countStartingWith("\u2139\uFE0F queue completed all tasks"), 100u);
}

// --- The runner

TEST_F(QueueRunsTest, RunnerOffersOtherTasksToTheModulesInOrderUntilOneTakesThem) {
    std::vector<std::string> offers;
    const Outcome unauthorized = std::unexpected(HttpRequestError::unauthorized());
    auto hooks = std::make_shared<TernHooksManager>();
    hooks->add(HookModule::tracking,
               std::make_shared<TypeHook>("identifyProfile", "tracking", offers, Outcome{}));
    hooks->add(HookModule::messagingPush,
               std::make_shared<TypeHook>("registerPushToken", "push", offers, unauthorized));
    TernQueueRunner runner(siteId, graph().jsonAdapter(), graph().logger(), graph().httpClient(),
                           configFor(server.origin()), hooks);
    std::vector<Outcome> outcomes;
    for (const char* type : {"registerPushToken", "syncInbox"}) {
        runner.runTask(QueueTask{"A", type, {}, {}}, [&](Outcome out) { outcomes.push_back(out); });
    }
    EXPECT_EQ(offers, (std::vector<std::string>{"tracking", "push", "tracking", "push"}));
    // The taker's outcome is the task's; a task that no module takes fails without a request.
    EXPECT_EQ(outcomes, (std::vector<Outcome>{
                            unauthorized, std::unexpected(HttpRequestError::noRequestMade({}))}));
    EXPECT_EQ(host.countStartingWith("\U0001F6D1 task syncInbox not handled by any module"), 1u);
}

}  // namespace
}  // namespace tern::testing
