#include "platform/linux/LinuxEnv.hpp"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/thread_pool.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <fstream>
#include <thread>

#include "platform/Crypto.hpp"
#include "platform/linux/CairoImageCanvas.hpp"
#include "platform/linux/CurlUrlSession.hpp"
#include "platform/FileName.hpp"
#include "platform/linux/FlockFileLock.hpp"
#include "platform/linux/SqliteDefaultsSuite.hpp"

namespace vontu::platform::linux_host {

namespace fs = std::filesystem;

namespace {

FileError fileError(const std::string& what, const fs::path& path, std::error_code ec) {
    return FileError{fmt::format("{} \"{}\": {}", what, path.string(), ec.message()),
                     ec == std::errc::no_such_file_or_directory};
}

// Creates every missing directory of path with mode 0700.
std::expected<void, FileError> makeDirectories(const fs::path& path) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) return {};
    if (path.has_parent_path() && path.parent_path() != path) {
        if (auto made = makeDirectories(path.parent_path()); !made) return made;
    }
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        return std::unexpected(
            fileError("Could not create the directory", path, {errno, std::generic_category()}));
    }
    if (!fs::is_directory(path, ec)) {
        return std::unexpected(fileError("Not a directory", path, ec));
    }
    return {};
}

FileStamp stampOf(const struct stat& info) {
    const auto nanoseconds = [](const timespec& time) {
        return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
    };
    return FileStamp{static_cast<std::uint64_t>(info.st_dev),
                     static_cast<std::uint64_t>(info.st_ino),
                     static_cast<std::int64_t>(info.st_size), nanoseconds(info.st_mtim),
                     nanoseconds(info.st_ctim)};
}

// Keeps a file's descriptor open for as long as the pin lives.
class DescriptorPin final : public FilePin {
public:
    DescriptorPin(int descriptor, FileStamp stamp) : FilePin(stamp), descriptor_(descriptor) {}
    ~DescriptorPin() override { ::close(descriptor_); }

private:
    const int descriptor_;
};

// A regular file opened and read whole; the caller owns the descriptor.
struct OpenedFile {
    int descriptor = -1;
    FileStamp stamp;
    Bytes contents;
};

constexpr off_t kLargestFileRead = 64 * 1024 * 1024;

// A path with a NUL in it is cut short where the system reads it, and would name another file
// (or a directory above it): every file call refuses one.
bool cutShort(const fs::path& path) { return path.native().find('\0') != std::string::npos; }

std::expected<OpenedFile, FileError> openAndRead(const fs::path& path) {
    const auto failure = [&path](int error) {
        return std::unexpected(
            fileError("Could not read the file", path, {error, std::generic_category()}));
    };
    // Non-blocking until it is known to be a regular file: opening a FIFO would otherwise wait
    // for a writer that may never come.
    if (cutShort(path)) return failure(EINVAL);
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return failure(errno);
    const auto fail = [fd, &failure](int error) {
        ::close(fd);
        return failure(error);
    };
    struct stat info {};
    if (::fstat(fd, &info) != 0) return fail(errno);
    if (!S_ISREG(info.st_mode)) return fail(S_ISDIR(info.st_mode) ? EISDIR : EINVAL);
    if (::fcntl(fd, F_SETFL, 0) != 0) return fail(errno);
    // Every file read here (defaults aside, which SQLite reads) is small: the queue's, the
    // avatars, a download at most 10 MB. A larger one is refused rather than allocated.
    if (info.st_size > kLargestFileRead) return fail(EFBIG);
    // The size is a hint: the file may grow or shrink while it is read.
    Bytes contents(static_cast<std::size_t>(info.st_size));
    std::size_t filled = 0;
    while (true) {
        if (filled == contents.size()) contents.resize(contents.size() + 4096);
        const ssize_t n = ::read(fd, contents.data() + filled, contents.size() - filled);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return fail(errno);
        if (n == 0) break;
        filled += static_cast<std::size_t>(n);
    }
    contents.resize(filled);
    return OpenedFile{fd, stampOf(info), std::move(contents)};
}

