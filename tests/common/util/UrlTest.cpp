#include "Common/util/Url.hpp"

#include <gtest/gtest.h>

namespace tern {
namespace {

TEST(UrlTest, parsesWhatFoundationParses) {
    struct Case {
        std::string text;
        std::optional<std::string> scheme;
        std::optional<std::string> host;
        std::string path;
    };
    const Case cases[] = {
        {"https://track.example", "https", "track.example", ""},
        {"https://Track.Example:8443/a/b%20c?x=1#top", "https", "Track.Example", "/a/b c"},
        {"http://user:pw@127.0.0.1:8080/p", "http", "127.0.0.1", "/p"},
        {"http://[::1]:8080/", "http", "[::1]", "/"},
        {"mailto:someone@example.com", "mailto", std::nullopt, "someone@example.com"},
        {"vontu://open/mail/1", "vontu", "open", "/mail/1"},
        {"relative/path", std::nullopt, std::nullopt, "relative/path"},
    };
    for (const auto& [text, scheme, host, path] : cases) {
        auto url = Url::parse(text);
        ASSERT_TRUE(url.has_value()) << text;
        EXPECT_EQ(url->absoluteString(), text);
        EXPECT_EQ(url->scheme(), scheme) << text;
        EXPECT_EQ(url->host(), host) << text;
        EXPECT_EQ(url->path(), path) << text;
    }
}

TEST(UrlTest, rejectsWhatFoundationRejects) {
    const std::string cases[] = {
        "",
        "https://track.example/a b",
        "https://track.example/a\tb",
        "https://track.example/\x7f",
        "https://track.example/caf\xc3\xa9",
        "https://track.example/a\"b",
        "https://track.example/{id}",
        "https://track.example/%zz",
        "https://track.example/%4",
        "https://exa mple.com/",
        "http://host:port/",
    };
    for (const auto& text : cases) {
        EXPECT_EQ(Url::parse(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace tern
