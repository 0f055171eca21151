// The queue facade: what adding a task stores and when it makes the queue run, and the
// delivery-metric request as the tracking service receives it.

#include <cmath>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Common/queue/TernQueueRunRequest.hpp"
#include "tests/common/queueruns/QueueRunsHarness.hpp"

namespace tern::testing {
namespace {

const std::string scheduledLine = "\u2139\uFE0F queue timer: scheduled to run queue in ";

using QueueFacadeTest = QueueRunsTest;

TEST_F(QueueFacadeTest, BelowTheMinimumTheTimerIsScheduledOnceAndRunsTheQueue) {
    makeGraph(/*minNumberOfTasks=*/3, /*secondsDelay=*/2.0);

    EXPECT_TRUE(addDelivery("one").success);
    EXPECT_TRUE(addDelivery("two").success);

    EXPECT_EQ(host.count(scheduledLine + "2.0 seconds"), 1u);
    EXPECT_EQ(host.countStartingWith(scheduledLine), 1u);
    EXPECT_TRUE(host.waitFor("\u2139\uFE0F queue timer: queue done running"));
    EXPECT_EQ(server.receivedDeliveryIds(), (std::vector<std::string>{"one", "two"}));
    auto lines = host.lines();
    EXPECT_TRUE(containsInOrder(
        lines, {"processing queue status QueueStatus(queueId: \"site1\", numTasksInQueue: 1).",
                scheduledLine + "2.0 seconds",
                "processing queue status QueueStatus(queueId: \"site1\", numTasksInQueue: 2).",
                "\u2139\uFE0F queue timer: now running queue",
                "\u2139\uFE0F queue run request sent", "queue out of tasks to run.",
                "\u2139\uFE0F queue timer: queue done running"}));
    // The second addition found the schedule pending; the timer said so itself.
    EXPECT_EQ(std::ranges::count_if(lines, [](const std::string& line) {
                  return line.starts_with("Timer (") &&
                         line.ends_with(") already scheduled to run. Skipping request.");
              }),
              1);
    EXPECT_EQ(host.count("\u2139\uFE0F queue timer: now running queue"), 1u);
}

TEST_F(QueueFacadeTest, ReachingTheMinimumCancelsTheTimerAndRunsAtOnce) {
    makeGraph(/*minNumberOfTasks=*/2, /*secondsDelay=*/600.0);

    addDelivery("one");
    auto second = addDelivery("two");

    EXPECT_TRUE(second.success);
    EXPECT_EQ(second.queueStatus, (QueueStatus{"site1", 2}));
    ASSERT_TRUE(host.waitFor("\u2139\uFE0F queue completed all tasks"));
    EXPECT_TRUE(containsInOrder(host.lines(),
                                {scheduledLine + "600.0 seconds",
                                 "\u2139\uFE0F queue met criteria to run automatically",
                                 "queue out of tasks to run."}));
    EXPECT_EQ(server.receivedDeliveryIds(), (std::vector<std::string>{"one", "two"}));
    EXPECT_TRUE(host.waitForLine("Timer (", ") timer is being cancelled"));

    // The cancelled schedule no longer blocks a new one.
    addDelivery("three");
    EXPECT_EQ(host.countStartingWith(scheduledLine), 2u);
    EXPECT_EQ(host.count("\u2139\uFE0F queue timer: now running queue"), 0u);
}

// A record that the JSON adapter refuses to write.
struct UnwritableRecord {
    void encode(JsonEncoder& encoder) const { encoder.encode("value", std::nan("")); }
};

TEST_F(QueueFacadeTest, DataThatCannotBeEncodedStoresNothingAndLeavesTheTimerAlone) {
    addDelivery("stored");
    // The timer logs on the main thread; wait for it so that later lines are this test's own.
    ASSERT_TRUE(host.waitForLine("Timer (", ") making a timer for 600.0 seconds."));
    const auto linesBefore = host.lines().size();

    auto result = graph().queue()->addTask("trackEvent", AnyEncodable(UnwritableRecord{}));

    EXPECT_EQ(result, (QueueAddResult{false, QueueStatus{"site1", 1}}));
    EXPECT_EQ(inventory().size(), 1u);
    auto lines = host.lines();
    std::vector<std::string> added(lines.begin() + static_cast<std::ptrdiff_t>(linesBefore),
                                   lines.end());
    EXPECT_TRUE(containsInOrder(added, {"\u2139\uFE0F adding queue task trackEvent",
                                        "\U0001F6D1 fail adding queue task, json encoding fail."}));
    EXPECT_EQ(std::ranges::count_if(added, [](const std::string& line) {
                  return line.starts_with("processing queue status") || line.starts_with("Timer (");
              }),
              0);
}

TEST_F(QueueFacadeTest, DeliveryMetricIsStoredAndSentAsTheTrackingServiceExpects) {
    graph().override<DateUtil>(std::make_shared<FixedClock>(1700000123.75));
    const std::string body =
        R"({"payload":{"delivery_id":"dlv-7","event":"clicked","timestamp":1700000123},)"
        R"("type":"in_app"})";

    auto added = graph().queue()->addTrackInAppDeliveryTask("dlv-7", InAppMetric::clicked);

    ASSERT_TRUE(added.success);
    auto entry = inventory().at(0);
    EXPECT_EQ(entry.taskType, "trackDeliveryMetric");
    EXPECT_EQ(entry.groupStart, std::nullopt);
    EXPECT_EQ(entry.groupMember, std::nullopt);
    auto task = graph().queueStorage()->get(entry.taskPersistedId);
    ASSERT_TRUE(task);
    EXPECT_EQ(vontu::platform::toString(task->data), body);
    EXPECT_TRUE(containsInOrder(host.lines(), {"\u2139\uFE0F adding queue task trackDeliveryMetric",
                                               "added queue task data " + body}));

    ASSERT_TRUE(runQueue());

    auto received = server.received();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].method, "POST");
    EXPECT_EQ(received[0].path, "/api/v1/tern_deliveries/events");
    EXPECT_EQ(received[0].header("Content-Type"), "application/json; charset=utf-8");
    EXPECT_EQ(received[0].header("Authorization"), "Basic c2l0ZTE6a2V5MQ==");  // site1:key1
    EXPECT_FALSE(received[0].header("User-Agent").empty());
    EXPECT_EQ(received[0].body, body);
    EXPECT_TRUE(inventory().empty());

    const auto id = TernQueueRunRequest::shortTaskId(entry.taskPersistedId);
    EXPECT_TRUE(containsInOrder(
        host.lines(),
        {"queue querying next task. criteria: QueueQueryCriteria(excludeGroups: Set([]))",
         "queue tasks left to run: 1",
         "queue next task to run: " + id + ",\ntrackDeliveryMetric, " + body +
             ", QueueTaskRunResults(totalRuns: 0)",
         "queue task " + id + " ran successfully", "queue deleting task " + id,
         "queue out of tasks to run."}));
}

TEST_F(QueueFacadeTest, GraphSharesOneRequestManagerAndBuildsTheRestAnew) {
    EXPECT_EQ(graph().queueRequestManager(), graph().queueRequestManager());
    EXPECT_NE(graph().queue(), graph().queue());
    EXPECT_NE(graph().queueRunRequest(), graph().queueRunRequest());
    EXPECT_NE(graph().queueRunner(), graph().queueRunner());
    EXPECT_NE(graph().queueStorage(), graph().queueStorage());
}

}  // namespace
}  // namespace tern::testing
