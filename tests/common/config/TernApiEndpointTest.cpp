#include "Common/config/TernApiEndpoint.hpp"

#include <gtest/gtest.h>

namespace tern {
namespace {

TEST(TernApiEndpointTest, UrlsJoinTheBaseWithoutOneTrailingSlash) {
    const std::pair<std::string, std::string> cases[] = {
        {"https://track.example", "https://track.example/push/events"},
        {"https://track.example/", "https://track.example/push/events"},
        {"https://track.example//", "https://track.example//push/events"},
        {"http://127.0.0.1:8080/prefix", "http://127.0.0.1:8080/prefix/push/events"},
        {"", ""},
    };
    for (const auto& [base, expected] : cases) {
        EXPECT_EQ(TernApiEndpoint::pushMetrics().getUrlString(HttpBaseUrls{base}), expected) << base;
    }
    // The one endpoint no call of the library sends; the others' methods and paths are checked
    // against a server by the queue-run, tracking and host tests.
    const auto region = TernApiEndpoint::findAccountRegion();
    EXPECT_EQ(region.getUrl(HttpBaseUrls{""}), std::nullopt);
    EXPECT_EQ(region.method(), "GET");
    EXPECT_EQ(region.getUrlString(HttpBaseUrls{"https://track.example"}), "https://track.example/api/v1/accounts/region");
}

// Whatever a profile or a token is called, its requests name that profile's resources and no
// other path: each value is exactly one segment, taken literally.
TEST(TernApiEndpointTest, IdentifiersAndTokensAreOneLiteralPathSegment) {
    const HttpBaseUrls base{"https://track.example"};
    const std::pair<std::string, std::string> cases[] = {
        {"alice", "alice"},
        {"alice@example.com", "alice@example.com"},
        {"user#1", "user%231"},
        {"what?x=1", "what%3Fx=1"},
        {"a/b", "a%2Fb"},
        {"..", "%2E%2E"},
        {".", "%2E"},
        {"...", "..."},
        {"x y", "x%20y"},
        {"Jos\xC3\xA9", "Jos%C3%A9"},
        {"jane%40example.com", "jane%2540example.com"},
    };
    for (const auto& [identifier, segment] : cases) {
        const auto identify = TernApiEndpoint::identifyCustomer(identifier).getUrl(base);
        ASSERT_TRUE(identify.has_value()) << identifier;
        EXPECT_EQ(identify->absoluteString(), "https://track.example/api/v1/customers/" + segment);
        const auto remove = TernApiEndpoint::deleteDevice("p", identifier).getUrl(base);
        ASSERT_TRUE(remove.has_value()) << identifier;
        EXPECT_EQ(remove->absoluteString(),
                  "https://track.example/api/v1/customers/p/devices/" + segment);
    }
    EXPECT_EQ(TernApiEndpoint::trackCustomerEvent("a/b").path(), "/api/v1/customers/a%2Fb/events");
}

}  // namespace
}  // namespace tern
