// The queue's task runner: its own delivery-metric tasks, the offer of every other task to the
// modules' hooks, and the outcomes of tasks that cannot be sent. Also the metric enumerations.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/hooks/HookModule.hpp"
#include "Common/hooks/TernHooksManager.hpp"
#include "Common/queue/Metric.hpp"
#include "Common/queue/TernQueueRunner.hpp"
#include "tests/common/queueruns/QueueRunsHarness.hpp"

namespace tern::testing {
namespace {

using vontu::platform::Bytes;
using vontu::platform::toBytes;
using Outcome = std::expected<void, HttpRequestError>;

// A hook that takes one task type and hands its completion to the test.
class HeldHook final : public QueueRunnerHook {
public:
    HeldHook(std::string type, std::vector<std::string>& offers, std::string name)
        : type_(std::move(type)), offers_(offers), name_(std::move(name)) {}

    bool runTask(const QueueTask& task, Completion onComplete) override {
        offers_.push_back(name_);
        if (task.type != type_) return false;
        held = std::move(onComplete);
        return true;
    }

    Completion held;

private:
    const std::string type_;
    std::vector<std::string>& offers_;
    const std::string name_;
};

// Collects a runner's outcomes.
struct Outcomes {
    std::vector<Outcome> received;
    QueueRunner::Completion completion() {
        return [this](Outcome outcome) { received.push_back(std::move(outcome)); };
    }
};

class QueueRunnerTest : public QueueRunsTest {
protected:
    std::shared_ptr<TernQueueRunner> makeRunner(const std::string& trackingApiUrl) {
        return std::make_shared<TernQueueRunner>(siteId, graph().jsonAdapter(), graph().logger(),
                                                 graph().httpClient(), configFor(trackingApiUrl),
                                                 hooks);
    }
    static QueueTask task(std::string type, Bytes data = toBytes("{}")) {
        return QueueTask{"0A1B2C3D-0000-4000-8000-000000000000", std::move(type), std::move(data),
                         {}};
    }
    static bool isNoRequestMade(const Outcome& outcome) {
        return !outcome && outcome.error() == HttpRequestError::noRequestMade(std::nullopt);
    }

