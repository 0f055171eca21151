#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/AutoMockable.hpp"
#include "platform/Bytes.hpp"
#include "platform/Date.hpp"
#include "platform/DefaultsSuite.hpp"
#include "platform/FileError.hpp"
#include "platform/FileLock.hpp"
#include "platform/FileStamp.hpp"
#include "platform/ImageCanvas.hpp"
#include "platform/SystemLog.hpp"
#include "platform/UrlSession.hpp"

namespace vontu::platform {

// The pending run of a one-shot timer.
class TimerHandle : public AutoMockable {
public:
    // Stops the timer if it has not fired; its callback then never runs. Safe from any thread.
    virtual void invalidate() = 0;
};

// Notification authorisation, with the system's raw values.
enum class AuthorizationStatus { notDetermined = 0, denied = 1, authorized = 2, provisional = 3,
                                 ephemeral = 4 };

// The operating system as the extension and the library see it: the one seam between this
// system's code and the machine. Every call may come from any thread unless it says otherwise,
// and no call throws: failures come back as values.
//
// Code reaches the process's Env through Env::current(). A host installs its implementation at
// start; a test wraps it in an EnvWrapper (platform/EnvWrapper.hpp) and overrides the one call
// it wants to change.
class Env : public AutoMockable {
public:
    static Env& current();
    // The installed Env, or null before a host installed one.
    static Env* installed();
    // Installs env as the process's Env (not owned; it must outlive every user).
    static void setCurrent(Env* env);

    // --- Clock
    virtual Date now() = 0;

    // --- Files. Paths are absolute; created files are 0600 and directories 0700.
    //
    // Durability: a write, rewrite, move or removal that has returned success survives the
    // process being killed at any moment after it. A power cut may undo the changes of the last
    // few seconds (nothing is flushed to the device on each call), but never leaves a file torn:
    // a file replaced whole has its old or its new contents afterwards.
    virtual std::expected<Bytes, FileError> readFile(const std::filesystem::path& path) = 0;
    // Writes through a temporary file in the same directory and a rename, so that readers see
    // the old or the new contents, never a torn file.
    virtual std::expected<void, FileError> writeFile(const std::filesystem::path& path,
                                                     const Bytes& contents) = 0;
    // readFile that also pins the file read; the stamp is taken from the open file, so it
    // belongs to exactly the contents returned.
    virtual std::expected<PinnedContents, FileError> readFileAndPin(
        const std::filesystem::path& path) = 0;
    // The stamp of the file now at path; absent when there is none.
    virtual std::optional<FileStamp> fileStamp(const std::filesystem::path& path) = 0;
    // Replaces the contents of a file that is rewritten often, with writeFile's guarantee
    // (readers see the old or the new contents, never a mix) at a fraction of its cost: the
    // contents go into a scratch file beside path (".<name>.scratch", made when missing and
    // kept), whose name is then swapped atomically with path's, so the old contents become
    // the next scratch. Where the file system cannot swap names it does as writeFile does.
    // Callers keep two rewrites of one path from overlapping (the scratch file is shared).
    // Returns a pin of the file now at path, holding exactly contents.
    // Neither this nor writeFile syncs to the device: both hold against readers and a process
    // that dies, not against a power cut, after which the file may be torn (ext4 flushes a
    // file renamed over another before the rename, which helps writeFile, but not a swap).
    virtual std::expected<std::shared_ptr<const FilePin>, FileError> rewriteFile(
        const std::filesystem::path& path, const Bytes& contents) = 0;
    virtual std::expected<void, FileError> removeItem(const std::filesystem::path& path) = 0;
    // Fails when the destination exists.
    virtual std::expected<void, FileError> moveItem(const std::filesystem::path& from,
                                                    const std::filesystem::path& to) = 0;
    virtual std::expected<void, FileError> createDirectories(const std::filesystem::path& path) = 0;
    virtual bool fileExists(const std::filesystem::path& path) = 0;
    // An inter-process lock on the file at path (see FileLock); the file is opened and made
    // when first locked. Never null.
    virtual std::unique_ptr<FileLock> newFileLock(const std::filesystem::path& path) = 0;

    // --- Directories under the state root (created on demand; absent when that fails).
    virtual std::optional<std::filesystem::path> appGroupContainer(const std::string& groupId) = 0;
    // Application support and temporary directories of the running app (its bundle id).
    virtual std::optional<std::filesystem::path> applicationSupportDirectory() = 0;
    virtual std::optional<std::filesystem::path> temporaryDirectory() = 0;

    // --- Defaults suites. Absent when the suite's store cannot be opened.
    virtual std::shared_ptr<DefaultsSuite> defaultsSuite(const std::string& name) = 0;

    // --- URL loading
    // True when url, which has a scheme and an authority ("scheme://host..."), is well formed
    // by the URL loading system's rules (host syntax, port, escapes).
    virtual bool isWellFormedUrl(const std::string& url) = 0;
    virtual std::shared_ptr<UrlSession> newUrlSession(const UrlSessionConfiguration& config) = 0;
    // The process's shared session (default configuration, no time-outs of its own).
    virtual std::shared_ptr<UrlSession> sharedUrlSession() = 0;

    // --- Threads and timers
    // Runs the block on the main thread, after the blocks submitted before it. Never inline.
    virtual void runOnMain(std::function<void()> block) = 0;
    // Runs the block on a background thread of a shared pool. Never inline.
    virtual void runInBackground(std::function<void()> block) = 0;
    virtual bool isMainThread() = 0;
    // A one-shot timer on the main thread: block runs there once after `seconds`.
    virtual std::shared_ptr<TimerHandle> scheduleOnMain(double seconds,
                                                        std::function<void()> block) = 0;

    // --- System log: one message of the given subsystem, category and type.
    virtual void writeLog(const std::string& subsystem, const std::string& category, LogType type,
                          const std::string& message) = 0;

    // --- Device and app
    virtual std::string systemName() = 0;     // "iOS"
    virtual std::string systemVersion() = 0;  // "17.0"
    // True when the system version is at least major.minor.
    bool systemVersionAtLeast(int major, int minor = 0);
    virtual std::optional<std::string> machine() = 0;  // the uname machine
    virtual std::optional<std::string> bundleIdentifier() = 0;
    virtual std::optional<std::string> bundleInfoValue(const std::string& key) = 0;
    virtual std::vector<std::string> preferredLanguages() = 0;
    virtual std::string currentLocaleIdentifier() = 0;
    // The answer arrives on a thread of the platform's choosing.
    virtual void notificationAuthorizationStatus(
        std::function<void(AuthorizationStatus)> completion) = 0;

    // --- Application (deep links). False when no handler takes the URL.
    virtual bool openUrl(const std::string& url) = 0;
    virtual bool continueUserActivity(const std::string& webpageUrl) = 0;

    // --- Drawing: a transparent canvas of width x height points at scale 1; absent when the
    // drawing stack cannot be loaded.
    virtual std::unique_ptr<ImageCanvas> newImageCanvas(int width, int height) = 0;
};

}  // namespace vontu::platform
