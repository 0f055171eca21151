// The Linux environment's own services. The hosts' tests check the state layout and system version.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <regex>
#include <thread>

#include "platform/linux/LinuxEnv.hpp"
#include "tests/support/CompletionRecorder.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestEnv.hpp"

namespace vontu::platform::linux_host {
namespace {

namespace fs = std::filesystem;
using vontu::testing::CompletionRecorder;

TEST(LinuxEnvLoop, AStopRequestedBeforeTheLoopRunsStillEndsIt) {
    vontu::testing::TempDir home;
    LinuxEnv env([&] { HostSettings settings; settings.home = home.path(); return settings; }());
    env.stopMainLoop();
    auto loop = std::async(std::launch::async, [&] { env.runMainLoop(); });
    EXPECT_EQ(loop.wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

TEST(LinuxEnvLoop, JobsAndTimersRunOnTheMainThreadInOrderAndBackgroundWorkElsewhere) {
    auto& env = Env::current();
    // Each job notes its number, negated when it runs off the main thread.
    auto seen = std::make_shared<std::vector<int>>();
    const auto note = [&env, seen](int number) { seen->push_back(env.isMainThread() ? number : -number); };
    CompletionRecorder<std::vector<int>> order;
    env.scheduleOnMain(0.05, [note, seen, done = order.completion()] { note(3); done(*seen); });
    env.runOnMain([note] { note(1); });
    env.runOnMain([note] { note(2); });
    EXPECT_EQ(order.await(), (std::vector<int>{1, 2, 3}));
    CompletionRecorder<bool> background;
    env.runInBackground([&env, caller = std::this_thread::get_id(), done = background.completion()] {
        done(!env.isMainThread() && std::this_thread::get_id() != caller);
    });
    EXPECT_EQ(background.await(), true);
}

// A delay beyond what the clock can count (some 292 years) must not wrap round to one that has
// passed already.
TEST(LinuxEnvLoop, AnEndlessDelayWaitsInsteadOfFiringAtOnce) {
    auto& env = Env::current();
    auto endlessFired = std::make_shared<std::atomic<bool>>(false);
    auto endless = env.scheduleOnMain(1e12, [endlessFired] { *endlessFired = true; });
    CompletionRecorder<bool> soon;
    env.scheduleOnMain(0.1, [endlessFired, done = soon.completion()] { done(endlessFired->load()); });
    EXPECT_EQ(soon.await(), false);
    endless->invalidate();
}

TEST(LinuxEnvFiles, WritesReplaceWholeFilesOwnerOnlyAndMovesNeverReplace) {
    auto& env = Env::current();
    const auto directory = *env.temporaryDirectory() / "a" / "b";
    ASSERT_TRUE(env.createDirectories(directory));
    EXPECT_EQ(fs::status(directory).permissions(), fs::perms::owner_all);
    const auto file = directory / "f.json";
    ASSERT_TRUE(env.writeFile(file, toBytes("first")));
    ASSERT_TRUE(env.writeFile(file, toBytes("second, longer")));
    EXPECT_EQ(env.readFile(file).value(), toBytes("second, longer"));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), fs::directory_iterator()), 1) << "a temporary file is left";
    EXPECT_FALSE(env.readFile(directory));  // a directory is an error, not an exception
    const auto fifo = directory / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(env.readFile(fifo));  // at once, without waiting for a writer
    ASSERT_TRUE(env.removeItem(fifo));

    const auto moved = directory / "moved.json";
    ASSERT_TRUE(env.moveItem(file, moved));
    ASSERT_TRUE(env.writeFile(file, toBytes("again")));
    EXPECT_FALSE(env.moveItem(file, moved));
    EXPECT_EQ(env.readFile(moved).value(), toBytes("second, longer"));
    EXPECT_TRUE(env.removeItem(directory));
}

// A file rewritten often swaps names with its scratch file: each rewrite leaves the file whole,
// the pins tell the versions apart, and what is not a regular file is never swapped away.
TEST(LinuxEnvFiles, RewritesSwapWithTheScratchFileAndPinsTellVersionsApart) {
    auto& env = Env::current();
    const auto directory = *env.temporaryDirectory() / "rewrites";
    ASSERT_TRUE(env.createDirectories(directory));
    const auto file = directory / "inventory.json";
    const auto scratch = directory / ".inventory.json.scratch";

    auto first = env.rewriteFile(file, toBytes("[1]"));  // no file yet: the scratch becomes it
    ASSERT_TRUE(first);
    EXPECT_EQ(env.readFile(file).value(), toBytes("[1]"));
    EXPECT_EQ(env.fileStamp(file), (*first)->stamp());
    EXPECT_FALSE(fs::exists(scratch));

    auto second = env.rewriteFile(file, toBytes("[1,22]"));
    ASSERT_TRUE(second);
    auto third = env.rewriteFile(file, toBytes("[3]"));  // shorter than the file it reuses
    ASSERT_TRUE(third);
    EXPECT_EQ(env.readFile(file).value(), toBytes("[3]"));
    EXPECT_EQ(env.readFile(scratch).value(), toBytes("[1,22]"));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), fs::directory_iterator()), 2);
    // Swapping makes the file another one each time, and the current stamp is the newest pin's.
    EXPECT_NE((*second)->stamp().inode, (*third)->stamp().inode);
    EXPECT_EQ(env.fileStamp(file), (*third)->stamp());
    auto read = env.readFileAndPin(file);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->contents, toBytes("[3]"));
    EXPECT_EQ(read->pin->stamp(), (*third)->stamp());
    EXPECT_FALSE(env.readFileAndPin(directory / "missing"));

    const auto blocked = directory / "blocked";
    ASSERT_TRUE(env.createDirectories(blocked / "inside"));
    EXPECT_FALSE(env.rewriteFile(blocked, toBytes("[]")));
    EXPECT_TRUE(fs::is_directory(blocked / "inside"));
    EXPECT_TRUE(env.removeItem(directory));
}

