#include "Common/config/TernApiEndpoint.hpp"

#include <gtest/gtest.h>

namespace tern {
namespace {

// Paths of the calls that the tracking tests make are checked there, against a server.
TEST(TernApiEndpointTest, MethodsAndPaths) {
    struct Case {
        TernApiEndpoint endpoint;
        std::string_view method;
        std::string path;
    };
    const Case cases[] = {
        {TernApiEndpoint::deleteDevice("abc", "tok"), "DELETE", "/api/v1/customers/abc/devices/tok"},
        {TernApiEndpoint::findAccountRegion(), "GET", "/api/v1/accounts/region"},
        {TernApiEndpoint::pushMetrics(), "POST", "/push/events"},
        {TernApiEndpoint::trackDeliveryMetrics(), "POST", "/api/v1/tern_deliveries/events"},
    };
    for (const auto& [endpoint, method, path] : cases) {
        EXPECT_EQ(endpoint.method(), method) << endpoint.description();
        EXPECT_EQ(endpoint.path(), path) << endpoint.description();
    }
}

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
    EXPECT_EQ(TernApiEndpoint::findAccountRegion().getUrl(HttpBaseUrls{""}), std::nullopt);
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
