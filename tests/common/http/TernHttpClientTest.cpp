#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/common/http/ClientHarness.hpp"
#include "tests/support/RawTcpServer.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using namespace testing;
using vontu::platform::toBytes;
using vontu::platform::UrlError;
using vontu::testing::RawTcpServer;

constexpr double fiveMinutes = 300.0;
const HttpRequestError pausedError = HttpRequestError::noRequestMade(std::nullopt);

// Sends one request; the error it ended with, absent when it succeeded.
std::optional<HttpRequestError> failureOf(HttpClient& client, HttpRequestParams params) {
    const auto result = send(client, std::move(params));
    if (!result) throw std::runtime_error("the request never ended");
    return result->has_value() ? std::nullopt : std::optional(result->error());
}

class TernHttpClientTest : public ::testing::Test {
protected:
    HttpRequestParams apiRequest() { return requestTo(api.origin() + "/api/v1/x"); }
    bool isPaused() { return harness.globalDataStore->httpRequestsPauseEnds().has_value(); }
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
    EXPECT_EQ(send(*client, requestTo(api.origin() + "/x", "PUT", toBytes("{}"), HttpRequestParams::Headers{{"X-Extra", "1"}})),
              HttpRequestResult(toBytes(R"({"ok":true})")));
    EXPECT_EQ(api.received().at(0).header("X-Extra"), "1");
}

TEST_F(TernHttpClientTest, AppliesTheStatusRules) {
    const std::string noResponse = "(server did not give a response)";
    const struct {
        int status;
        std::string body;
        HttpRequestError error;
    } cases[] = {
        {400, R"({"meta":{"errors":["a","b"]}})", HttpRequestError::badRequest400("a,b")},
        {400, R"({"meta":{"error":"bad id"}})", HttpRequestError::badRequest400("bad id")},
        {404, "", HttpRequestError::unsuccessfulStatusCode(404, noResponse)},
        {418, "\xff\xfe\xfd", HttpRequestError::unsuccessfulStatusCode(418, noResponse)},
        // Above the server errors: neither retried nor pausing.
        {600, "odd", HttpRequestError::unsuccessfulStatusCode(600, "odd")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        api.respondWith(c.status, c.body);
        const auto error = failureOf(*client, apiRequest());
        EXPECT_EQ(error, c.error) << (error ? error->description() : "success");
    }
    EXPECT_EQ(api.received().size(), std::size(cases)) << "never retried";
    EXPECT_FALSE(isPaused());
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
    EXPECT_EQ(api.received().size(), 3u + 5u) << "one try and the four retries that were left";
    EXPECT_EQ(harness.retryTimer->requestedDelays(), (std::vector<double>{0.1, 0.2, 0.4, 0.8, 1.6, 3.2}));
    EXPECT_TRUE(isPaused());
}

TEST_F(TernHttpClientTest, AnUnauthorizedResponsePausesAllRequestsForFiveMinutes) {
    const auto before = host.env().now();
    api.respondWith(401);
    EXPECT_EQ(failureOf(*client, apiRequest()), HttpRequestError::unauthorized());
    const auto end = harness.globalDataStore->httpRequestsPauseEnds().value();
    EXPECT_GE(end, before.addingSeconds(fiveMinutes));
    EXPECT_LE(end, host.env().now().addingSeconds(fiveMinutes));
    api.respondWith(200);
    EXPECT_EQ(failureOf(*client, apiRequest()), pausedError);
    harness.globalDataStore->setHttpRequestsPauseEnds(host.env().now().addingSeconds(-1));
    EXPECT_EQ(failureOf(*client, apiRequest()), std::nullopt) << "over once the end has passed";
    EXPECT_EQ(api.received().size(), 2u);
}

TEST_F(TernHttpClientTest, MapsTransportFailures) {
    const RawTcpServer silent("");
    RecordingServer<httplib::Server> huge;
    huge.respondWith(404, std::string(10u * 1024u * 1024u + 1u, 'x'));
    const struct {
        std::string origin;
        HttpRequestError::Kind kind;
        UrlError::Code underlying;
    } cases[] = {
        {silent.origin(), HttpRequestError::Kind::noOrBadNetwork, UrlError::Code::networkConnectionLost},
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
        EXPECT_EQ(running.await(), finishRunning ? HttpRequestResult(toBytes("done"))
                                                 : HttpRequestResult(std::unexpected(HttpRequestError::cancelled())));
        held->open();
        EXPECT_EQ(failureOf(*client, apiRequest()), HttpRequestError::cancelled());
    }
    EXPECT_EQ(api.received().size(), 2u);
}

TEST_F(TernHttpClientTest, AClientThatIsGoneReportsNothingAndRetriesNothing) {
    client = harness.makeClient(api.origin(), std::make_shared<TernAPIHttpRetryPolicy>(),
                                TernSimpleTimer::make(harness.logger));  // the real back-off
    auto [inFlight, held] = startHeldRequest();
    api.respondWith(503);
    RequestRecorder retried;
    client->request(apiRequest(), retried.completion());
    ASSERT_TRUE(harness.logger->waitForMessage("Encountered 503 HTTP response.\nSleeping 0.1 seconds and then retrying."));
    client.reset();  // ends its sessions, and with them every completion still to come
    held->open();
    // Once a main-thread timer of 0.3 seconds armed now has fired, the retry has had its turn.
    CompletionRecorder<bool> fired;
    auto handle = host.env().scheduleOnMain(0.3, [fire = fired.completion()] { fire(true); });
    ASSERT_TRUE(fired.await());
    EXPECT_EQ(inFlight.calls() + retried.calls(), 0);
    EXPECT_EQ(api.received().size(), 2u);
}

TEST_F(TernHttpClientTest, ARetryIsRefusedWhenRequestsWerePausedMeanwhile) {
    // Another process pauses all requests while this request's 503 is on its way.
    api.respond([this](const httplib::Request&, httplib::Response& response) {
        harness.globalDataStore->setHttpRequestsPauseEnds(host.env().now().addingSeconds(fiveMinutes));
        response.status = 503;
    });
    EXPECT_EQ(failureOf(*client, apiRequest()), pausedError);
    EXPECT_EQ(api.received().size(), 1u);
}

}  // namespace
}  // namespace tern