// Writes all of contents at the start of the file. False with errno set when it cannot.
bool writeWhole(int fd, const Bytes& contents) {
    std::size_t written = 0;
    while (written < contents.size()) {
        const ssize_t n = ::pwrite(fd, contents.data() + written, contents.size() - written,
                                   static_cast<off_t>(written));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        written += static_cast<std::size_t>(n);
    }
    return true;
}

// Puts the filled scratch file in path's place. Swapping the two names keeps the old file as
// the next scratch: replacing a file with a new one costs the file system a new inode, and
// ext4 also flushes the new file's data on such a rename. A plain rename serves where there is
// no file to swap with yet, or where the file system cannot swap names. False with errno set.
bool swapIntoPlace(const fs::path& scratch, const fs::path& path) {
    struct stat target {};
    const bool regularTarget = ::lstat(path.c_str(), &target) == 0 && S_ISREG(target.st_mode);
    if (regularTarget &&
        ::renameat2(AT_FDCWD, scratch.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE) == 0) {
        return true;
    }
    const bool swapUnsupported = errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP;
    if (regularTarget && !swapUnsupported) return false;
    // Anything but a regular file at path (nothing, a link) is replaced, as writeFile would;
    // a directory there makes rename fail.
    return ::rename(scratch.c_str(), path.c_str()) == 0;
}

// The language list of the POSIX environment, as BCP 47 tags ("en_GB.UTF-8" -> "en-GB").
std::string localeToTag(std::string locale, char separator) {
    if (auto at = locale.find_first_of(".@"); at != std::string::npos) locale.resize(at);
    for (char& c : locale) {
        if (c == '_' || c == '-') c = separator;
    }
    return locale;
}

bool isPortableLocale(const std::string& name) {
    return name.empty() || name == "C" || name == "POSIX" || name.starts_with("C.");
}

std::string firstEnv(std::initializer_list<const char*> names) {
    for (const char* name : names) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') return value;
    }
    return {};
}

class AsioTimerHandle final : public TimerHandle,
                              public std::enable_shared_from_this<AsioTimerHandle> {
public:
    explicit AsioTimerHandle(asio::io_context& context) : timer_(context) {}
    asio::steady_timer& timer() { return timer_; }
    bool isInvalidated() const { return invalidated_.load(); }

    void invalidate() override {
        invalidated_.store(true);
        // The timer object belongs to the main thread; it is cancelled there.
        asio::post(timer_.get_executor(), [weak = weak_from_this()] {
            if (auto handle = weak.lock()) handle->timer_.cancel();
        });
    }

private:
    asio::steady_timer timer_;
    std::atomic<bool> invalidated_{false};
};

}  // namespace

struct LinuxEnv::Loop {
    asio::io_context main{1};
    asio::executor_work_guard<asio::io_context::executor_type> keepAlive =
        asio::make_work_guard(main);
    std::atomic<std::thread::id> mainThreadId{};
    // The pool starts on first use: most pushes never need it.
    std::once_flag poolStarted;
    std::unique_ptr<asio::thread_pool> pool;

    asio::thread_pool& background() {
        std::call_once(poolStarted, [this] { pool = std::make_unique<asio::thread_pool>(2); });
        return *pool;
    }
};

LinuxEnv::LinuxEnv(HostSettings settings)
    : settings_(std::move(settings)), home_(resolveHome(settings_.home)),
      loop_(std::make_unique<Loop>()) {}

LinuxEnv::~LinuxEnv() {
    // Cancelled and released outside the lock: the cancelled tasks' completions run meanwhile
    // and may ask for the shared session themselves.
    std::shared_ptr<UrlSession> shared;
    {
        std::lock_guard lock(sharedSessionMutex_);
        shared = std::move(sharedSession_);
    }
    if (shared) shared->invalidateAndCancel();
    shared.reset();
    if (loop_->pool) loop_->pool->join();
    loop_->main.stop();
}

void LinuxEnv::runMainLoop() {
    loop_->mainThreadId.store(std::this_thread::get_id());
    // A stop requested before the loop started holds: run() then returns at once.
    loop_->main.run();
}

