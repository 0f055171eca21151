// The Linux environment's own services: the main loop and timers, files and directories, the
// log line format, and what it reports about the device.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <regex>
#include <thread>

#include "platform/linux/LinuxEnv.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestEnv.hpp"

namespace vontu::platform::linux_host {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr auto kGenerousWait = 20s;

template <typename Change>
HostSettings settingsWith(Change change) {
    HostSettings settings;
    change(settings);
    return settings;
}

TEST(LinuxEnvLoop, AStopRequestedBeforeTheLoopRunsStillEndsIt) {
    vontu::testing::TempDir home;
    LinuxEnv env(settingsWith([&](HostSettings& s) { s.home = home.path(); }));
    env.stopMainLoop();
    auto loop = std::async(std::launch::async, [&] { env.runMainLoop(); });
    EXPECT_EQ(loop.wait_for(kGenerousWait), std::future_status::ready);
}

TEST(LinuxEnvLoop, JobsAndTimersRunOnTheMainThreadInOrderAndBackgroundWorkElsewhere) {
    vontu::testing::TestEnv test;
    auto& env = test.env();
    std::promise<std::vector<int>> order;
    auto seen = std::make_shared<std::vector<int>>();
    std::thread::id mainId;
    test.onMainAndWait([&] { mainId = std::this_thread::get_id(); });
    EXPECT_FALSE(env.isMainThread());

    auto cancelled = env.scheduleOnMain(0.01, [seen] { seen->push_back(-1); });
    cancelled->invalidate();
    env.scheduleOnMain(0.05, [&, seen] {
        EXPECT_EQ(std::this_thread::get_id(), mainId);
        seen->push_back(3);
        order.set_value(*seen);
    });
    env.runOnMain([seen] { seen->push_back(1); });
    env.runOnMain([seen] { seen->push_back(2); });
    auto result = order.get_future();
    ASSERT_EQ(result.wait_for(kGenerousWait), std::future_status::ready);
    EXPECT_EQ(result.get(), (std::vector<int>{1, 2, 3}));

    std::promise<std::thread::id> ran;
    env.runInBackground([&] { ran.set_value(std::this_thread::get_id()); });
    auto id = ran.get_future();
    ASSERT_EQ(id.wait_for(kGenerousWait), std::future_status::ready);
    const auto backgroundId = id.get();
    EXPECT_NE(backgroundId, std::this_thread::get_id());
    EXPECT_NE(backgroundId, mainId);
}

TEST(LinuxEnvFiles, WritesReplaceWholeFilesOwnerOnly) {
    vontu::testing::TestEnv test;
    auto& env = test.env();
    auto directory = test.home() / "a" / "b";
    ASSERT_TRUE(env.createDirectories(directory));
    EXPECT_EQ(fs::status(directory).permissions(), fs::perms::owner_all);

    auto file = directory / "f.json";
    ASSERT_TRUE(env.writeFile(file, toBytes("first")));
    ASSERT_TRUE(env.writeFile(file, toBytes("second, longer")));
    EXPECT_EQ(env.readFile(file).value(), toBytes("second, longer"));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    // No temporary file is left beside it.
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), fs::directory_iterator()), 1);

    EXPECT_FALSE(env.readFile(directory));  // a directory is an error, not an exception
    EXPECT_FALSE(env.readFile(directory / "missing"));
    EXPECT_FALSE(env.writeFile(directory / "missing" / "f", toBytes("x")));

    auto moved = directory / "moved.json";
    ASSERT_TRUE(env.moveItem(file, moved));
    EXPECT_FALSE(env.fileExists(file));
    ASSERT_TRUE(env.writeFile(file, toBytes("again")));
    EXPECT_FALSE(env.moveItem(file, moved));  // never replaces
    EXPECT_EQ(env.readFile(moved).value(), toBytes("second, longer"));
    EXPECT_TRUE(env.removeItem(directory));
    EXPECT_FALSE(env.removeItem(directory));
}

TEST(LinuxEnvFiles, DirectoriesFollowTheStateLayout) {
    vontu::testing::TestEnv test(
        settingsWith([](HostSettings& s) { s.bundleIdentifier = "ios.vontu.NotificationService"; }));
    auto& env = test.env();
    EXPECT_EQ(env.appGroupContainer("group.ios.vontu"), test.home() / "groups" / "group.ios.vontu");
    EXPECT_EQ(env.applicationSupportDirectory(),
              test.home() / "apps" / "ios.vontu.NotificationService" / "support");
    EXPECT_EQ(env.temporaryDirectory(), test.home() / "apps" / "ios.vontu.NotificationService" / "tmp");
    EXPECT_FALSE(env.appGroupContainer("../escape"));
    EXPECT_FALSE(env.defaultsSuite("../escape"));
    ASSERT_TRUE(env.defaultsSuite("group.ios.vontu"));
    EXPECT_TRUE(fs::exists(test.home() / "preferences" / "group.ios.vontu.sqlite"));
    EXPECT_EQ(env.defaultsSuite("group.ios.vontu"), env.defaultsSuite("group.ios.vontu"));
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

TEST(LinuxEnvDevice, ReportsTheHostsSettingsAndLocale) {
    vontu::testing::TestEnv test(settingsWith([](HostSettings& s) { s.systemVersion = "15.4"; }));
    auto& env = test.env();
    EXPECT_EQ(env.systemName(), "iOS");
    EXPECT_TRUE(env.systemVersionAtLeast(15, 4));
    EXPECT_FALSE(env.systemVersionAtLeast(15, 5));
    EXPECT_FALSE(env.systemVersionAtLeast(16));

    const struct {
        const char *language, *all, *lang;
        std::vector<std::string> preferred;
        std::string locale;
    } cases[] = {
        {"en_GB:fr", "", "de_DE.UTF-8", {"en-GB", "fr"}, "de_DE"},
        {"", "pt_BR.UTF-8@euro", "de_DE", {"pt-BR"}, "pt_BR"},
        {"", "C.UTF-8", "", {}, "en_US"},
    };
    for (const auto& c : cases) {
        ::setenv("LANGUAGE", c.language, 1);
        ::setenv("LC_ALL", c.all, 1);
        ::setenv("LANG", c.lang, 1);
        ::unsetenv("LC_MESSAGES");
        EXPECT_EQ(env.preferredLanguages(), c.preferred) << c.language << c.all << c.lang;
        EXPECT_EQ(env.currentLocaleIdentifier(), c.locale);
    }
    for (const char* name : {"LANGUAGE", "LC_ALL", "LANG"}) ::unsetenv(name);
}

TEST(LinuxEnvLog, OneLinePerMessageInTheSystemLogFormat) {
    vontu::testing::TestEnv test;
    ::testing::internal::CaptureStderr();
    test.env().writeLog("dev.tern.sdk", "TERN", LogType::error, "two\nlines");
    test.env().writeLog("ios.vontu", "NotificationService", LogType::defaultType, "plain");
    auto text = ::testing::internal::GetCapturedStderr();
    std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z dev\.tern\.sdk\[TERN\] error: two
lines
\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z ios\.vontu\[NotificationService\] default: plain
)");
    EXPECT_TRUE(std::regex_match(text, line)) << text;
}

}  // namespace
}  // namespace vontu::platform::linux_host
