#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "Common/http/ApiErrorMessage.hpp"
#include "Common/http/HttpRequestError.hpp"
#include "Common/http/UrlRequestHttpRequestRunner.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "tests/common/RecordingLogger.hpp"

namespace tern {
namespace {

using vontu::platform::Bytes;
using vontu::platform::toBytes;
using vontu::platform::UrlError;

// cannotConnect and responseTooLarge are reached through the client in TernHttpClientTest.
TEST(HttpRequestErrorTest, MapsTransportErrors) {
    using Kind = HttpRequestError::Kind;
    using Code = UrlError::Code;
    const std::pair<Code, Kind> cases[] = {
        {Code::notConnectedToInternet, Kind::noOrBadNetwork}, {Code::networkConnectionLost, Kind::noOrBadNetwork},
        {Code::timedOut, Kind::noOrBadNetwork},               {Code::cancelled, Kind::cancelled},
        {Code::badUrl, Kind::noRequestMade},                  {Code::cannotFindHost, Kind::noRequestMade},
        {Code::secureConnectionFailed, Kind::noRequestMade},  {Code::other, Kind::noRequestMade},
    };
    for (const auto& [code, kind] : cases) {
        const auto error = HttpRequestError::fromTransportError(UrlError{code, "what went wrong"});
        EXPECT_EQ(error.kind(), kind) << static_cast<int>(code);
        // A cancellation carries no underlying error.
        EXPECT_EQ(error.underlyingError().transform([](const UrlError& e) { return e.code; }),
                  kind == Kind::cancelled ? std::nullopt : std::optional(code));
    }
}

// The common bodies (either error shape, plain text, bytes that are not text) are read through
// the client in TernHttpClientTest; these are the edges.
TEST(ApiErrorMessageTest, ReadsTheApiErrorBodies) {
    const auto logger = std::make_shared<testing::RecordingLogger>();
    const JsonAdapter jsonAdapter(logger);
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    const struct {
        std::optional<Bytes> body;
        std::string message;
    } cases[] = {
        {std::nullopt, "(server did not give a response)"},
        {toBytes(R"({"meta":{"errors":[]}})"), ""},
        // Both shapes at once: the single error wins.
        {toBytes(R"({"meta":{"error":"one","errors":["x"]}})"), "one"},
        {toBytes(R"({"meta":{"errors":["a",1]}})"), R"({"meta":{"errors":["a",1]}})"},
        {toBytes("{not json"), "{not json"},
        // Far deeper than any JSON reader should follow.
        {toBytes(deep), deep},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(apiErrorMessage(c.body, jsonAdapter), c.message);
    }
    EXPECT_TRUE(logger->lines().empty()) << "decode failures must not be logged";
}

TEST(UrlRequestHttpRequestRunnerTest, AcceptsOnlyPlainFileNames) {
    for (const std::string kept : {"image.png", "with space.jpg", "..hidden"}) {
        EXPECT_EQ(UrlRequestHttpRequestRunner::safeFileName(kept), kept);
    }
    for (const std::string refused : {"", ".", "..", "../x", "a/b", "/etc/passwd", "dir/"}) {
        EXPECT_EQ(UrlRequestHttpRequestRunner::safeFileName(refused), std::nullopt) << refused;
    }
    EXPECT_EQ(UrlRequestHttpRequestRunner::safeFileName(std::string("a\0b", 3)), std::nullopt);
}

}  // namespace
}  // namespace tern