void LinuxEnv::stopMainLoop() { loop_->main.stop(); }

Date LinuxEnv::now() {
    using namespace std::chrono;
    auto since = system_clock::now().time_since_epoch();
    return Date{duration<double>(since).count()};
}

std::expected<Bytes, FileError> LinuxEnv::readFile(const fs::path& path) {
    auto opened = openAndRead(path);
    if (!opened) return std::unexpected(opened.error());
    ::close(opened->descriptor);
    return std::move(opened->contents);
}

std::expected<PinnedContents, FileError> LinuxEnv::readFileAndPin(const fs::path& path) {
    auto opened = openAndRead(path);
    if (!opened) return std::unexpected(opened.error());
    return PinnedContents{std::move(opened->contents),
                          std::make_shared<DescriptorPin>(opened->descriptor, opened->stamp)};
}

std::optional<FileStamp> LinuxEnv::fileStamp(const fs::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return stampOf(info);
}

std::expected<std::shared_ptr<const FilePin>, FileError> LinuxEnv::rewriteFile(
    const fs::path& path, const Bytes& contents) {
    const auto failure = [&path](int error) {
        return std::unexpected(
            fileError("Could not write the file", path, {error, std::generic_category()}));
    };
    if (cutShort(path)) return failure(EINVAL);
    const fs::path scratch = path.parent_path() / ("." + path.filename().string() + ".scratch");
    // The scratch file is this call's own (callers serialise rewrites); O_NOFOLLOW keeps a link
    // planted there from redirecting the write.
    // O_NONBLOCK: a FIFO planted there fails at once instead of waiting for a reader.
    int fd = ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
    if (fd < 0) return failure(errno);
    const auto fail = [&](int error) {
        ::close(fd);
        return failure(error);
    };
    if (!writeWhole(fd, contents) || ::ftruncate(fd, static_cast<off_t>(contents.size())) != 0) {
        return fail(errno);
    }
    if (!swapIntoPlace(scratch, path)) return fail(errno);
    struct stat info {};
    if (::fstat(fd, &info) != 0) return fail(errno);
    return std::make_shared<DescriptorPin>(fd, stampOf(info));
}

std::expected<void, FileError> LinuxEnv::writeFile(const fs::path& path, const Bytes& contents) {
    if (cutShort(path)) {
        return std::unexpected(
            fileError("Could not write the file", path, {EINVAL, std::generic_category()}));
    }
    const fs::path temporary =
        path.parent_path() / fmt::format(".{}.{}.tmp", path.filename().string(), newUuidString());
    std::FILE* file = std::fopen(temporary.c_str(), "wbx");
    if (file == nullptr) {
        return std::unexpected(
            fileError("Could not write the file", path, {errno, std::generic_category()}));
    }
    ::fchmod(::fileno(file), 0600);
    bool written = std::fwrite(contents.data(), 1, contents.size(), file) == contents.size();
    // No fsync: the rename alone keeps readers from a torn file, and flushing to the device on
    // every write (the queue rewrites its inventory per task) costs milliseconds each time.
    written = std::fflush(file) == 0 && written;
    int savedErrno = errno;
    written = std::fclose(file) == 0 && written;
    if (!written || std::rename(temporary.c_str(), path.c_str()) != 0) {
        if (written) savedErrno = errno;
        std::remove(temporary.c_str());
        return std::unexpected(
            fileError("Could not write the file", path, {savedErrno, std::generic_category()}));
    }
    return {};
}

std::expected<void, FileError> LinuxEnv::removeItem(const fs::path& path) {
    if (cutShort(path)) {
        return std::unexpected(fileError("Could not remove", path, {EINVAL, std::generic_category()}));
    }
    // A file, the common case, in one call; a directory goes with all it holds.
    if (::unlink(path.c_str()) == 0) return {};
    if (errno == ENOENT) {
        return std::unexpected(
            fileError("Could not remove", path, {ENOENT, std::generic_category()}));
    }
    std::error_code ec;
    if (fs::remove_all(path, ec) == 0 || ec) {
        if (!ec) ec = std::make_error_code(std::errc::no_such_file_or_directory);
        return std::unexpected(fileError("Could not remove", path, ec));
    }
    return {};
}

