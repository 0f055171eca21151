#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/http/TernHttpClient.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/common/ScopedCurrentEnv.hpp"
#include "tests/common/http/ClientHarness.hpp"
#include "tests/common/http/HttpTestSupport.hpp"
#include "tests/common/http/RawTcpServer.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using namespace testing;
using Level = RecordingLogger::Level;
using vontu::platform::Date;
using vontu::platform::toBytes;
using vontu::platform::UrlError;

constexpr const char* pausedLine = "HTTP request ignored because requests are still paused.";
constexpr const char* pauseStartedLine = "All HTTP requests to the Tern API have been paused for 5 minutes.";
constexpr double fiveMinutes = 300.0;

// A retry policy that never runs out of quick retries: for tests that are not about the budget.
class EndlessQuickRetries final : public HttpRetryPolicy {
public:
    std::optional<double> nextSleepTime() override { return 0.001; }
};

class TernHttpClientTest : public ::testing::Test {
protected:
    // Outlives the server, whose handler threads may still be leaving it when a test ends.
    Gate gate;
    RecordingServer<httplib::Server> api;
    vontu::testing::TestEnv host;
    ClientHarness harness;
    std::shared_ptr<TernHttpClient> client = harness.makeClient(api.origin());

    HttpRequestParams apiRequest(std::string method = "POST") { return requestTo(api.origin() + "/api/v1/x", std::move(method)); }

    bool isPaused() {
        const auto end = harness.globalDataStore->httpRequestsPauseEnds();
        return end && host.env().now() <= *end;
    }

    // Waits until a main-thread timer of `seconds`, armed now, has fired: every timer armed
    // earlier with a shorter delay has had its turn by then.
    void letMainTimersRun(double seconds) {
        std::promise<void> fired;
        auto future = fired.get_future();
        auto handle = host.env().scheduleOnMain(seconds, [&fired] { fired.set_value(); });
        ASSERT_EQ(future.wait_for(generousDeadline), std::future_status::ready);
    }
};

TEST_F(TernHttpClientTest, SucceedsWithTheBodyAndSendsTheRequestAsGiven) {
    api.respondWith(200, R"({"ok":true})");
    const auto result = send(*client, requestTo(api.origin() + "/api/v1/customers/ann", "PUT",
                                                toBytes(R"({"id":"ann"})"),
                                                HttpRequestParams::Headers{{"X-Extra", "1"}}));
    ASSERT_TRUE(result);
    ASSERT_TRUE(result->has_value()) << result->error().description();
    EXPECT_EQ(**result, toBytes(R"({"ok":true})"));

    const auto received = api.received();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].method, "PUT");
    EXPECT_EQ(received[0].path, "/api/v1/customers/ann");
    EXPECT_EQ(received[0].body, R"({"id":"ann"})");
    EXPECT_EQ(received[0].header("X-Extra"), "1");
    EXPECT_EQ(received[0].header("Authorization"), testAuthorization);
    EXPECT_EQ(received[0].header("Content-Type"), "application/json; charset=utf-8");
    EXPECT_EQ(received[0].header("User-Agent"), harness.userAgentUtil->getUserAgentHeaderValue());

    api.respondWith(204);
    const auto empty = send(*client, apiRequest("DELETE"));
    ASSERT_TRUE(empty && empty->has_value());
    EXPECT_TRUE((*empty)->empty());
}