TEST(LinuxEnvFiles, DirectoriesFollowTheStateLayout) {
    vontu::testing::TestEnv test([] { HostSettings settings; settings.bundleIdentifier = "ios.vontu.NSE"; return settings; }());
    EXPECT_EQ(test.env().applicationSupportDirectory(), test.home() / "apps" / "ios.vontu.NSE" / "support");
    EXPECT_EQ(test.env().temporaryDirectory(), test.home() / "apps" / "ios.vontu.NSE" / "tmp");
    EXPECT_FALSE(test.env().appGroupContainer("../escape"));
}

TEST(LinuxEnvFiles, TheHomeComesFromTheOptionThenTheEnvironment) {
    ::setenv("VONTU_HOME", "/tmp/vontu-home-test", 1);
    EXPECT_EQ(resolveHome("/explicit"), fs::path("/explicit"));
    EXPECT_EQ(resolveHome(""), fs::path("/tmp/vontu-home-test"));
    ::unsetenv("VONTU_HOME");
    ::setenv("XDG_DATA_HOME", "/tmp/xdg", 1);
    EXPECT_EQ(resolveHome(""), fs::path("/tmp/xdg/vontu"));
    ::unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(resolveHome(""), fs::path(std::getenv("HOME")) / ".local" / "share" / "vontu");
}

// What another process's tryLock answers, from a forked child: 1 taken, 0 held elsewhere.
int tryLockInChild(const fs::path& path) {
    const pid_t child = ::fork();
    if (child == 0) {
        auto lock = Env::current().newFileLock(path);
        auto taken = lock->tryLock();
        ::_exit(taken ? (*taken ? 1 : 0) : 2);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(LinuxEnvFileLock, ExcludesOtherProcessesKeepsACounterAndFollowsTheFileAtThePath) {
    vontu::testing::TempDir dir;
    const auto path = dir.path() / "queue.lock";
    auto lock = Env::current().newFileLock(path);
    EXPECT_FALSE(lock->readCounter().has_value()) << "only while held";
    ASSERT_TRUE(lock->lock().has_value());
    EXPECT_EQ(lock->readCounter(), 0u);
    EXPECT_TRUE(lock->writeCounter(41));
    EXPECT_EQ(lock->readCounter(), 41u);
    // A child process does not share the lock it inherits: it is kept out like any other.
    EXPECT_EQ(tryLockInChild(path), 0);
    lock->unlock();
    EXPECT_EQ(tryLockInChild(path), 1);

    // A removed file: the lock is taken on a new file at the path, which others then wait for.
    fs::remove(path);
    ASSERT_EQ(lock->tryLock(), true);
    EXPECT_TRUE(fs::exists(path));
    EXPECT_EQ(lock->readCounter(), 0u);
    EXPECT_EQ(tryLockInChild(path), 0);

    auto inMissingDirectory = Env::current().newFileLock(dir.path() / "none" / "x.lock");
    EXPECT_FALSE(inMissingDirectory->lock().has_value());
}

TEST(LinuxEnvDevice, PreferredLanguagesAndLocaleComeFromTheEnvironment) {
    const struct { const char *language, *all, *lang; std::vector<std::string> preferred; std::string locale; } cases[] = {
        {"en_GB:fr", "", "de_DE.UTF-8", {"en-GB", "fr"}, "de_DE"},
        {"", "pt_BR.UTF-8@euro", "de_DE", {"pt-BR"}, "pt_BR"},
        {"", "C.UTF-8", "", {}, "en_US"},
    };
    ::unsetenv("LC_MESSAGES");
    for (const auto& c : cases) {
        ::setenv("LANGUAGE", c.language, 1);
        ::setenv("LC_ALL", c.all, 1);
        ::setenv("LANG", c.lang, 1);
        EXPECT_EQ(Env::current().preferredLanguages(), c.preferred) << c.language << c.all << c.lang;
        EXPECT_EQ(Env::current().currentLocaleIdentifier(), c.locale);
    }
    for (const char* name : {"LANGUAGE", "LC_ALL", "LANG"}) ::unsetenv(name);
}

TEST(LinuxEnvLog, OneLinePerMessageInTheSystemLogFormat) {
    ::testing::internal::CaptureStderr();
    Env::current().writeLog("dev.tern.sdk", "TERN", LogType::error, "two\nlines");
    Env::current().writeLog("ios.vontu", "NotificationService", LogType::defaultType, "plain");
    const auto text = ::testing::internal::GetCapturedStderr();
    const std::regex lines(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z dev\.tern\.sdk\[TERN\] error: two
lines
\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z ios\.vontu\[NotificationService\] default: plain
)");
    EXPECT_TRUE(std::regex_match(text, lines)) << text;
}

}  // namespace
}  // namespace vontu::platform::linux_host
