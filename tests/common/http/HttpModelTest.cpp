#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/http/ApiErrorMessage.hpp"
#include "Common/http/EmptyRequestBody.hpp"
#include "Common/http/HttpRequestError.hpp"
#include "Common/http/HttpRequestParams.hpp"
#include "Common/http/TernAPIHttpRetryPolicy.hpp"
#include "Common/http/UrlRequestHttpRequestRunner.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "tests/common/RecordingLogger.hpp"

namespace tern {
namespace {

using testing::RecordingLogger;
using vontu::platform::Bytes;
using vontu::platform::toBytes;
using vontu::platform::UrlError;

TEST(HttpRequestErrorTest, DescribesEveryCase) {
    const UrlError offline{UrlError::Code::notConnectedToInternet, "The Internet connection appears to be offline."};
    const struct {
        HttpRequestError error;
        std::string description;
    } cases[] = {
        {HttpRequestError::urlConstruction("ht tp://x"), "HTTP URL not a valid URL: ht tp://x"},
        {HttpRequestError::unsuccessfulStatusCode(503, "busy"), "Response received, but status code = 503. busy"},
        {HttpRequestError::noOrBadNetwork(offline), "No Internet connection or bad network connection."},
        {HttpRequestError::noRequestMade(offline), "The Internet connection appears to be offline."},
        {HttpRequestError::noRequestMade(std::nullopt), "No request was able to be made to server."},
        {HttpRequestError::badRequest400("a,b"), "HTTP request responded with 400 - a,b"},
        {HttpRequestError::unauthorized(),
         "HTTP request responded with 401. Configure the SDK with valid credentials."},
        {HttpRequestError::requestsPaused(),
         "HTTP request skipped. All HTTP requests are paused for the time being."},
        {HttpRequestError::cancelled(), "Request was cancelled"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.error.description(), c.description);
        EXPECT_EQ(c.error.localizedDescription(), c.description);
    }
}

TEST(HttpRequestErrorTest, MapsTransportErrors) {
    using Kind = HttpRequestError::Kind;
    using Code = UrlError::Code;
    const struct {
        Code code;
        Kind kind;
    } cases[] = {
        {Code::notConnectedToInternet, Kind::noOrBadNetwork},
        {Code::networkConnectionLost, Kind::noOrBadNetwork},
        {Code::timedOut, Kind::noOrBadNetwork},
        {Code::cancelled, Kind::cancelled},
        {Code::badUrl, Kind::noRequestMade},
        {Code::cannotFindHost, Kind::noRequestMade},
        {Code::cannotConnect, Kind::noRequestMade},
        {Code::secureConnectionFailed, Kind::noRequestMade},
        {Code::tooManyRedirects, Kind::noRequestMade},
        {Code::responseTooLarge, Kind::noRequestMade},
        {Code::cannotWriteFile, Kind::noRequestMade},
        {Code::other, Kind::noRequestMade},
    };
    for (const auto& c : cases) {
        const UrlError underlying{c.code, "what went wrong"};
        const auto error = HttpRequestError::fromTransportError(underlying);
        EXPECT_EQ(error.kind(), c.kind) << static_cast<int>(c.code);
        if (c.kind == Kind::cancelled) {
            EXPECT_FALSE(error.underlyingError());
        } else {
            ASSERT_TRUE(error.underlyingError());
            EXPECT_EQ(error.underlyingError()->code, c.code);
        }
    }
}

TEST(ApiErrorMessageTest, ReadsTheApiErrorBodies) {
    const auto logger = std::make_shared<RecordingLogger>();
    const JsonAdapter jsonAdapter(logger);
    const struct {
        std::optional<Bytes> body;
        std::string message;
    } cases[] = {
        {std::nullopt, "(server did not give a response)"},
        {Bytes{}, "(server did not give a response)"},
        {Bytes{0xff, 0xfe, 0x7b}, "(server did not give a response)"},
        {toBytes(R"({"meta":{"error":"invalid id"}})"), "invalid id"},
        {toBytes(R"({"meta":{"errors":["a","b"]}})"), "a,b"},
        {toBytes(R"({"meta":{"errors":[]}})"), ""},
        // Both shapes at once: the single error wins.
        {toBytes(R"({"meta":{"error":"one","errors":["x"]}})"), "one"},
        {toBytes(R"({"meta":{"errors":["a",1]}})"), R"({"meta":{"errors":["a",1]}})"},
        {toBytes(R"({"meta":"nope"})"), R"({"meta":"nope"})"},
        {toBytes("{not json"), "{not json"},
        {toBytes("Service Unavailable"), "Service Unavailable"},
        {toBytes(std::string(2000, '[')), std::string(2000, '[')},
        // Far deeper than any JSON reader should follow.
        {toBytes(std::string(100000, '[') + std::string(100000, ']')),
         std::string(100000, '[') + std::string(100000, ']')},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(apiErrorMessage(c.body, jsonAdapter), c.message);
    }
    EXPECT_TRUE(logger->lines().empty()) << "decode failures must not be logged";
}

TEST(TernAPIHttpRetryPolicyTest, GivesTheFixedSequenceOnceForItsWholeLife) {
    TernAPIHttpRetryPolicy policy;
    std::vector<double> given;
    while (const auto next = policy.nextSleepTime()) {
        given.push_back(*next);
        ASSERT_LE(given.size(), 6u);
    }
    EXPECT_EQ(given, (std::vector<double>{0.1, 0.2, 0.4, 0.8, 1.6, 3.2}));
    EXPECT_FALSE(policy.nextSleepTime());
    EXPECT_EQ(TernAPIHttpRetryPolicy().nextSleepTime(), 0.1) << "a new policy starts afresh";
}

TEST(HttpRequestParamsTest, BuildsEndpointRequests) {
    const HttpBaseUrls base{"https://track.tern.dev/"};
    const struct {
        TernApiEndpoint endpoint;
        std::string method;
        std::string url;
    } cases[] = {
        {TernApiEndpoint::identifyCustomer("ann"), "PUT", "https://track.tern.dev/api/v1/customers/ann"},
        {TernApiEndpoint::registerDevice("ann"), "PUT", "https://track.tern.dev/api/v1/customers/ann/devices"},
        {TernApiEndpoint::deleteDevice("ann", "tok"), "DELETE",
         "https://track.tern.dev/api/v1/customers/ann/devices/tok"},
        {TernApiEndpoint::trackCustomerEvent("ann"), "POST", "https://track.tern.dev/api/v1/customers/ann/events"},
        {TernApiEndpoint::findAccountRegion(), "GET", "https://track.tern.dev/api/v1/accounts/region"},
        {TernApiEndpoint::pushMetrics(), "POST", "https://track.tern.dev/push/events"},
        {TernApiEndpoint::trackDeliveryMetrics(), "POST", "https://track.tern.dev/api/v1/tern_deliveries/events"},
    };
    for (const auto& c : cases) {
        const auto params = HttpRequestParams::make(c.endpoint, base, HttpRequestParams::Headers{{"A", "b"}},
                                                    toBytes("{}"));
        ASSERT_TRUE(params) << c.url;
        EXPECT_EQ(params->method, c.method);
        EXPECT_EQ(params->url.absoluteString(), c.url);
        EXPECT_EQ(params->headers, (HttpRequestParams::Headers{{"A", "b"}}));
        EXPECT_EQ(params->body, toBytes("{}"));
    }
    EXPECT_FALSE(HttpRequestParams::make(TernApiEndpoint::identifyCustomer("a b"), base, {}, {}));
    EXPECT_FALSE(HttpRequestParams::make(TernApiEndpoint::pushMetrics(), HttpBaseUrls{""}, {}, {}));
}

TEST(EmptyRequestBodyTest, EncodesAsAnEmptyObject) {
    const JsonAdapter jsonAdapter(std::make_shared<RecordingLogger>());
    EXPECT_EQ(jsonAdapter.toJsonString(EmptyRequestBody{}, false), "{}");
}

TEST(UrlRequestHttpRequestRunnerTest, AcceptsOnlyPlainFileNames) {
    const struct {
        std::string suggested;
        std::optional<std::string> kept;
    } cases[] = {
        {"image.png", "image.png"},
        {"with space.jpg", "with space.jpg"},
        {"..hidden", "..hidden"},
        {"", std::nullopt},
        {".", std::nullopt},
        {"..", std::nullopt},
        {"../x", std::nullopt},
        {"a/b", std::nullopt},
        {"/etc/passwd", std::nullopt},
        {"dir/", std::nullopt},
        {std::string("a\0b", 3), std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(UrlRequestHttpRequestRunner::safeFileName(c.suggested), c.kept) << c.suggested;
    }
}

}  // namespace
}  // namespace tern
