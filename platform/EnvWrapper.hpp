#pragma once

#include "platform/Env.hpp"

namespace vontu::platform {

// Forwards every call to another Env; a test derives from it and overrides what it replaces.
class EnvWrapper : public Env {
public:
    explicit EnvWrapper(Env& target) : target_(target) {}
    Env& target() { return target_; }

    Date now() override { return target_.now(); }
    std::expected<Bytes, FileError> readFile(const std::filesystem::path& p) override {
        return target_.readFile(p);
    }
    std::expected<void, FileError> writeFile(const std::filesystem::path& p,
                                             const Bytes& c) override {
        return target_.writeFile(p, c);
    }
    std::expected<PinnedContents, FileError> readFileAndPin(
        const std::filesystem::path& p) override {
        return target_.readFileAndPin(p);
    }
    std::optional<FileStamp> fileStamp(const std::filesystem::path& p) override {
        return target_.fileStamp(p);
    }
    std::expected<std::shared_ptr<const FilePin>, FileError> rewriteFile(
        const std::filesystem::path& p, const Bytes& c) override {
        return target_.rewriteFile(p, c);
    }
    std::expected<void, FileError> removeItem(const std::filesystem::path& p) override {
        return target_.removeItem(p);
    }
    std::expected<void, FileError> moveItem(const std::filesystem::path& f,
                                            const std::filesystem::path& t) override {
        return target_.moveItem(f, t);
    }
    std::expected<void, FileError> createDirectories(const std::filesystem::path& p) override {
        return target_.createDirectories(p);
    }
    bool fileExists(const std::filesystem::path& p) override { return target_.fileExists(p); }
    std::unique_ptr<FileLock> newFileLock(const std::filesystem::path& p) override {
        return target_.newFileLock(p);
    }
    std::optional<std::filesystem::path> appGroupContainer(const std::string& g) override {
        return target_.appGroupContainer(g);
    }
    std::optional<std::filesystem::path> applicationSupportDirectory() override {
        return target_.applicationSupportDirectory();
    }
    std::optional<std::filesystem::path> temporaryDirectory() override {
        return target_.temporaryDirectory();
    }
    std::shared_ptr<DefaultsSuite> defaultsSuite(const std::string& n) override {
        return target_.defaultsSuite(n);
    }
    bool isWellFormedUrl(const std::string& u) override { return target_.isWellFormedUrl(u); }
    std::shared_ptr<UrlSession> newUrlSession(const UrlSessionConfiguration& c) override {
        return target_.newUrlSession(c);
    }
    std::shared_ptr<UrlSession> sharedUrlSession() override { return target_.sharedUrlSession(); }
    void runOnMain(std::function<void()> b) override { target_.runOnMain(std::move(b)); }
    void runInBackground(std::function<void()> b) override {
        target_.runInBackground(std::move(b));
    }
    bool isMainThread() override { return target_.isMainThread(); }
    std::shared_ptr<TimerHandle> scheduleOnMain(double s, std::function<void()> b) override {
        return target_.scheduleOnMain(s, std::move(b));
    }
    void writeLog(const std::string& s, const std::string& c, LogType t,
                  const std::string& m) override {
        target_.writeLog(s, c, t, m);
    }
    std::string systemName() override { return target_.systemName(); }
    std::string systemVersion() override { return target_.systemVersion(); }
    std::optional<std::string> machine() override { return target_.machine(); }
    std::optional<std::string> bundleIdentifier() override { return target_.bundleIdentifier(); }
    std::optional<std::string> bundleInfoValue(const std::string& k) override {
        return target_.bundleInfoValue(k);
    }
    std::vector<std::string> preferredLanguages() override {
        return target_.preferredLanguages();
    }
    std::string currentLocaleIdentifier() override { return target_.currentLocaleIdentifier(); }
    void notificationAuthorizationStatus(std::function<void(AuthorizationStatus)> c) override {
        target_.notificationAuthorizationStatus(std::move(c));
    }
    bool openUrl(const std::string& u) override { return target_.openUrl(u); }
    bool continueUserActivity(const std::string& u) override {
        return target_.continueUserActivity(u);
    }
    std::unique_ptr<ImageCanvas> newImageCanvas(int w, int h) override {
        return target_.newImageCanvas(w, h);
    }

private:
    Env& target_;
};

}  // namespace vontu::platform
