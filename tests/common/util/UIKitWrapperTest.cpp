#include "Common/util/UIKitWrapperImpl.hpp"

#include <gtest/gtest.h>

#include "tests/common/util/RecordingEnv.hpp"

namespace tern {
namespace {

Url url(const std::string& text) {
    auto parsed = Url::parse(text);
    EXPECT_TRUE(parsed.has_value()) << text;
    return *parsed;
}

TEST(UIKitWrapperTest, onlyWebUrlsAreOfferedToTheApp) {
    struct Case {
        std::string text;
        bool appTakesIt;
        bool expected;
        int expectedCalls;
    };
    const Case cases[] = {
        {"mailto:someone@example.com", true, false, 0},
        {"vontu://open", true, false, 0},
        {"relative/path", true, false, 0},
        {"https://links.example/x", true, true, 1},
        {"http://links.example/x", false, false, 1},
    };
    for (const auto& [text, appTakesIt, expected, expectedCalls] : cases) {
        testing::RecordingEnv env;
        env.appTakesUserActivity = appTakesIt;
        UIKitWrapperImpl wrapper;
        EXPECT_EQ(wrapper.continueNSUserActivity(url(text)), expected) << text;
        EXPECT_EQ(env.continueUserActivityCalls.load(), expectedCalls) << text;
    }
}

TEST(UIKitWrapperTest, openHandsTheUrlToTheSystem) {
    testing::RecordingEnv env;
    UIKitWrapperImpl().open(url("vontu://mail/42"));
    EXPECT_EQ(env.openedUrls, std::vector<std::string>{"vontu://mail/42"});
}

}  // namespace
}  // namespace tern
