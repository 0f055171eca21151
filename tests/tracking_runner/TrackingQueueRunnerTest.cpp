// The tracking runner at the edges that the end-to-end host tests do not reach: stored data it
// cannot read, absent bodies, and the task types of other modules.

#include <gtest/gtest.h>

#include <chrono>
#include <expected>
#include <future>

#include "Common/DIGraph.hpp"
#include "TernTracking/TrackingQueueRunner.hpp"
#include "tests/tracking_runner/TrackingServer.hpp"

namespace tern::testing {
namespace {

using vontu::platform::Bytes;
using vontu::platform::toBytes;
using Result = std::expected<void, HttpRequestError>;

SdkConfig configFor(const TrackingServer& server) {
    SdkConfig config;
    config.trackingApiUrl = server.baseUrl();
    return config;
}

class TrackingQueueRunnerTest : public ::testing::Test {
protected:
    // Offers the task to a new runner: the outcome once onComplete was called, absent when the
    // runner declined the task (and then onComplete must never be called).
    std::optional<Result> run(const std::string& type, Bytes data) {
        TrackingQueueRunner runner("runner-site", graph);
        auto outcome = std::make_shared<std::promise<Result>>();
        auto future = outcome->get_future();
        const QueueTask task{"0F0E0D0C-0B0A-4908-8706-050403020100", type, std::move(data), {}};
        if (!runner.runTask(task, [outcome](Result result) { outcome->set_value(result); })) {
            EXPECT_NE(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
            return std::nullopt;
        }
        if (future.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
            ADD_FAILURE() << "no completion for " << type;
            return std::nullopt;
        }
        return future.get();
    }

    TrackingServer server;
    DIGraph graph{"runner-site", "runner-key", configFor(server)};
};

TEST_F(TrackingQueueRunnerTest, UndecodableDataAndForeignTypesSendNothing) {
    const std::pair<const char*, Bytes> undecodable[] = {
        {"identifyProfile", toBytes("{}")},
        {"trackEvent", toBytes(R"({"identifier":"a"})")},
        {"registerPushToken", toBytes("[]")},
        {"deletePushToken", toBytes(R"({"profile_identifier":"p"})")},
        {"trackPushMetric", Bytes{0xff, 0xfe}},
    };
    const Result noRequest = std::unexpected(HttpRequestError::noRequestMade(std::nullopt));
    for (const auto& [type, data] : undecodable) EXPECT_EQ(run(type, data), noRequest) << type;
    // The types of other modules' runners, and near misses, are declined.
    for (const char* type : {"trackDeliveryMetric", "IdentifyProfile", "", "screen"}) {
        EXPECT_EQ(run(type, toBytes("{}")), std::nullopt) << type;
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(TrackingQueueRunnerTest, AbsentAttributesAreSentWithoutABody) {
    EXPECT_EQ(run("identifyProfile", toBytes(R"({"identifier":"alice"})")), Result());
    EXPECT_EQ(run("registerPushToken", toBytes(R"({"profile_identifier":"alice"})")), Result());
    EXPECT_EQ(server.requestLines(), (std::vector<std::string>{
                                         "PUT /api/v1/customers/alice",
                                         "PUT /api/v1/customers/alice/devices"}));
    for (const auto& request : server.requests()) {
        EXPECT_EQ(request.body, "") << request.path;
        EXPECT_EQ(request.header("Content-Length"), "0") << request.path;
        EXPECT_EQ(request.header("Transfer-Encoding"), "") << request.path;
    }
}

}  // namespace
}  // namespace tern::testing
