#include "Common/util/ConsoleLogger.hpp"

#include <gtest/gtest.h>

#include "Common/util/SdkNotInitializedAlert.hpp"
#include "tests/common/util/RecordingEnv.hpp"

namespace tern {
namespace {

using testing::RecordingEnv;
using vontu::platform::LogType;

SdkConfig configWithLevel(TernLogLevel level) {
    SdkConfig config;
    config.logLevel = level;
    return config;
}

RecordingEnv::LogLine ternLine(LogType type, std::string message) {
    return {"dev.tern.sdk", "TERN", type, std::move(message)};
}

TEST(TernLogLevelTest, rawValuesAndOrder) {
    std::vector<std::string_view> names;
    for (auto level : ternLogLevelAllCases) names.push_back(rawValue(level));
    EXPECT_EQ(names, (std::vector<std::string_view>{"none", "error", "info", "debug"}));
    EXPECT_EQ(fromRawValue<TernLogLevel>("debug"), TernLogLevel::debug);
    EXPECT_EQ(fromRawValue<TernLogLevel>("Debug"), std::nullopt);
    EXPECT_EQ(fromRawValue<TernLogLevel>(""), std::nullopt);
}

TEST(ConsoleLoggerTest, eachLevelWritesItsMessagesAndThoseBeforeIt) {
    struct Case {
        TernLogLevel configured;
        std::vector<RecordingEnv::LogLine> expected;
    };
    const auto errorLine = ternLine(LogType::error, "(siteid:abcde) \U0001F6D1 e");
    const auto infoLine = ternLine(LogType::info, "(siteid:abcde) \u2139\uFE0F i");
    const auto debugLine = ternLine(LogType::debug, "(siteid:abcde) d");
    const Case cases[] = {
        {TernLogLevel::none, {}},
        {TernLogLevel::error, {errorLine}},
        {TernLogLevel::info, {infoLine, errorLine}},
        {TernLogLevel::debug, {debugLine, infoLine, errorLine}},
    };
    for (const auto& [configured, expected] : cases) {
        RecordingEnv env;
        ConsoleLogger logger("abcdefghij", configWithLevel(configured));
        logger.debug("d");
        logger.info("i");
        logger.error("e");
        EXPECT_EQ(env.logLines(), expected) << "level " << rawValue(configured);
    }
}

TEST(ConsoleLoggerTest, siteTagHoldsAtMostFiveCharacters) {
    struct Case {
        std::string siteId;
        std::string expected;
    };
    const Case cases[] = {
        {"abcdefghij", "(siteid:abcde) x"},
        {"abcde", "(siteid:abcde) x"},
        {"ab", "(siteid:ab) x"},
        {"", "(siteid:) x"},
        {"\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9", "(siteid:\u00e9\u00e9\u00e9\u00e9\u00e9) x"},
    };
    for (const auto& [siteId, expected] : cases) {
        RecordingEnv env;
        ConsoleLogger("" + siteId, configWithLevel(TernLogLevel::debug)).debug("x");
        ASSERT_EQ(env.logLines().size(), 1u);
        EXPECT_EQ(env.logLines()[0].message, expected);
    }
}

TEST(ConsoleLoggerTest, notInitializedAlertIsWrittenWithoutFilterOrTag) {
    RecordingEnv env;
    ConsoleLogger silent("abcdefghij", configWithLevel(TernLogLevel::none));
    silent.error("not written");
    sdkNotInitializedAlert(
        "SDK has not been initialized yet. Check the docs about initializing the SDK.");
    EXPECT_EQ(env.logLines(),
              std::vector{ternLine(LogType::error,
                                   "\u26A0\uFE0F SDK has not been initialized yet. Check the docs "
                                   "about initializing the SDK.")});
}

TEST(ConsoleLoggerTest, logMessageToConsoleMapsLevelsToLogTypes) {
    RecordingEnv env;
    for (auto level : ternLogLevelAllCases) ConsoleLogger::logMessageToConsole("m", level);
    std::vector<LogType> types;
    for (const auto& line : env.logLines()) types.push_back(line.type);
    EXPECT_EQ(types,
              (std::vector{LogType::info, LogType::error, LogType::info, LogType::debug}));
}

TEST(ConsoleLoggerTest, linesReachStandardErrorWithSubsystemCategoryAndType) {
    RecordingEnv env;
    ::testing::internal::CaptureStderr();
    ConsoleLogger("abcdefghij", configWithLevel(TernLogLevel::info)).error("boom\nsecond line");
    std::string written = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(written.ends_with(
        " dev.tern.sdk[TERN] error: (siteid:abcde) \U0001F6D1 boom\nsecond line\n"))
        << written;
}

}  // namespace
}  // namespace tern
