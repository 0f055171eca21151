// The tracking runner at the edges that the end-to-end host tests do not reach: stored data it
// cannot read, absent bodies, and the task types of other modules.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <expected>
#include <future>
#include <mutex>
#include <thread>

#include "Common/DIGraph.hpp"
#include "TernTracking/TrackingQueueRunner.hpp"
#include "tests/tracking_runner/TrackingServer.hpp"

namespace tern::testing {
namespace {

using vontu::platform::Bytes;
using vontu::platform::toBytes;
using Result = std::expected<void, HttpRequestError>;

// A listener on 127.0.0.1 that keeps the head of each request, lower-cased, and answers 200
// "{}" without reading further: cpp-httplib would wait for the body of a PUT that announces
// no length, which is what the test wants to see.
class RequestHeadRecorder {
public:
    RequestHeadRecorder() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
        ::listen(listener_, 8);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] {
            for (int connection; (connection = ::accept(listener_, nullptr, nullptr)) >= 0;) {
                std::string head;
                char buffer[4096];
                for (ssize_t count; head.find("\r\n\r\n") == std::string::npos &&
                                    (count = ::recv(connection, buffer, sizeof buffer, 0)) > 0;) {
                    head.append(buffer, static_cast<std::size_t>(count));
                }
                std::ranges::transform(head, head.begin(), [](unsigned char c) {
                    return static_cast<char>(std::tolower(c));
                });
                {
                    std::lock_guard guard(mutex_);
                    heads_.push_back(head);
                }
                static constexpr char reply[] =
                    "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\n{}";
                ::send(connection, reply, sizeof reply - 1, MSG_NOSIGNAL);
                ::close(connection);
            }
        });
    }
    ~RequestHeadRecorder() {
        ::shutdown(listener_, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }
    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }
    std::vector<std::string> heads() const {
        std::lock_guard guard(mutex_);
        return heads_;
    }

private:
    int listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    int port_ = 0;
    mutable std::mutex mutex_;
    std::vector<std::string> heads_;
    std::thread thread_;
};

// A graph whose tracking API is the given server; the program's global environment below it.
std::unique_ptr<DIGraph> graphFor(const std::string& trackingApiUrl) {
    SdkConfig config;
    config.trackingApiUrl = trackingApiUrl;
    return std::make_unique<DIGraph>("runner-site", "runner-key", config);
}

QueueTask task(std::string type, Bytes data) {
    return QueueTask{"0F0E0D0C-0B0A-4908-8706-050403020100", std::move(type), std::move(data), {}};
}

// Offers the task to a new runner: the outcome once onComplete was called, absent when the
// runner declined the task (and then onComplete must never be called).
std::optional<Result> run(const QueueTask& queued, DIGraph& graph) {
    TrackingQueueRunner runner("runner-site", graph);
    auto outcome = std::make_shared<std::promise<Result>>();
    auto future = outcome->get_future();
    if (!runner.runTask(queued, [outcome](Result result) { outcome->set_value(result); })) {
        EXPECT_NE(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
        return std::nullopt;
    }
    if (future.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "no completion for " << queued.type;
        return std::nullopt;
    }
    return future.get();
}

TEST(TrackingQueueRunnerTest, UndecodableDataAndForeignTypesSendNothing) {
    TrackingServer server;
    auto graph = graphFor(server.baseUrl());
    const std::pair<const char*, Bytes> undecodable[] = {
        {"identifyProfile", toBytes("{}")},
        {"trackEvent", toBytes(R"({"identifier":"a"})")},
        {"registerPushToken", toBytes("[]")},
        {"deletePushToken", toBytes(R"({"profile_identifier":"p"})")},
        {"trackPushMetric", Bytes{0xff, 0xfe}},
    };
    for (const auto& [type, data] : undecodable) {
        auto outcome = run(task(type, data), *graph);
        ASSERT_TRUE(outcome.has_value()) << type;
        ASSERT_FALSE(outcome->has_value()) << type;
        EXPECT_EQ(outcome->error(), HttpRequestError::noRequestMade(std::nullopt)) << type;
    }
    // The types of other modules' runners, and near misses, are declined.
    for (const char* type : {"trackDeliveryMetric", "IdentifyProfile", "", "screen"}) {
        EXPECT_EQ(run(task(type, toBytes("{}")), *graph), std::nullopt) << type;
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST(TrackingQueueRunnerTest, AbsentAttributesAreSentWithoutABody) {
    RequestHeadRecorder recorder;
    auto graph = graphFor(recorder.baseUrl());
    const std::pair<QueueTask, std::string> cases[] = {
        {task("identifyProfile", toBytes(R"({"identifier":"alice"})")),
         "put /api/v1/customers/alice "},
        {task("registerPushToken", toBytes(R"({"profile_identifier":"alice"})")),
         "put /api/v1/customers/alice/devices "},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& [queued, requestLine] = cases[i];
        auto outcome = run(queued, *graph);
        ASSERT_TRUE(outcome.has_value()) << queued.type;
        EXPECT_TRUE(outcome->has_value()) << queued.type;
        const auto heads = recorder.heads();
        ASSERT_EQ(heads.size(), i + 1);
        EXPECT_TRUE(heads[i].starts_with(requestLine)) << heads[i];
        EXPECT_EQ(heads[i].find("transfer-encoding"), std::string::npos) << heads[i];
        const auto length = heads[i].find("content-length:");
        EXPECT_TRUE(length == std::string::npos ||
                    heads[i].compare(length, 18, "content-length: 0\r") == 0)
            << heads[i];
    }
}

}  // namespace
}  // namespace tern::testing