    std::shared_ptr<TernHooksManager> hooks = std::make_shared<TernHooksManager>();
    std::vector<std::string> offers;
};

TEST_F(QueueRunnerTest, HooksAreOfferedTheTaskInOrderUntilOneTakesIt) {
    auto tracking = std::make_shared<HeldHook>("identifyProfile", offers, "tracking");
    auto push = std::make_shared<HeldHook>("registerPushToken", offers, "push");
    auto inApp = std::make_shared<HeldHook>("registerPushToken", offers, "inApp");
    hooks->add(HookModule::tracking, std::make_shared<HookProvider>(tracking));
    hooks->add(HookModule::messagingPush, std::make_shared<HookProvider>(push));
    hooks->add(HookModule::messagingInApp, std::make_shared<HookProvider>(inApp));
    auto runner = makeRunner(server.origin());
    Outcomes outcomes;

    runner->runTask(task("registerPushToken"), outcomes.completion());

    EXPECT_EQ(offers, (std::vector<std::string>{"tracking", "push"}));
    EXPECT_EQ(runner->currentlyRunningHook(), push);
    EXPECT_TRUE(outcomes.received.empty());
    push->held(std::unexpected(HttpRequestError::unauthorized()));
    EXPECT_EQ(runner->currentlyRunningHook(), nullptr);
    ASSERT_EQ(outcomes.received.size(), 1u);
    EXPECT_EQ(outcomes.received[0].error(), HttpRequestError::unauthorized());
}

TEST_F(QueueRunnerTest, TaskThatNoHookTakesFailsOnce) {
    hooks->add(HookModule::tracking,
               std::make_shared<HookProvider>(
                   std::make_shared<HeldHook>("identifyProfile", offers, "tracking")));
    hooks->add(HookModule::messagingPush,
               std::make_shared<HookProvider>(
                   std::make_shared<HeldHook>("registerPushToken", offers, "push")));
    auto runner = makeRunner(server.origin());
    Outcomes outcomes;

    runner->runTask(task("syncInbox"), outcomes.completion());

    EXPECT_EQ(offers, (std::vector<std::string>{"tracking", "push"}));
    ASSERT_EQ(outcomes.received.size(), 1u);
    EXPECT_TRUE(isNoRequestMade(outcomes.received[0]));
    EXPECT_EQ(host.count("\U0001F6D1 task syncInbox not handled by any module"), 1u);
}

struct UndecodableCase {
    const char* name;
    std::string data;
    std::string logged;
};

class UndecodableDeliveryTest : public QueueRunnerTest,
                                public ::testing::WithParamInterface<UndecodableCase> {};

TEST_P(UndecodableDeliveryTest, FailsWithoutARequest) {
    auto runner = makeRunner(server.origin());
    Outcomes outcomes;

    runner->runTask(task("trackDeliveryMetric", toBytes(GetParam().data)), outcomes.completion());

    ASSERT_EQ(outcomes.received.size(), 1u);
    EXPECT_TRUE(isNoRequestMade(outcomes.received[0]));
    EXPECT_EQ(host.count("\U0001F6D1 Failure decoding: " + GetParam().logged +
                         " to TrackDeliveryEventRequestBody"),
              1u);
    EXPECT_TRUE(server.received().empty());
}

const std::string pushDelivery =
    R"({"payload":{"delivery_id":"d","event":"opened","timestamp":1},"type":"push"})";

INSTANTIATE_TEST_SUITE_P(
    Cases, UndecodableDeliveryTest,
    ::testing::Values(UndecodableCase{"NotAnInAppDelivery", pushDelivery, pushDelivery},
                      UndecodableCase{"UnknownEvent",
                                      R"({"payload":{"delivery_id":"d","event":"seen",)"
                                      R"("timestamp":1},"type":"in_app"})",
                                      R"({"payload":{"delivery_id":"d","event":"seen",)"
                                      R"("timestamp":1},"type":"in_app"})"},
                      UndecodableCase{"NotUtf8", std::string("\xff\xfe{", 3), "()"}),
    [](const auto& testInfo) { return std::string(testInfo.param.name); });

TEST_F(QueueRunnerTest, RequestThatCannotBeBuiltFailsWithoutARequest) {
    auto runner = makeRunner("");
    Outcomes outcomes;
    const auto body = TrackDeliveryEventRequestBody::inApp("d", InAppMetric::opened, {1.0});

    runner->runTask(task("trackDeliveryMetric", *graph().jsonAdapter()->toJson(body)),
                    outcomes.completion());

    ASSERT_EQ(outcomes.received.size(), 1u);
    EXPECT_TRUE(isNoRequestMade(outcomes.received[0]));
    EXPECT_EQ(host.count("\U0001F6D1 Error constructing HTTP request. Endpoint: "
                         "trackDeliveryMetrics, baseUrls: HttpBaseUrls(trackingApi: \"\")"),
              1u);
}

TEST_F(QueueRunnerTest, DeliveryBodyIsReadWhateverItsKeyOrderAndSentAsTheLibraryWritesIt) {
    auto runner = makeRunner(server.origin());
    Signal done;
    std::optional<Outcome> outcome;
    const std::string stored =
        R"({"type":"in_app","payload":{"timestamp":5.9,"event":"opened","delivery_id":"d"}})";

    runner->runTask(task("trackDeliveryMetric", toBytes(stored)), [&](Outcome result) {
        outcome = std::move(result);
        done.callback()();
    });

    ASSERT_TRUE(done.wait());
    EXPECT_TRUE(outcome && *outcome);
    ASSERT_EQ(server.received().size(), 1u);
    EXPECT_EQ(server.received()[0].body,
              R"({"payload":{"delivery_id":"d","event":"opened","timestamp":5},"type":"in_app"})");
}

TEST(MetricTest, GetEventReadsPushMetricsInAnyCase) {
    const std::vector<std::pair<std::string, std::optional<Metric>>> cases = {
        {"delivered", Metric::delivered}, {"OPENED", Metric::opened},
        {"Converted", Metric::converted}, {"clicked", std::nullopt},
        {"", std::nullopt},               {"opened ", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(getEvent(text), expected) << text;
    EXPECT_EQ(fromRawValue<Metric>("OPENED"), std::nullopt);
    EXPECT_EQ(fromRawValue<InAppMetric>("clicked"), InAppMetric::clicked);
    EXPECT_EQ(fromRawValue<DeliveryType>("in_app"), DeliveryType::inApp);
}

}  // namespace
}  // namespace tern::testing
