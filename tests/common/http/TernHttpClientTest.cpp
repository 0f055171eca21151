#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/common/ScopedCurrentEnv.hpp"
#include "tests/common/http/ClientHarness.hpp"
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

// Sends one request; the error it ended with, absent when it succeeded.
std::optional<HttpRequestError> failureOf(HttpClient& client, HttpRequestParams params) {
    const auto result = send(client, std::move(params));
    if (!result) throw std::runtime_error("the request never ended");
    return result->has_value() ? std::nullopt : std::optional(result->error());
}

// The platform's clock, fixed where the test puts it.
class FixedClockEnv final : public vontu::platform::EnvWrapper {
public:
    FixedClockEnv(vontu::platform::Env& target, Date now) : EnvWrapper(target), now_(now) {}
    Date now() override { return now_; }

private:
    const Date now_;
};

class TernHttpClientTest : public ::testing::Test {
protected:
    HttpRequestParams apiRequest(std::string method = "POST") { return requestTo(api.origin() + "/api/v1/x", std::move(method)); }

    bool isPaused() {
        const auto end = harness.globalDataStore->httpRequestsPauseEnds();
        return end && host.env().now() <= *end;
    }

    // Starts a request that the server holds until the returned gate opens, once it is there.
    std::pair<RequestRecorder, std::shared_ptr<Gate>> startHeldRequest() {
        auto gate = std::make_shared<Gate>();
        api.respond([gate](const httplib::Request&, httplib::Response& response) {
            gate->arrive();
            gate->waitOpen();
            response.set_content("done", "text/plain");
        });
        RequestRecorder recorder;
        client->request(apiRequest(), recorder.completion());
        EXPECT_TRUE(gate->waitForArrivals(1));
        return {recorder, gate};
    }

    RecordingServer<httplib::Server> api;
    vontu::testing::TestEnv host;
    ClientHarness harness;
    std::shared_ptr<TernHttpClient> client = harness.makeClient(api.origin());
};

// Methods, paths, bodies and credentials are checked end to end by the host tests.
TEST_F(TernHttpClientTest, SucceedsWithTheBodyAndSendsExtraHeaders) {
    api.respondWith(200, R"({"ok":true})");
    const auto result = send(*client, requestTo(api.origin() + "/api/v1/x", "PUT", toBytes("{}"),
                                                HttpRequestParams::Headers{{"X-Extra", "1"}}));
    ASSERT_TRUE(result && result->has_value()) << (result ? result->error().description() : "none");
    EXPECT_EQ(**result, toBytes(R"({"ok":true})"));
    EXPECT_EQ(api.received().at(0).header("X-Extra"), "1");
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
    } cases[] = {
        {400, R"({"meta":{"errors":["a","b"]}})", HttpRequestError::badRequest400("a,b"), false},
        {400, R"({"meta":{"error":"bad id"}})", HttpRequestError::badRequest400("bad id"), false},
        {404, "", HttpRequestError::unsuccessfulStatusCode(404, noResponse), false},
        {418, "\xff\xfe\xfd", HttpRequestError::unsuccessfulStatusCode(418, noResponse), false},
        // Above the server errors: neither retried nor pausing.
        {600, "odd", HttpRequestError::unsuccessfulStatusCode(600, "odd"), false},
        {401, "", HttpRequestError::unauthorized(), true},  // last: it pauses what would follow
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        const auto before = api.receivedCount();
        const auto errorLinesBefore = harness.logger->messages(Level::error).size();
        api.respondWith(c.status, c.body);

        const auto error = failureOf(*client, apiRequest());
        EXPECT_EQ(error, c.error) << (error ? error->description() : "success");
        EXPECT_EQ(api.receivedCount(), before + 1) << "never retried";
        EXPECT_EQ(isPaused(), c.pauses);
        // Only the unexpected statuses are logged as errors.
        const bool expected = c.status != 400 && c.status != 401;
        EXPECT_EQ(harness.logger->messages(Level::error).size(), errorLinesBefore + (expected ? 1 : 0));
    }
    EXPECT_EQ(harness.logger->messages(Level::error)[0],
              "404 HTTP status code response.\nProbably a bug? Response received, but status code = "
              "404. (server did not give a response)");
}

// Six retries in all, however the requests share them.
TEST_F(TernHttpClientTest, RetriesServerErrorsSixTimesWithABudgetThatIsNeverRefilledThenPauses) {
    std::atomic<int> served{0};
    api.respond([&served](const httplib::Request&, httplib::Response& response) {
        response.status = ++served <= 2 ? 500 : 200;
    });
    EXPECT_EQ(failureOf(*client, apiRequest()), std::nullopt);
    api.respondWith(503, R"({"meta":{"error":"down"}})");
    EXPECT_EQ(failureOf(*client, apiRequest()), HttpRequestError::unsuccessfulStatusCode(503, "down"));
    EXPECT_EQ(api.receivedCount(), 3u + 5u) << "one try and the four retries that were left";
    EXPECT_EQ(harness.retryTimer->requestedDelays(), (std::vector<double>{0.1, 0.2, 0.4, 0.8, 1.6, 3.2}));
    EXPECT_EQ(harness.logger->messages(Level::debug).back(),
              "Encountered 503 HTTP response.\nSleeping 3.2 seconds and then retrying.");
    EXPECT_EQ(harness.logger->messages(Level::info), std::vector<std::string>{pauseStartedLine});
    EXPECT_TRUE(harness.logger->messages(Level::error).empty());
    EXPECT_TRUE(isPaused());
}

