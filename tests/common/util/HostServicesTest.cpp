// The library's views of the host, on the real platform seen through RecordingEnv.

#include <sys/utsname.h>

#include <chrono>
#include <future>

#include <gtest/gtest.h>

#include "Common/util/ConsoleLogger.hpp"
#include "Common/util/SdkNotInitializedAlert.hpp"
#include "Common/util/TernDeviceInfo.hpp"
#include "Common/util/UserAgentUtilImpl.hpp"
#include "tests/common/util/RecordingEnv.hpp"

namespace tern {
namespace {

using testing::RecordingEnv;
using vontu::platform::AuthorizationStatus;
using vontu::platform::LogType;

RecordingEnv::LogLine ternLine(LogType type, std::string message) {
    return {"dev.tern.sdk", "TERN", type, std::move(message)};
}

// The lines a logger of this level and site writes for one message of each level.
std::vector<RecordingEnv::LogLine> linesAtLevel(TernLogLevel level, const std::string& siteId) {
    RecordingEnv env;
    SdkConfig config;
    config.logLevel = level;
    ConsoleLogger logger(siteId, config);
    logger.debug("d");
    logger.info("i");
    logger.error("e");
    return env.logLines();
}

TEST(ConsoleLoggerTest, EachLevelWritesItsMessagesAndThoseBeforeIt) {
    const auto error = ternLine(LogType::error, "(siteid:abcde) \U0001F6D1 e");
    const auto info = ternLine(LogType::info, "(siteid:abcde) \u2139\uFE0F i");
    const auto debug = ternLine(LogType::debug, "(siteid:abcde) d");
    EXPECT_EQ(linesAtLevel(TernLogLevel::none, "abcdefghij"), std::vector<RecordingEnv::LogLine>{});
    EXPECT_EQ(linesAtLevel(TernLogLevel::error, "abcdefghij"), std::vector{error});
    EXPECT_EQ(linesAtLevel(TernLogLevel::info, "abcdefghij"), (std::vector{info, error}));
    EXPECT_EQ(linesAtLevel(TernLogLevel::debug, "abcdefghij"), (std::vector{debug, info, error}));
    // The site tag holds at most five characters, not bytes.
    EXPECT_EQ(linesAtLevel(TernLogLevel::debug, "\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9").at(0).message,
              "(siteid:\u00e9\u00e9\u00e9\u00e9\u00e9) d");
}

TEST(ConsoleLoggerTest, AlertsAndConsoleMessagesBypassTheLevelAndTag) {
    RecordingEnv env;
    sdkNotInitializedAlert("SDK has not been initialized yet.");
    for (auto level : ternLogLevelAllCases) ConsoleLogger::logMessageToConsole("m", level);
    EXPECT_EQ(env.logLines(),
              (std::vector{ternLine(LogType::error, "\u26A0\uFE0F SDK has not been initialized yet."),
                           ternLine(LogType::info, "m"), ternLine(LogType::error, "m"),
                           ternLine(LogType::info, "m"), ternLine(LogType::debug, "m")}));
}

TEST(TernDeviceInfoTest, DeviceLocaleFromPreferredLanguageElseCurrentLocale) {
    const struct { std::vector<std::string> preferred; std::string current, expected; } cases[] = {
        {{"en-GB", "de-DE"}, "fr_FR", "en-GB"},
        {{"en"}, "de_DE", "de-DE"},  // a language without a region
        {{"zh-Hans-CN"}, "en_US", "zh-CN"},
        {{"en-US@calendar=gregorian"}, "de_DE", "en-US"},
    };
    for (const auto& [preferred, current, expected] : cases) {
        RecordingEnv env;
        env.preferredLanguagesOverride = preferred;
        env.currentLocaleOverride = current;
        EXPECT_EQ(TernDeviceInfo().deviceLocale(), expected) << current;
    }
}

TEST(TernDeviceInfoTest, OnlyFullAuthorisationCountsAsSubscribed) {
    using enum AuthorizationStatus;
    for (auto status : {notDetermined, denied, authorized, provisional, ephemeral}) {
        RecordingEnv env;
        env.authorizationOverride = status;
        std::promise<bool> answer;
        TernDeviceInfo().isPushSubscribed([&answer](bool subscribed) { answer.set_value(subscribed); });
        auto future = answer.get_future();
        ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(future.get(), status == authorized) << static_cast<int>(status);
    }
}

// The host's device, with a model that may be unknown.
struct HostDevice final : TernDeviceInfo {
    bool modelKnown = true;
    std::optional<std::string> deviceModel() const override {
        return modelKnown ? TernDeviceInfo::deviceModel() : std::nullopt;
    }
};

TEST(UserAgentUtilTest, NamesTheWrapperAndTheHostDeviceWhenKnown) {
    RecordingEnv env;
    struct utsname names {};
    ASSERT_EQ(::uname(&names), 0);
    const std::string device = std::string(" (") + names.machine + "; iOS 17.0) ios.vontu/1.0";
    using enum SdkWrapperConfig::Source;
    const struct { std::optional<SdkWrapperConfig> wrapper; bool modelKnown; std::string expected; }
        cases[] = {
            {std::nullopt, true, "Tern iOS Client/2.1.2" + device},
            {SdkWrapperConfig{reactNative, "3.0.1"}, true, "Tern ReactNative Client/3.0.1" + device},
            {SdkWrapperConfig{flutter, "2"}, false, "Tern Flutter Client/2"},  // no device part
        };
    for (const auto& [wrapper, modelKnown, expected] : cases) {
        auto host = std::make_shared<HostDevice>();
        host->modelKnown = modelKnown;
        SdkConfig config;
        config._sdkWrapperConfig = wrapper;
        EXPECT_EQ(UserAgentUtilImpl(host, config).getUserAgentHeaderValue(), expected);
    }
}

}  // namespace
}  // namespace tern
