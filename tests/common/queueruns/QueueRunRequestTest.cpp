// Runs of the queue against a local tracking service: which tasks go out, in what order, what
// becomes of each, and who is told when a run ends.

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/hooks/HookModule.hpp"
#include "Common/queue/TernQueueRequestManager.hpp"
#include "Common/queue/TernQueueRunRequest.hpp"
#include "tests/common/queueruns/QueueRunsHarness.hpp"

namespace tern::testing {
namespace {

using Answer = TrackingServer::Answer;

class QueueRunRequestTest : public QueueRunsTest {
protected:
    std::string storageIdOf(const std::string& deliveryId) {
        for (const auto& entry : inventory()) {
            auto task = graph().queueStorage()->get(entry.taskPersistedId);
            if (task && vontu::platform::toString(task->data).find("\"" + deliveryId + "\"") !=
                            std::string::npos) {
                return entry.taskPersistedId;
            }
        }
        return {};
    }
    std::int64_t totalRunsOf(const std::string& storageId) {
        auto task = graph().queueStorage()->get(storageId);
        return task ? task->runResults.totalRuns : -1;
    }
};

TEST_F(QueueRunRequestTest, EmptyQueueEndsTheRunAtOnce) {
    ASSERT_TRUE(runQueue());

    EXPECT_TRUE(containsInOrder(host.lines(), {"\u2139\uFE0F queue run request sent",
                                               "queue out of tasks to run.",
                                               "resetting queue tasks query criteria"}));
    EXPECT_TRUE(server.received().empty());
    EXPECT_EQ(threads->backgroundJobs, 1);
}

TEST_F(QueueRunRequestTest, StartsDuringARunJoinItAndAreCalledInOrderWhenItEnds) {
    addDelivery("first");
    addDelivery("second");
    server.closeGate();

    std::mutex mutex;
    std::vector<int> called;
    auto record = [&](int caller) {
        std::lock_guard guard(mutex);
        called.push_back(caller);
    };
    Signal last;
    graph().queue()->run([&] { record(1); });
    ASSERT_TRUE(server.waitForRequests(1));  // the run is under way, held at the server
    graph().queue()->run([&] { record(2); });
    graph().queueRunRequest()->start([&] {
        record(3);
        last.callback()();
    });
    server.openGate();

    ASSERT_TRUE(last.wait());
    EXPECT_EQ(threads->backgroundJobs, 1);
    EXPECT_EQ(server.receivedDeliveryIds(), (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(host.count("queue out of tasks to run."), 1u);
    std::lock_guard guard(mutex);
    EXPECT_EQ(called, (std::vector<int>{1, 2, 3}));
}

// Tasks run in inventory order. A failed task (404: neither retried nor deleted) is counted
// and the search goes on behind it; after a success it starts again at the front.
struct GroupCase {
    const char* name;
    bool failingTaskOpensGroup;
    std::vector<std::string> expectedRequests;
    std::int64_t expectedRunsOfFailingTask;
    std::vector<std::string> expectedLeft;
};

class GroupExclusionTest : public QueueRunRequestTest,
                           public ::testing::WithParamInterface<GroupCase> {};

TEST_P(GroupExclusionTest, MembersOfAFailedOpenerWaitWhileOthersRun) {
    const auto& param = GetParam();
    const auto group = QueueTaskGroup::identifiedProfile("ann");
    const auto otherGroup = QueueTaskGroup::identifiedProfile("bob");
    addDelivery("opener", param.failingTaskOpensGroup ? std::optional(group) : std::nullopt);
    addDelivery("member", std::nullopt, std::vector{group});
    addDelivery("loose");
    addDelivery("other-member", std::nullopt, std::vector{otherGroup});
    const auto openerId = storageIdOf("opener");
    server.respond([](const ReceivedRequest& request) {
        return request.deliveryId() == "opener" ? Answer{404, ""} : Answer{};
    });

    ASSERT_TRUE(runQueue());

    EXPECT_EQ(server.receivedDeliveryIds(), param.expectedRequests);
    EXPECT_EQ(totalRunsOf(openerId), param.expectedRunsOfFailingTask);
    std::vector<std::string> left;
    for (const auto& entry : inventory()) left.push_back(entry.taskPersistedId);
    std::vector<std::string> expectedLeft;
    for (const auto& deliveryId : param.expectedLeft) {
        expectedLeft.push_back(storageIdOf(deliveryId));
    }
    EXPECT_EQ(left, expectedLeft);

    const auto id = TernQueueRunRequest::shortTaskId(openerId);
    EXPECT_EQ(host.count("queue task " + id +
                         " updating run history\nfrom: QueueTaskRunResults(totalRuns: 0) to: "
                         "QueueTaskRunResults(totalRuns: 1)"),
              1u);
    EXPECT_EQ(host.count("queue task " + id +
                         " run failed Response received, but status code = 404. "
                         "(server did not give a response)"),
              static_cast<std::size_t>(param.expectedRunsOfFailingTask));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, GroupExclusionTest,
    ::testing::Values(
        // opener fails; loose succeeds, so the search restarts and tries opener again; then
        // other-member; then opener a third time, and nothing but its excluded member is left.
        GroupCase{"OpenerFails", true,
                  {"opener", "loose", "opener", "other-member", "opener"}, 3,
                  {"opener", "member"}},
        // A failed task that opens no group excludes nothing.
        GroupCase{"PlainTaskFails", false,
                  {"opener", "member", "opener", "loose", "opener", "other-member", "opener"}, 4,
                  {"opener"}}),
    [](const auto& testInfo) { return std::string(testInfo.param.name); });

TEST_F(QueueRunRequestTest, BadRequestDeletesTheTaskWithoutCountingIt) {
    addDelivery("rejected");
    addDelivery("accepted");
    const auto rejectedId = storageIdOf("rejected");
    const auto dataSize = graph().queueStorage()->get(rejectedId)->data.size();
    server.respond([](const ReceivedRequest& request) {
        return request.deliveryId() == "rejected"
                   ? Answer{400, R"({"meta":{"error":"unknown delivery"}})"}
                   : Answer{};
    });

    ASSERT_TRUE(runQueue());

    EXPECT_EQ(server.receivedDeliveryIds(), (std::vector<std::string>{"rejected", "accepted"}));
    EXPECT_TRUE(inventory().empty());
    EXPECT_FALSE(std::filesystem::exists(taskFile(rejectedId)));
    const auto id = TernQueueRunRequest::shortTaskId(rejectedId);
    EXPECT_TRUE(containsInOrder(
        host.lines(),
        {"queue task " + id + " run failed HTTP request responded with 400 - unknown delivery",
         "\U0001F6D1 Received HTTP 400 response while trying to trackDeliveryMetric. 400 "
         "responses never succeed and therefore, the SDK is deleting this SDK request and not "
         "retry. Error message from API: unknown delivery, request data sent: " +
             std::to_string(dataSize) + " bytes"}));
    EXPECT_EQ(host.countStartingWith("queue task " + id + " updating run history"), 0u);
}

TEST_F(QueueRunRequestTest, PausedRequestsEndTheRunWithNothingDeletedOrCounted) {
    auto pausedHook = std::make_shared<FixedOutcomeHook>(
        "identifyProfile", std::unexpected(HttpRequestError::requestsPaused()));
    graph().hooksManager()->add(HookModule::tracking, std::make_shared<HookProvider>(pausedHook));
    auto identify = graph().queue()->addTask("identifyProfile", AnyEncodable(std::string("x")));
    addDelivery("after-the-pause");
    const auto pausedId = inventory().front().taskPersistedId;

    ASSERT_TRUE(runQueue());

    EXPECT_TRUE(identify.success);
    EXPECT_TRUE(server.received().empty());
    EXPECT_EQ(inventory().size(), 2u);
    EXPECT_EQ(totalRunsOf(pausedId), 0);
    EXPECT_EQ(pausedHook->offers, 1);
    const auto id = TernQueueRunRequest::shortTaskId(pausedId);
    EXPECT_TRUE(containsInOrder(
        host.lines(),
        {"queue task " + id +
             " run failed HTTP request skipped. All HTTP requests are paused for the time being.",
         "queue task " + id + " didn't run because all HTTP requests paused.",
         "\u2139\uFE0F queue is quitting early because all HTTP requests are paused.",
         "queue out of tasks to run.", "resetting queue tasks query criteria"}));
    EXPECT_EQ(host.countStartingWith("queue task " + id + " updating run history"), 0u);
    // The manager is idle again: the next run starts anew.
    ASSERT_TRUE(runQueue());
    EXPECT_EQ(threads->backgroundJobs, 2);
}

TEST_F(QueueRunRequestTest, MissingTaskFileEndsTheRunAndLeavesTheManagerRunning) {
    addDelivery("lost");
    addDelivery("never-sent");
    const auto lostId = storageIdOf("lost");
    std::filesystem::remove(taskFile(lostId));

    Signal first;
    graph().queue()->run(first.callback());
    ASSERT_TRUE(host.waitFor("\U0001F6D1 Tried to get queue task with storage id: " + lostId +
                             ", but storage couldn't find it."));
    Signal second;
    graph().queue()->run(second.callback());

    auto manager =
        std::dynamic_pointer_cast<TernQueueRequestManager>(graph().queueRequestManager());
    ASSERT_NE(manager, nullptr);
    EXPECT_TRUE(manager->isRunningRequest());
    EXPECT_EQ(threads->backgroundJobs, 1);  // the second run() started nothing
    EXPECT_FALSE(first.fired());
    EXPECT_FALSE(second.fired());
    EXPECT_EQ(host.count("queue out of tasks to run."), 0u);
    EXPECT_EQ(host.count("resetting queue tasks query criteria"), 0u);
    EXPECT_TRUE(server.received().empty());
    EXPECT_EQ(inventory().size(), 2u);
}

TEST_F(QueueRunRequestTest, TasksAddedFromSeveralThreadsDuringRunsAreEachSentOnce) {
    makeGraph(/*minNumberOfTasks=*/1);
    constexpr int threadCount = 4;
    constexpr int tasksPerThread = 25;
    std::vector<std::thread> adders;
    std::set<std::string> expected;
    for (int t = 0; t < threadCount; ++t) {
        for (int i = 0; i < tasksPerThread; ++i) {
            expected.insert("t" + std::to_string(t) + "-" + std::to_string(i));
        }
        adders.emplace_back([this, t] {
            for (int i = 0; i < tasksPerThread; ++i) {
                EXPECT_TRUE(addDelivery("t" + std::to_string(t) + "-" + std::to_string(i)).success);
            }
        });
    }
    for (auto& adder : adders) adder.join();
    // Joins the run under way, or starts one for what is left.
    ASSERT_TRUE(runQueue());

    auto sent = server.receivedDeliveryIds();
    EXPECT_EQ(sent.size(), expected.size());
    EXPECT_EQ(std::set<std::string>(sent.begin(), sent.end()), expected);
    EXPECT_TRUE(inventory().empty());
    EXPECT_EQ(host.count("\u2139\uFE0F queue completed all tasks"),
              static_cast<std::size_t>(threadCount * tasksPerThread));
}

}  // namespace
}  // namespace tern::testing