TEST_F(TernHttpClientTest, AnUnauthorizedResponsePausesEveryClientForFiveMinutesUpToAndIncludingTheEnd) {
    const Date now{1'700'000'000.25};
    FixedClockEnv clock(host.env(), now);
    ScopedCurrentEnv useClock(clock, host.env());
    api.respondWith(401);
    failureOf(*client, apiRequest());
    EXPECT_EQ(harness.globalDataStore->httpRequestsPauseEnds(), now.addingSeconds(fiveMinutes));
    EXPECT_EQ(harness.logger->messages(Level::info), std::vector<std::string>{pauseStartedLine});

    api.respondWith(200);
    // The pause lives in storage, so another client of the same app honours it too; its end is
    // still paused.
    const auto otherClient = harness.makeClient(api.origin());
    for (const auto& [pauseEnds, sent] : {std::pair{now, false}, std::pair{now.addingSeconds(-0.5), true}}) {
        harness.globalDataStore->setHttpRequestsPauseEnds(pauseEnds);
        const auto before = api.receivedCount();
        EXPECT_EQ(failureOf(*otherClient, apiRequest()),
                  sent ? std::nullopt : std::optional(HttpRequestError::noRequestMade(std::nullopt)));
        EXPECT_EQ(api.receivedCount(), before + (sent ? 1 : 0));
        EXPECT_EQ(harness.globalDataStore->httpRequestsPauseEnds(), pauseEnds) << "never cleared";
    }
    EXPECT_EQ(harness.logger->messages(Level::debug), std::vector<std::string>{pausedLine});
    // Downloads do not look at the pause.
    harness.globalDataStore->setHttpRequestsPauseEnds(now.addingSeconds(fiveMinutes));
    EXPECT_TRUE(download(*client, api.origin() + "/image.png"));
}

TEST_F(TernHttpClientTest, MapsTransportFailures) {
    const RawTcpServer silent("");
    const RawTcpServer truncated("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly a part");
    RecordingServer<httplib::Server> huge;
    huge.respondWith(404, std::string(10u * 1024u * 1024u + 1u, 'x'));

    const struct {
        std::string origin;
        HttpRequestError::Kind kind;
        UrlError::Code underlying;
    } cases[] = {
        {silent.origin(), HttpRequestError::Kind::noOrBadNetwork, UrlError::Code::networkConnectionLost},
        {truncated.origin(), HttpRequestError::Kind::noOrBadNetwork, UrlError::Code::networkConnectionLost},
        {RawTcpServer::closedOrigin(), HttpRequestError::Kind::noRequestMade, UrlError::Code::cannotConnect},
        {huge.origin(), HttpRequestError::Kind::noRequestMade, UrlError::Code::responseTooLarge},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.origin);
        const auto error = failureOf(*harness.makeClient(c.origin), requestTo(c.origin + "/api", "GET"));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->kind(), c.kind) << error->description();
        EXPECT_EQ(error->underlyingError().value().code, c.underlying);
    }
    EXPECT_FALSE(isPaused());
}

TEST_F(TernHttpClientTest, CancellingEndsRunningRequestsUnlessTheyMayFinishAndRefusesLaterOnes) {
    for (const bool finishRunning : {false, true}) {
        SCOPED_TRACE(finishRunning);
        client = harness.makeClient(api.origin());
        auto [running, held] = startHeldRequest();
        client->cancel(finishRunning);
        if (finishRunning) held->open();
        const auto result = running.await();
        held->open();
        ASSERT_TRUE(result);
        EXPECT_EQ(*result, finishRunning ? HttpRequestResult(toBytes("done"))
                                         : HttpRequestResult(std::unexpected(HttpRequestError::cancelled())));
        EXPECT_EQ(failureOf(*client, apiRequest()), HttpRequestError::cancelled());
    }
    EXPECT_EQ(api.receivedCount(), 2u);
}

TEST_F(TernHttpClientTest, AClientThatIsGoneReportsNothing) {
    auto [inFlight, held] = startHeldRequest();
    // Destroying the client ends its sessions, and with them every completion still to come.
    client.reset();
    held->open();
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
    // Once a main-thread timer of 0.3 seconds armed now has fired, the retry's had its turn.
    std::promise<void> fired;
    auto handle = host.env().scheduleOnMain(0.3, [&fired] { fired.set_value(); });
    ASSERT_EQ(fired.get_future().wait_for(generousDeadline), std::future_status::ready);
    EXPECT_EQ(recorder.calls(), 0);
    EXPECT_EQ(api.receivedCount(), 1u);
}

TEST_F(TernHttpClientTest, ARetryIsRefusedWhenRequestsWerePausedMeanwhile) {
    // Another process pauses all requests while this request's 503 is on its way.
    api.respond([this](const httplib::Request&, httplib::Response& response) {
        harness.globalDataStore->setHttpRequestsPauseEnds(host.env().now().addingSeconds(fiveMinutes));
        response.status = 503;
    });
    EXPECT_EQ(failureOf(*client, apiRequest()), HttpRequestError::noRequestMade(std::nullopt));
    EXPECT_EQ(api.receivedCount(), 1u);
    EXPECT_EQ(harness.logger->messages(Level::debug).back(), pausedLine);
}

}  // namespace
}  // namespace tern
