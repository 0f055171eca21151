#include <gtest/gtest.h>

#include <chrono>
#include <expected>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Common/DIGraph.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "TernTracking/DeletePushNotificationQueueTaskData.hpp"
#include "TernTracking/IdentifyProfileQueueTaskData.hpp"
#include "TernTracking/MetricRequest.hpp"
#include "TernTracking/RegisterPushNotificationQueueTaskData.hpp"
#include "TernTracking/SdkInitializedUtil.hpp"
#include "TernTracking/TrackEventQueueTaskData.hpp"
#include "TernTracking/TrackingModuleHookProvider.hpp"
#include "TernTracking/TrackingQueueRunner.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/support/TestEnv.hpp"
#include "tests/tracking_runner/RawHttpRecorder.hpp"
#include "tests/tracking_runner/TrackingServer.hpp"

namespace tern::testing {
namespace {

using vontu::platform::Bytes;
using vontu::platform::toBytes;
using Result = std::expected<void, HttpRequestError>;

constexpr const char* kSiteId = "runner-site";

// A graph over a real platform whose tracking API is the test's server, with its log recorded.
struct RunnerTest : ::testing::Test {
    vontu::testing::TestEnv env;
    TrackingServer server;
    std::shared_ptr<RecordingLogger> log = std::make_shared<RecordingLogger>();
    std::unique_ptr<DIGraph> graph;

    RunnerTest() : graph(graphFor(server.baseUrl())) {}

    std::unique_ptr<DIGraph> graphFor(const std::string& trackingApiUrl) {
        SdkConfig config;
        config.trackingApiUrl = trackingApiUrl;
        auto made = std::make_unique<DIGraph>(kSiteId, "runner-key", config);
        made->override<Logger>(log);
        return made;
    }

    Bytes encoded(const auto& record) { return graph->jsonAdapter()->toJson(record).value(); }

    static QueueTask task(std::string type, Bytes data) {
        return QueueTask{"0F0E0D0C-0B0A-4908-8706-050403020100", std::move(type), std::move(data),
                         {}};
    }