std::expected<void, FileError> LinuxEnv::moveItem(const fs::path& from, const fs::path& to) {
    // renameat2 with RENAME_NOREPLACE would be atomic; link + unlink gives the same guarantee
    // on every file system that supports hard links, and fails cleanly where the target exists.
    if (cutShort(from) || cutShort(to)) {
        return std::unexpected(fileError("Could not move the file to", to, {EINVAL, std::generic_category()}));
    }
    if (::link(from.c_str(), to.c_str()) != 0) {
        return std::unexpected(fileError("Could not move the file to", to, {errno, std::generic_category()}));
    }
    // A file left under both names was not moved: the target goes again.
    if (::unlink(from.c_str()) != 0) {
        const int error = errno;
        ::unlink(to.c_str());
        return std::unexpected(fileError("Could not move the file to", to, {error, std::generic_category()}));
    }
    return {};
}

std::expected<void, FileError> LinuxEnv::createDirectories(const fs::path& path) {
    return makeDirectories(path);
}

bool LinuxEnv::fileExists(const fs::path& path) {
    std::error_code ec;
    return fs::exists(path, ec);
}

std::unique_ptr<FileLock> LinuxEnv::newFileLock(const fs::path& path) {
    return std::make_unique<FlockFileLock>(path);
}

std::optional<fs::path> LinuxEnv::directoryUnderHome(const fs::path& relative) {
    fs::path directory = home_ / relative;
    if (!makeDirectories(directory)) return std::nullopt;
    return directory;
}

std::optional<fs::path> LinuxEnv::appGroupContainer(const std::string& groupId) {
    if (!isSingleFileName(groupId)) return std::nullopt;
    return directoryUnderHome(fs::path("groups") / groupId);
}

std::optional<fs::path> LinuxEnv::applicationSupportDirectory() {
    return directoryUnderHome(fs::path("apps") / settings_.bundleIdentifier / "support");
}

std::optional<fs::path> LinuxEnv::temporaryDirectory() {
    return directoryUnderHome(fs::path("apps") / settings_.bundleIdentifier / "tmp");
}

std::shared_ptr<DefaultsSuite> LinuxEnv::defaultsSuite(const std::string& name) {
    if (!isSingleFileName(name)) return nullptr;
    std::lock_guard lock(suitesMutex_);
    if (auto open = openSuites_.find(name); open != openSuites_.end()) return open->second;
    auto preferences = directoryUnderHome("preferences");
    if (!preferences) return nullptr;
    auto suite = openSqliteDefaultsSuite(*preferences / (name + ".sqlite"));
    if (suite) openSuites_.emplace(name, suite);
    return suite;
}

bool LinuxEnv::isWellFormedUrl(const std::string& url) { return curlAcceptsUrl(url); }

std::shared_ptr<UrlSession> LinuxEnv::newUrlSession(const UrlSessionConfiguration& config) {
    // The app's temporary directory is under the state root; should it be unavailable, the
    // system's (never throwing: a TMPDIR that names nothing falls back to /tmp).
    auto downloads = temporaryDirectory();
    if (!downloads) {
        std::error_code ec;
        downloads = fs::temp_directory_path(ec);
        if (ec) downloads = fs::path("/tmp");
    }
    return makeCurlUrlSession(config, settings_.network, *downloads / "downloads");
}

std::shared_ptr<UrlSession> LinuxEnv::sharedUrlSession() {
    std::lock_guard lock(sharedSessionMutex_);
    if (!sharedSession_) sharedSession_ = newUrlSession(UrlSessionConfiguration{});
    return sharedSession_;
}

void LinuxEnv::runOnMain(std::function<void()> block) {
    asio::post(loop_->main, std::move(block));
}

void LinuxEnv::runInBackground(std::function<void()> block) {
    asio::post(loop_->background(), std::move(block));
}

bool LinuxEnv::isMainThread() {
    return loop_->mainThreadId.load() == std::this_thread::get_id();
}

