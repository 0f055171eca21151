// The library's views of the host: its console, the device and app and the user agent, on the
// real platform seen through RecordingEnv. (How the platform writes log lines, and how links
// reach the app, are checked with the platform and with notification responses.)

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
    const std::pair<TernLogLevel, std::vector<RecordingEnv::LogLine>> cases[] = {
        {TernLogLevel::none, {}},
        {TernLogLevel::error, {error}},
        {TernLogLevel::info, {info, error}},
        {TernLogLevel::debug, {debug, info, error}},
    };
    for (const auto& [level, expected] : cases) {
        EXPECT_EQ(linesAtLevel(level, "abcdefghij"), expected) << rawValue(level);
    }
}

TEST(ConsoleLoggerTest, SiteTagHoldsAtMostFiveCharacters) {
    const std::pair<std::string, std::string> cases[] = {
        {"abcde", "(siteid:abcde) d"},
        {"ab", "(siteid:ab) d"},
        {"", "(siteid:) d"},
        {"\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9", "(siteid:\u00e9\u00e9\u00e9\u00e9\u00e9) d"},
    };
    for (const auto& [siteId, expected] : cases) {
        EXPECT_EQ(linesAtLevel(TernLogLevel::debug, siteId).at(0).message, expected) << siteId;
    }
}

TEST(ConsoleLoggerTest, AlertsAndConsoleMessagesBypassTheLevelAndTag) {
    RecordingEnv env;
    SdkConfig silent;
    silent.logLevel = TernLogLevel::none;
    ConsoleLogger("abcdefghij", silent).error("not written");
    sdkNotInitializedAlert("SDK has not been initialized yet.");
    for (auto level : ternLogLevelAllCases) ConsoleLogger::logMessageToConsole("m", level);
    EXPECT_EQ(env.logLines(),
              (std::vector{ternLine(LogType::error, "\u26A0\uFE0F SDK has not been initialized yet."),
                           ternLine(LogType::info, "m"), ternLine(LogType::error, "m"),
                           ternLine(LogType::info, "m"), ternLine(LogType::debug, "m")}));
}

TEST(TernDeviceInfoTest, DeviceLocaleFromPreferredLanguageElseCurrentLocale) {
    struct Case {
        std::vector<std::string> preferred;
        std::string current;
        std::string expected;
    };
    const Case cases[] = {
        {{"en-GB", "de-DE"}, "fr_FR", "en-GB"},
        {{}, "de_DE", "de-DE"},
        {{"en"}, "de_DE", "de-DE"},
        {{"zh-Hans-CN"}, "en_US", "zh-CN"},
        {{"es-419"}, "en_US", "es-419"},
        {{"pt_BR"}, "en_US", "pt-BR"},
        {{"en-US@calendar=gregorian"}, "de_DE", "en-US"},
        {{""}, "en_US_POSIX", "en-US-POSIX"},
    };
    for (const auto& [preferred, current, expected] : cases) {
        RecordingEnv env;
        env.preferredLanguagesOverride = preferred;
        env.currentLocaleOverride = current;
        EXPECT_EQ(TernDeviceInfo().deviceLocale(), expected)
            << (preferred.empty() ? "(none)" : preferred.front()) << " / " << current;
    }
}

TEST(TernDeviceInfoTest, OnlyFullAuthorisationCountsAsSubscribed) {
    for (auto status : {AuthorizationStatus::notDetermined, AuthorizationStatus::denied,
                        AuthorizationStatus::authorized, AuthorizationStatus::provisional,
                        AuthorizationStatus::ephemeral}) {
        RecordingEnv env;
        env.authorizationOverride = status;
        std::promise<bool> answer;
        auto future = answer.get_future();
        TernDeviceInfo().isPushSubscribed([&answer](bool subscribed) { answer.set_value(subscribed); });
        ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(future.get(), status == AuthorizationStatus::authorized) << static_cast<int>(status);
    }
}

// The host's device, with a model or system name that may be unknown.
class HostDevice final : public TernDeviceInfo {
public:
    bool modelKnown = true;
    bool osNameKnown = true;
    std::optional<std::string> deviceModel() const override {
        return modelKnown ? TernDeviceInfo::deviceModel() : std::nullopt;
    }
    std::optional<std::string> osName() const override {
        return osNameKnown ? TernDeviceInfo::osName() : std::nullopt;
    }
};

TEST(UserAgentUtilTest, NamesTheWrapperAndTheHostDeviceWhenKnown) {
    using Source = SdkWrapperConfig::Source;
    RecordingEnv env;
    struct utsname names {};
    ASSERT_EQ(::uname(&names), 0);
    const std::string device = std::string(" (") + names.machine + "; iOS 17.0) ios.vontu/1.0";
    struct Case {
        std::optional<SdkWrapperConfig> wrapper;
        bool osNameKnown;
        bool modelKnown;
        std::string expected;
    };
    const Case cases[] = {
        {std::nullopt, true, true, "Tern iOS Client/2.1.2" + device},
        {SdkWrapperConfig{Source::reactNative, "3.0.1"}, true, true, "Tern ReactNative Client/3.0.1" + device},
        {SdkWrapperConfig{Source::expo, "1"}, true, true, "Tern Expo Client/1" + device},
        {SdkWrapperConfig{Source::flutter, "2"}, false, true, "Tern Flutter Client/2"},
        {std::nullopt, true, false, "Tern iOS Client/2.1.2"},
    };
    for (const auto& [wrapper, osNameKnown, modelKnown, expected] : cases) {
        auto host = std::make_shared<HostDevice>();
        host->osNameKnown = osNameKnown;
        host->modelKnown = modelKnown;
        SdkConfig config;
        config._sdkWrapperConfig = wrapper;
        EXPECT_EQ(UserAgentUtilImpl(host, config).getUserAgentHeaderValue(), expected);
    }
    TernDeviceInfo info;
    info.setDeviceManufacturer("Other");
    EXPECT_EQ(info.deviceManufacturer(), "Other");
}

}  // namespace
}  // namespace tern
