#pragma once

#include <string>
#include <string_view>

#include "Common/config/SdkConfig.hpp"
#include "Common/util/Logger.hpp"
#include "Common/util/TernLogLevel.hpp"

namespace tern {

// The library's Logger: filters by sdkConfig.logLevel, tags each line with the site and writes
// it to the platform's unified log. Holds no mutable state, so any thread may use it.
class ConsoleLogger : public Logger {
public:
    static constexpr std::string_view logSubsystem = "dev.tern.sdk";
    static constexpr std::string_view logCategory = "TERN";

    ConsoleLogger(std::string siteId, SdkConfig sdkConfig);

    // The message as it is.
    void debug(const std::string& message) override;
    // "ℹ️ " + message.
    void info(const std::string& message) override;
    // "🛑 " + message.
    void error(const std::string& message) override;

    // Writes one finished line to the unified log, without filtering: error goes out as the
    // error type, debug as the debug type, info and none as the info type.
    static void logMessageToConsole(const std::string& message, TernLogLevel level);

    const std::string& siteId() const { return siteId_; }
    const SdkConfig& sdkConfig() const { return sdkConfig_; }

private:
    bool shouldLog(TernLogLevel messageLevel) const;
    // "(siteid:" + the first five characters of the site id + ") " + message.
    std::string tagged(const std::string& message) const;
    void logIfEnabled(TernLogLevel messageLevel, const std::string& message) const;

    const std::string siteId_;
    const SdkConfig sdkConfig_;
};

}  // namespace tern
