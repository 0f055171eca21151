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

TEST(TernApiEndpointTest, IdentifiersAreInsertedUnescaped) {
    HttpBaseUrls base{"https://track.example"};
    auto endpoint = TernApiEndpoint::deleteDevice("jane doe", "tok");
    EXPECT_EQ(endpoint.getUrlString(base), "https://track.example/api/v1/customers/jane doe/devices/tok");
    EXPECT_EQ(endpoint.getUrl(base), std::nullopt);
    auto url = TernApiEndpoint::identifyCustomer("jane%40example.com").getUrl(base);
    ASSERT_TRUE(url.has_value());
    EXPECT_EQ(url->absoluteString(), "https://track.example/api/v1/customers/jane%40example.com");
}

}  // namespace
}  // namespace tern