TEST_F(TernHttpClientTest, AppliesTheStatusRules) {
    const std::string noResponse = "(server did not give a response)";
    const struct {
        int status;
        std::string body;
        HttpRequestError error;
        bool pauses;
        bool logsError;
    } cases[] = {
        {400, R"({"meta":{"errors":["a","b"]}})", HttpRequestError::badRequest400("a,b"), false, false},
        {400, R"({"meta":{"error":"bad id"}})", HttpRequestError::badRequest400("bad id"), false, false},
        {401, "", HttpRequestError::unauthorized(), true, false},
        {404, "", HttpRequestError::unsuccessfulStatusCode(404, noResponse), false, true},
        {429, "slow down", HttpRequestError::unsuccessfulStatusCode(429, "slow down"), false, true},
        {409, "{broken", HttpRequestError::unsuccessfulStatusCode(409, "{broken"), false, true},
        {418, "\xff\xfe\xfd", HttpRequestError::unsuccessfulStatusCode(418, noResponse), false, true},
        // No Location header, so there is nothing to follow.
        {302, "", HttpRequestError::unsuccessfulStatusCode(302, noResponse), false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        harness.globalDataStore->setHttpRequestsPauseEnds(std::nullopt);
        const auto before = api.receivedCount();
        const auto errorLinesBefore = harness.logger->messages(Level::error).size();
        api.respondWith(c.status, c.body);

        const auto result = send(*client, apiRequest());
        ASSERT_TRUE(result);
        ASSERT_FALSE(result->has_value());
        EXPECT_EQ(result->error(), c.error) << result->error().description();
        EXPECT_EQ(api.receivedCount(), before + 1) << "never retried";
        EXPECT_EQ(isPaused(), c.pauses);
        const auto errorLines = harness.logger->messages(Level::error);
        if (c.logsError) {
            ASSERT_EQ(errorLines.size(), errorLinesBefore + 1);
            EXPECT_EQ(errorLines.back(), std::to_string(c.status) +
                                             " HTTP status code response.\nProbably a bug? " +
                                             c.error.description());
        } else {
            EXPECT_EQ(errorLines.size(), errorLinesBefore);
        }
    }
    EXPECT_EQ(harness.logger->messages(Level::error)[0],
              "404 HTTP status code response.\nProbably a bug? Response received, but status code = "
              "404. (server did not give a response)");
}

TEST_F(TernHttpClientTest, RetriesServerErrorsSixTimesThenPauses) {
    api.respondWith(503, R"({"meta":{"error":"down"}})");
    const auto result = send(*client, apiRequest());
    ASSERT_TRUE(result);
    ASSERT_FALSE(result->has_value());
    EXPECT_EQ(result->error(), HttpRequestError::unsuccessfulStatusCode(503, "down"));
    EXPECT_EQ(api.receivedCount(), 7u);
    EXPECT_EQ(harness.retryTimer->requestedDelays(), (std::vector<double>{0.1, 0.2, 0.4, 0.8, 1.6, 3.2}));

    std::vector<std::string> expectedDebug;
    for (const char* seconds : {"0.1", "0.2", "0.4", "0.8", "1.6", "3.2"}) {
        expectedDebug.push_back(std::string("Encountered 503 HTTP response.\nSleeping ") + seconds +
                                " seconds and then retrying.");
    }
    EXPECT_EQ(harness.logger->messages(Level::debug), expectedDebug);
    EXPECT_EQ(harness.logger->messages(Level::info), std::vector<std::string>{pauseStartedLine});
    EXPECT_TRUE(harness.logger->messages(Level::error).empty());
    EXPECT_TRUE(isPaused());
}

TEST_F(TernHttpClientTest, TheRetryBudgetIsNeverRefilled) {
    std::atomic<int> served{0};
    api.respond([&served](const httplib::Request&, httplib::Response& response) {
        response.status = ++served <= 2 ? 500 : 200;
    });
    const auto recovered = send(*client, apiRequest());
    ASSERT_TRUE(recovered && recovered->has_value());
    EXPECT_EQ(api.receivedCount(), 3u);

    harness.globalDataStore->setHttpRequestsPauseEnds(std::nullopt);
    api.respondWith(502);
    const auto failed = send(*client, apiRequest());
    ASSERT_TRUE(failed && !failed->has_value());
    EXPECT_EQ(failed->error().statusCode(), 502);
    EXPECT_EQ(api.receivedCount(), 3u + 5u) << "one try and the four retries that were left";
    EXPECT_TRUE(isPaused());
}

TEST_F(TernHttpClientTest, AnUnauthorizedResponsePausesLaterRequests) {
    api.respondWith(401);
    const auto first = send(*client, apiRequest());
    ASSERT_TRUE(first && !first->has_value());
    EXPECT_EQ(first->error(), HttpRequestError::unauthorized());
    EXPECT_EQ(harness.logger->messages(Level::info), std::vector<std::string>{pauseStartedLine});

    api.respondWith(200);
    // Another client of the same app shares the pause: it lives in storage.
    const auto otherClient = harness.makeClient(api.origin());
    const auto second = send(*otherClient, apiRequest());
    ASSERT_TRUE(second && !second->has_value());
    EXPECT_EQ(second->error(), HttpRequestError::noRequestMade(std::nullopt));
    EXPECT_EQ(api.receivedCount(), 1u);
    EXPECT_EQ(harness.logger->messages(Level::debug), std::vector<std::string>{pausedLine});
}

// The platform's clock, fixed where the test puts it.
class FixedClockEnv final : public vontu::platform::EnvWrapper {
public:
    FixedClockEnv(vontu::platform::Env& target, Date now) : EnvWrapper(target), now_(now) {}
    Date now() override { return now_; }

private:
    const Date now_;
};

TEST_F(TernHttpClientTest, APauseHoldsUpToAndIncludingItsEnd) {
    const Date now{1'700'000'000.25};
    FixedClockEnv clock(host.env(), now);
    ScopedCurrentEnv useClock(clock, host.env());
    api.respondWith(200);

    const struct {
        std::optional<Date> pauseEnds;
        bool sent;
    } cases[] = {
        {now.addingSeconds(fiveMinutes), false},
        {now, false},
        {now.addingSeconds(-0.5), true},
        {std::nullopt, true},
    };
    for (const auto& c : cases) {
        harness.globalDataStore->setHttpRequestsPauseEnds(c.pauseEnds);
        const auto before = api.receivedCount();
        const auto result = send(*client, apiRequest());
        ASSERT_TRUE(result);
        EXPECT_EQ(result->has_value(), c.sent);
        EXPECT_EQ(api.receivedCount(), before + (c.sent ? 1 : 0));
        EXPECT_EQ(harness.globalDataStore->httpRequestsPauseEnds(), c.pauseEnds) << "never cleared";
    }
    // Downloads do not look at the pause.
    harness.globalDataStore->setHttpRequestsPauseEnds(now.addingSeconds(fiveMinutes));
    EXPECT_TRUE(download(*client, api.origin() + "/image.png"));
}

TEST_F(TernHttpClientTest, StartingAPauseStoresNowPlusFiveMinutes) {
    const Date now{1'700'000'000.25};
    FixedClockEnv clock(host.env(), now);
    ScopedCurrentEnv useClock(clock, host.env());
    api.respondWith(401);
    ASSERT_TRUE(send(*client, apiRequest()));
    EXPECT_EQ(harness.globalDataStore->httpRequestsPauseEnds(), now.addingSeconds(fiveMinutes));
}

TEST_F(TernHttpClientTest, MapsTransportFailures) {
    const RawTcpServer silent("");
    const RawTcpServer truncated("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly a part");
    std::string closedOrigin;
    {
        const RawTcpServer gone("");
        closedOrigin = gone.origin();
    }
    RecordingServer<httplib::Server> huge;
    huge.respondWith(404, std::string(10u * 1024u * 1024u + 1u, 'x'));

    const struct {
        std::string origin;
        HttpRequestError::Kind kind;
        std::optional<UrlError::Code> underlying;
    } cases[] = {
        {silent.origin(), HttpRequestError::Kind::noOrBadNetwork, UrlError::Code::networkConnectionLost},
        {truncated.origin(), HttpRequestError::Kind::noOrBadNetwork, UrlError::Code::networkConnectionLost},
        {closedOrigin, HttpRequestError::Kind::noRequestMade, UrlError::Code::cannotConnect},
        {huge.origin(), HttpRequestError::Kind::noRequestMade, UrlError::Code::responseTooLarge},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.origin);
        const auto otherHostClient = harness.makeClient(c.origin);
        const auto result = send(*otherHostClient, requestTo(c.origin + "/api", "GET"));
        ASSERT_TRUE(result);
        ASSERT_FALSE(result->has_value());
        EXPECT_EQ(result->error().kind(), c.kind) << result->error().description();
        ASSERT_TRUE(result->error().underlyingError());
        EXPECT_EQ(result->error().underlyingError()->code, c.underlying);
    }
    EXPECT_FALSE(isPaused());
}

TEST_F(TernHttpClientTest, StatusCodesAboveTheServerErrorsAreNeitherRetriedNorPausing) {
    const RawTcpServer odd("HTTP/1.1 600 Odd\r\nContent-Length: 3\r\nConnection: close\r\n\r\nodd");
    const auto oddClient = harness.makeClient(odd.origin());
    const auto result = send(*oddClient, requestTo(odd.origin() + "/api", "GET"));
    ASSERT_TRUE(result && !result->has_value());
    EXPECT_EQ(result->error(), HttpRequestError::unsuccessfulStatusCode(600, "odd"));
    EXPECT_TRUE(harness.retryTimer->requestedDelays().empty());
    EXPECT_FALSE(isPaused());
    EXPECT_EQ(harness.logger->messages(Level::error),
              std::vector<std::string>{"600 HTTP status code response.\nProbably a bug? Response received, "
                                       "but status code = 600. odd"});
}

TEST_F(TernHttpClientTest, CancellingWithoutFinishingEndsRunningRequests) {
    api.respond([this](const httplib::Request&, httplib::Response& response) {
        gate.arrive();
        gate.waitOpen();
        response.status = 200;
    });
    RequestRecorder recorder;
    client->request(apiRequest(), recorder.completion());
    ASSERT_TRUE(gate.waitForArrivals(1));
    client->cancel(false);
    const auto result = recorder.await();
    gate.open();
    ASSERT_TRUE(result);
    ASSERT_FALSE(result->has_value());
    EXPECT_EQ(result->error(), HttpRequestError::cancelled());

    const auto afterwards = send(*client, apiRequest());
    ASSERT_TRUE(afterwards && !afterwards->has_value());
    EXPECT_EQ(afterwards->error(), HttpRequestError::cancelled());
}

TEST_F(TernHttpClientTest, CancellingWithFinishingLetsRunningRequestsEnd) {
    api.respond([this](const httplib::Request&, httplib::Response& response) {
        gate.arrive();
        gate.waitOpen();
        response.set_content("done", "text/plain");
    });
    RequestRecorder recorder;
    client->request(apiRequest(), recorder.completion());
    ASSERT_TRUE(gate.waitForArrivals(1));
    client->cancel(true);
    gate.open();
    const auto result = recorder.await();
    ASSERT_TRUE(result && result->has_value());
    EXPECT_EQ(**result, toBytes("done"));

    const auto afterwards = send(*client, apiRequest());
    ASSERT_TRUE(afterwards && !afterwards->has_value());
    EXPECT_EQ(afterwards->error(), HttpRequestError::cancelled());
    EXPECT_EQ(api.receivedCount(), 1u);
}

TEST_F(TernHttpClientTest, AClientThatIsGoneReportsNothing) {
    api.respond([this](const httplib::Request&, httplib::Response& response) {
        gate.arrive();
        gate.waitOpen();
        response.status = 200;
    });
    RequestRecorder inFlight;
    client->request(apiRequest(), inFlight.completion());
    ASSERT_TRUE(gate.waitForArrivals(1));
    // Destroying the client ends its sessions, and with them every completion still to come.
    client.reset();
    gate.open();
    EXPECT_EQ(inFlight.calls(), 0);
}

TEST_F(TernHttpClientTest, ARetryOfAClientThatIsGoneNeverRuns) {
    api.respondWith(503);
    // The real back-off: the first retry waits 0.1 seconds.
    auto slowClient = harness.makeClient(api.origin(), std::make_shared<TernAPIHttpRetryPolicy>(),
                                         TernSimpleTimer::make(std::make_shared<RecordingLogger>()));
    RequestRecorder recorder;
    slowClient->request(apiRequest(), recorder.completion());
    ASSERT_TRUE(harness.logger->waitForMessage(
        "Encountered 503 HTTP response.\nSleeping 0.1 seconds and then retrying."));
    slowClient.reset();
    letMainTimersRun(0.3);
    EXPECT_EQ(recorder.calls(), 0);
    EXPECT_EQ(api.receivedCount(), 1u);
}

TEST_F(TernHttpClientTest, ARetryIsRefusedWhenRequestsWerePausedMeanwhile) {
    // Another process pauses all requests while this request's 503 is on its way.
    api.respond([this](const httplib::Request&, httplib::Response& response) {
        harness.globalDataStore->setHttpRequestsPauseEnds(host.env().now().addingSeconds(fiveMinutes));
        response.status = 503;
    });
    auto quickClient = harness.makeClient(api.origin(), std::make_shared<EndlessQuickRetries>());
    const auto result = send(*quickClient, apiRequest());
    ASSERT_TRUE(result && !result->has_value());
    EXPECT_EQ(result->error(), HttpRequestError::noRequestMade(std::nullopt));
    EXPECT_EQ(api.receivedCount(), 1u);
    EXPECT_EQ(harness.logger->messages(Level::debug).back(), pausedLine);
}

}  // namespace
}  // namespace tern
