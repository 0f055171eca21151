#include "Common/util/ConsoleLogger.hpp"

#include "platform/Env.hpp"

namespace tern {

namespace {

using vontu::platform::LogType;

LogType logTypeFor(TernLogLevel level) {
    switch (level) {
        case TernLogLevel::error: return LogType::error;
        case TernLogLevel::debug: return LogType::debug;
        case TernLogLevel::info:
        case TernLogLevel::none: return LogType::info;
    }
    return LogType::info;
}

// Characters, not bytes: a site id is ASCII in practice, but cutting inside a multi-byte
// character would put broken text into the log.
std::string firstCharacters(const std::string& text, std::size_t count) {
    std::size_t end = 0;
    for (std::size_t taken = 0; taken < count && end < text.size(); ++taken) {
        ++end;
        while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
            ++end;
        }
    }
    return text.substr(0, end);
}

}  // namespace

ConsoleLogger::ConsoleLogger(std::string siteId, SdkConfig sdkConfig)
    : siteId_(std::move(siteId)), sdkConfig_(std::move(sdkConfig)) {}

void ConsoleLogger::debug(const std::string& message) {
    logIfEnabled(TernLogLevel::debug, message);
}

void ConsoleLogger::info(const std::string& message) {
    logIfEnabled(TernLogLevel::info, "\u2139\uFE0F " + message);
}

void ConsoleLogger::error(const std::string& message) {
    logIfEnabled(TernLogLevel::error, "\U0001F6D1 " + message);
}

void ConsoleLogger::logMessageToConsole(const std::string& message, TernLogLevel level) {
    vontu::platform::Env::current().writeLog(std::string(logSubsystem), std::string(logCategory),
                                             logTypeFor(level), message);
}

// The configured level lets through its own messages and those of the levels before it.
bool ConsoleLogger::shouldLog(TernLogLevel messageLevel) const {
    if (sdkConfig_.logLevel == TernLogLevel::none || messageLevel == TernLogLevel::none) {
        return false;
    }
    return static_cast<int>(messageLevel) <= static_cast<int>(sdkConfig_.logLevel);
}

std::string ConsoleLogger::tagged(const std::string& message) const {
    return "(siteid:" + firstCharacters(siteId_, 5) + ") " + message;
}

void ConsoleLogger::logIfEnabled(TernLogLevel messageLevel, const std::string& message) const {
    if (shouldLog(messageLevel)) logMessageToConsole(tagged(message), messageLevel);
}

}  // namespace tern
