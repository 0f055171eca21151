#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Env.hpp"
#include "platform/linux/NetworkOptions.hpp"
#include "platform/linux/StateRoot.hpp"

namespace vontu::platform::linux_host {

// What a command-line host decides about the machine it plays.
struct HostSettings {
    // The state root; empty means: $VONTU_HOME, else $XDG_DATA_HOME/vontu, else
    // ~/.local/share/vontu.
    std::filesystem::path home;
    std::string bundleIdentifier = "ios.vontu";
    std::string bundleName = "Vontu";
    std::string bundleShortVersion = "1.0";
    std::string systemVersion = "17.0";
    AuthorizationStatus authorization = AuthorizationStatus::authorized;
    NetworkOptions network;
    // Deep-link handlers of the host app; unset handlers decline.
    std::function<bool(const std::string&)> openUrl;
    std::function<bool(const std::string&)> continueUserActivity;
};


// The Linux implementation of the platform: SQLite defaults, libcurl sessions, an asio main
// loop with a background pool, standard error as the system log, cairo drawing.
//
// The host creates one, installs it with Env::setCurrent, and runs runMainLoop() on its main
// thread. Destroying it stops the pool and the loop; sessions still alive are cancelled.
class LinuxEnv final : public Env {
public:
    explicit LinuxEnv(HostSettings settings);
    ~LinuxEnv() override;
    LinuxEnv(const LinuxEnv&) = delete;
    LinuxEnv& operator=(const LinuxEnv&) = delete;

    const HostSettings& settings() const { return settings_; }
    const std::filesystem::path& home() const { return home_; }

    // Runs main-thread jobs and timers on the calling thread (which becomes the main thread)
    // until stopMainLoop() is called from any thread, before or after the loop started. Runs
    // once per environment.
    void runMainLoop();
    void stopMainLoop();

    Date now() override;
    std::expected<Bytes, FileError> readFile(const std::filesystem::path& path) override;
    std::expected<void, FileError> writeFile(const std::filesystem::path& path,
                                             const Bytes& contents) override;
    std::expected<PinnedContents, FileError> readFileAndPin(
        const std::filesystem::path& path) override;
    std::optional<FileStamp> fileStamp(const std::filesystem::path& path) override;
    std::expected<std::shared_ptr<const FilePin>, FileError> rewriteFile(
        const std::filesystem::path& path, const Bytes& contents) override;
    std::expected<void, FileError> removeItem(const std::filesystem::path& path) override;
    std::expected<void, FileError> moveItem(const std::filesystem::path& from,
                                            const std::filesystem::path& to) override;
    std::expected<void, FileError> createDirectories(const std::filesystem::path& path) override;
    bool fileExists(const std::filesystem::path& path) override;
    std::unique_ptr<FileLock> newFileLock(const std::filesystem::path& path) override;
    std::optional<std::filesystem::path> appGroupContainer(const std::string& groupId) override;
    std::optional<std::filesystem::path> applicationSupportDirectory() override;
    std::optional<std::filesystem::path> temporaryDirectory() override;
    std::shared_ptr<DefaultsSuite> defaultsSuite(const std::string& name) override;
    bool isWellFormedUrl(const std::string& url) override;
    std::shared_ptr<UrlSession> newUrlSession(const UrlSessionConfiguration& config) override;
    std::shared_ptr<UrlSession> sharedUrlSession() override;
    void runOnMain(std::function<void()> block) override;
    void runInBackground(std::function<void()> block) override;
    bool isMainThread() override;
    std::shared_ptr<TimerHandle> scheduleOnMain(double seconds,
                                                std::function<void()> block) override;
    void writeLog(const std::string& subsystem, const std::string& category, LogType type,
                  const std::string& message) override;
    std::string systemName() override;
    std::string systemVersion() override;
    std::optional<std::string> machine() override;
    std::optional<std::string> bundleIdentifier() override;
    std::optional<std::string> bundleInfoValue(const std::string& key) override;
    std::vector<std::string> preferredLanguages() override;
    std::string currentLocaleIdentifier() override;
    void notificationAuthorizationStatus(
        std::function<void(AuthorizationStatus)> completion) override;
    bool openUrl(const std::string& url) override;
    bool continueUserActivity(const std::string& webpageUrl) override;
    std::unique_ptr<ImageCanvas> newImageCanvas(int width, int height) override;

private:
    // home/relative, made if missing.
    std::optional<std::filesystem::path> directoryUnderHome(const std::filesystem::path& relative);

    struct Loop;
    HostSettings settings_;
    std::filesystem::path home_;
    std::unique_ptr<Loop> loop_;
    std::mutex suitesMutex_;
    // Suites stay open for the life of the process: reopening a database costs more than
    // keeping its connection.
    std::map<std::string, std::shared_ptr<DefaultsSuite>> openSuites_;
    std::mutex sharedSessionMutex_;
    std::shared_ptr<UrlSession> sharedSession_;
};

}  // namespace vontu::platform::linux_host