std::shared_ptr<TimerHandle> LinuxEnv::scheduleOnMain(double seconds,
                                                      std::function<void()> block) {
    auto handle = std::make_shared<AsioTimerHandle>(loop_->main);
    // Beyond some 292 years the clock's nanoseconds overflow, and the timer would fire at
    // once; a century is as good as never here.
    constexpr double longestDelaySeconds = 100.0 * 365 * 24 * 3600;
    auto delay = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds > 0 ? std::min(seconds, longestDelaySeconds) : 0));
    // Arming happens on the main thread too, so the timer object is touched by one thread.
    asio::post(loop_->main, [handle, delay, block = std::move(block)]() mutable {
        if (handle->isInvalidated()) return;
        handle->timer().expires_after(delay);
        handle->timer().async_wait([handle, block = std::move(block)](const std::error_code& ec) {
            if (ec || handle->isInvalidated()) return;
            block();
        });
    });
    return handle;
}

void LinuxEnv::writeLog(const std::string& subsystem, const std::string& category, LogType type,
                        const std::string& message) {
    using namespace std::chrono;
    auto now = system_clock::now();
    auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::time_t seconds = system_clock::to_time_t(now);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
    std::string line = fmt::format("{}.{:03d}Z {}[{}] {}: {}\n", stamp, millis, subsystem, category,
                                   logTypeName(type), message);
    // One write call per line keeps lines of concurrent threads and processes whole.
    std::fwrite(line.data(), 1, line.size(), stderr);
}

std::string LinuxEnv::systemName() { return "iOS"; }

std::string LinuxEnv::systemVersion() { return settings_.systemVersion; }

std::optional<std::string> LinuxEnv::machine() {
    struct utsname names {};
    if (::uname(&names) != 0) return std::nullopt;
    return std::string(names.machine);
}

std::optional<std::string> LinuxEnv::bundleIdentifier() {
    if (settings_.bundleIdentifier.empty()) return std::nullopt;
    return settings_.bundleIdentifier;
}

std::optional<std::string> LinuxEnv::bundleInfoValue(const std::string& key) {
    if (key == "CFBundleIdentifier") return bundleIdentifier();
    if (key == "CFBundleName") return settings_.bundleName;
    if (key == "CFBundleShortVersionString") return settings_.bundleShortVersion;
    return std::nullopt;
}

std::vector<std::string> LinuxEnv::preferredLanguages() {
    std::vector<std::string> languages;
    std::string list = firstEnv({"LANGUAGE"});
    for (std::size_t start = 0; start <= list.size() && !list.empty();) {
        auto end = list.find(':', start);
        std::string item = list.substr(start, end == std::string::npos ? end : end - start);
        if (!isPortableLocale(item)) languages.push_back(localeToTag(item, '-'));
        if (end == std::string::npos) break;
        start = end + 1;
    }
    if (languages.empty()) {
        std::string locale = firstEnv({"LC_ALL", "LC_MESSAGES", "LANG"});
        if (!isPortableLocale(locale)) languages.push_back(localeToTag(locale, '-'));
    }
    return languages;
}

std::string LinuxEnv::currentLocaleIdentifier() {
    std::string locale = firstEnv({"LC_ALL", "LC_MESSAGES", "LANG"});
    return isPortableLocale(locale) ? "en_US" : localeToTag(locale, '_');
}

void LinuxEnv::notificationAuthorizationStatus(
    std::function<void(AuthorizationStatus)> completion) {
    runInBackground([status = settings_.authorization, completion = std::move(completion)] {
        completion(status);
    });
}

bool LinuxEnv::openUrl(const std::string& url) {
    return settings_.openUrl ? settings_.openUrl(url) : false;
}

bool LinuxEnv::continueUserActivity(const std::string& webpageUrl) {
    return settings_.continueUserActivity ? settings_.continueUserActivity(webpageUrl) : false;
}

std::unique_ptr<ImageCanvas> LinuxEnv::newImageCanvas(int width, int height) {
    return makeCairoImageCanvas(width, height);
}

}  // namespace vontu::platform::linux_host
