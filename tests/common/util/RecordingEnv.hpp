#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/EnvWrapper.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern::testing {

// The real Linux platform (fresh state root, running main loop) seen through a wrapper that
// records every system-log line and may replace the locale settings and the notification
// authorisation. Installed as the process's Env for the life of the object; the platform is
// a base class so that it exists before the wrapper refers to it.
struct RealHostEnv {
    vontu::testing::TestEnv host_;
};

class RecordingEnv : private RealHostEnv, public vontu::platform::EnvWrapper {
public:
    struct LogLine {
        std::string subsystem;
        std::string category;
        vontu::platform::LogType type;
        std::string message;
        bool operator==(const LogLine&) const = default;
    };

    RecordingEnv() : EnvWrapper(host_.env()) { vontu::platform::Env::setCurrent(this); }
    ~RecordingEnv() override { vontu::platform::Env::setCurrent(&host_.env()); }

    std::vector<LogLine> logLines() const {
        std::lock_guard lock(mutex_);
        return logLines_;
    }

    std::optional<std::vector<std::string>> preferredLanguagesOverride;
    std::optional<std::string> currentLocaleOverride;
    std::optional<vontu::platform::AuthorizationStatus> authorizationOverride;

    void writeLog(const std::string& subsystem, const std::string& category,
                  vontu::platform::LogType type, const std::string& message) override {
        {
            std::lock_guard lock(mutex_);
            logLines_.push_back({subsystem, category, type, message});
        }
        target().writeLog(subsystem, category, type, message);
    }
    std::vector<std::string> preferredLanguages() override {
        return preferredLanguagesOverride ? *preferredLanguagesOverride
                                          : target().preferredLanguages();
    }
    std::string currentLocaleIdentifier() override {
        return currentLocaleOverride ? *currentLocaleOverride : target().currentLocaleIdentifier();
    }
    void notificationAuthorizationStatus(
        std::function<void(vontu::platform::AuthorizationStatus)> completion) override {
        if (!authorizationOverride) {
            target().notificationAuthorizationStatus(std::move(completion));
            return;
        }
        // Answer from another thread, as the platform does.
        runInBackground([status = *authorizationOverride, completion = std::move(completion)] {
            completion(status);
        });
    }

private:
    mutable std::mutex mutex_;
    std::vector<LogLine> logLines_;
};

}  // namespace tern::testing