    // Offers the task to a new runner; the outcome once onComplete was called, absent when the
    // runner declined it. A completion that never comes fails the test at the deadline.
    std::optional<Result> run(const QueueTask& queued) { return run(queued, *graph); }
    std::optional<Result> run(const QueueTask& queued, DIGraph& through) {
        TrackingQueueRunner runner(kSiteId, through);
        auto outcome = std::make_shared<std::promise<Result>>();
        bool taken =
            runner.runTask(queued, [outcome](Result result) { outcome->set_value(result); });
        if (!taken) return std::nullopt;
        auto future = outcome->get_future();
        if (future.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
            ADD_FAILURE() << "no completion for " << queued.type;
            return std::nullopt;
        }
        return future.get();
    }
};

TEST_F(RunnerTest, EachTrackingTaskBecomesItsRequest) {
    struct Case {
        const char* what;
        QueueTask task;
        std::string method;
        std::string path;
        std::string body;
    };
    const std::vector<Case> cases = {
        {"identify with attributes",
         task("identifyProfile",
              encoded(IdentifyProfileQueueTaskData{"alice", R"({"plan":"pro"})"})),
         "PUT", "/api/v1/customers/alice", R"({"plan":"pro"})"},
        {"event",
         task("trackEvent",
              encoded(TrackEventQueueTaskData{
                  "alice", R"({"data":{},"name":"opened","timestamp":1700000000,"type":"event"})"})),
         "POST", "/api/v1/customers/alice/events",
         R"({"data":{},"name":"opened","timestamp":1700000000,"type":"event"})"},
        {"register token",
         task("registerPushToken", encoded(RegisterPushNotificationQueueTaskData{
                                       "alice", R"({"device":{"id":"tok"}})"})),
         "PUT", "/api/v1/customers/alice/devices", R"({"device":{"id":"tok"}})"},
        {"delete token",
         task("deletePushToken", encoded(DeletePushNotificationQueueTaskData{"alice", "tok"})),
         "DELETE", "/api/v1/customers/alice/devices/tok", ""},
        // The metric is decoded and written again: keys sorted, the date in whole seconds.
        {"push metric",
         task("trackPushMetric",
              toBytes(R"({ "timestamp": 1700000000.75, "event": "opened", "device_id": "tok",)"
                      R"( "delivery_id": "dlv-1" })")),
         "POST", "/push/events",
         R"({"delivery_id":"dlv-1","device_id":"tok","event":"opened","timestamp":1700000000})"},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& each = cases[i];
        SCOPED_TRACE(each.what);
        auto outcome = run(each.task);
        ASSERT_TRUE(outcome.has_value());
        EXPECT_TRUE(outcome->has_value()) << outcome->error().description();
        auto received = server.requests();
        ASSERT_EQ(received.size(), i + 1);
        EXPECT_EQ(received.back().method, each.method);
        EXPECT_EQ(received.back().path, each.path);
        EXPECT_EQ(received.back().body, each.body);
    }
}

// Absent attributes mean a request without a body: read off the wire, since cpp-httplib refuses
// a PUT that announces no length.
TEST_F(RunnerTest, AbsentAttributesAreSentWithoutABody) {
    RawHttpRecorder recorder;
    auto throughRecorder = graphFor(recorder.baseUrl());
    const std::pair<QueueTask, std::string> cases[] = {
        {task("identifyProfile", encoded(IdentifyProfileQueueTaskData{"alice", std::nullopt})),
         "/api/v1/customers/alice"},
        {task("registerPushToken",
              encoded(RegisterPushNotificationQueueTaskData{"alice", std::nullopt})),
         "/api/v1/customers/alice/devices"},
    };
    for (const auto& [queued, path] : cases) {
        SCOPED_TRACE(queued.type);
        auto outcome = run(queued, *throughRecorder);
        ASSERT_TRUE(outcome.has_value());
        EXPECT_TRUE(outcome->has_value()) << outcome->error().description();
        auto received = recorder.requests();
        ASSERT_FALSE(received.empty());
        EXPECT_EQ(received.back().method, "PUT");
        EXPECT_EQ(received.back().path, path);
        EXPECT_EQ(received.back().body, "");
        EXPECT_EQ(received.back().header("Transfer-Encoding"), "");
    }
}

TEST_F(RunnerTest, OtherTaskTypesAreLeftToOtherRunners) {
    for (const char* type : {"trackDeliveryMetric", "IdentifyProfile", "", "screen"}) {
        TrackingQueueRunner runner(kSiteId, *graph);
        bool called = false;
        EXPECT_FALSE(runner.runTask(task(type, toBytes("{}")), [&](Result) { called = true; }))
            << type;
        EXPECT_FALSE(called) << type;
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(RunnerTest, UndecodableDataCompletesWithNoRequestMadeAndSendsNothing) {
    struct Case {
        std::string type;
        Bytes data;
        std::string logged;
    };
    const Case cases[] = {
        {"identifyProfile", toBytes("{}"), "Failure decoding: {} to IdentifyProfileQueueTaskData"},
        {"trackEvent", toBytes(R"({"identifier":"a"})"),
         R"(Failure decoding: {"identifier":"a"} to TrackEventQueueTaskData)"},
        {"registerPushToken", toBytes("[]"),
         "Failure decoding: [] to RegisterPushNotificationQueueTaskData"},
        {"deletePushToken", toBytes("not json"),
         "Failure decoding: not json to DeletePushNotificationQueueTaskData"},
        {"trackPushMetric", Bytes{0xff, 0xfe}, "Failure decoding: () to MetricRequest"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.type);
        auto outcome = run(task(each.type, each.data));
        ASSERT_TRUE(outcome.has_value());
        ASSERT_FALSE(outcome->has_value());
        EXPECT_EQ(outcome->error(), HttpRequestError::noRequestMade(std::nullopt));
        auto errors = log->messages(RecordingLogger::Level::error);
        EXPECT_NE(std::find(errors.begin(), errors.end(), each.logged), errors.end());
    }
    EXPECT_TRUE(server.requests().empty());
}

// --- The module's hook provider

class FixedSdkInitializedUtil final : public SdkInitializedUtil {
public:
    explicit FixedSdkInitializedUtil(std::optional<PostInitializedData> data)
        : data_(std::move(data)) {}
    std::shared_ptr<Tern> tern() override { return nullptr; }
    bool isInitlaized() override { return data_.has_value(); }
    std::optional<PostInitializedData> postInitializedData() override { return data_; }

private:
    std::optional<PostInitializedData> data_;
};

TEST(TrackingModuleHookProviderTest, OffersAFreshRunnerOnlyOnceInitialised) {
    vontu::testing::TestEnv env;
    TrackingModuleHookProvider before(std::make_shared<FixedSdkInitializedUtil>(std::nullopt));
    EXPECT_EQ(before.queueRunnerHook(), nullptr);
    EXPECT_EQ(before.profileIdentifyHook(), nullptr);
    EXPECT_EQ(before.screenTrackingHook(), nullptr);

    auto graph = std::make_shared<DIGraph>(kSiteId, "key", SdkConfig{});
    TrackingModuleHookProvider after(
        std::make_shared<FixedSdkInitializedUtil>(PostInitializedData{kSiteId, graph}));
    auto first = after.queueRunnerHook();
    auto second = after.queueRunnerHook();
    EXPECT_NE(std::dynamic_pointer_cast<TrackingQueueRunner>(first), nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<TrackingQueueRunner>(second), nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(after.profileIdentifyHook(), nullptr);
    EXPECT_EQ(after.screenTrackingHook(), nullptr);
}

}  // namespace
}  // namespace tern::testing
