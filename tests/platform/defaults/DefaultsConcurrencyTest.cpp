// Several threads and processes share one suite, as the main app and the extension processes
// do: writes that happen at the same time are all kept, and each writer sees its own at once.

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/linux/SqliteDefaultsSuite.hpp"
#include "tests/support/Process.hpp"
#include "tests/support/TempDir.hpp"

namespace vontu::platform::linux_host {
namespace {

namespace fs = std::filesystem;

std::string keyOf(const std::string& writer, int index) {
    return writer + "-" + std::to_string(index);
}

constexpr const char* counterKey = "counter";

// Adds one to the shared counter in one read-modify-write.
bool countOne(DefaultsSuite& suite) {
    return suite.updateObject(counterKey, [](const std::optional<PlistValue>& current) {
        const auto* count = current ? current->as<std::int64_t>() : nullptr;
        return DefaultsSuite::Update{DefaultsSuite::Update::Action::store,
                                     std::int64_t{count != nullptr ? *count + 1 : 1}};
    });
}

// Writes count keys under the writer's name, reading each back at once and the whole suite as
// it goes, and counts each in the shared counter. False when a write failed or was not visible.
bool writeAndReadBack(DefaultsSuite& suite, const std::string& writer, int count) {
    for (int i = 0; i < count; ++i) {
        const auto key = keyOf(writer, i);
        const PlistValue value = PlistDictionary{{"writer", writer}, {"index", i}};
        if (!suite.setObject(value, key) || suite.objectForKey(key) != value) return false;
        if (!countOne(suite)) return false;
        suite.dictionaryRepresentation();
    }
    return true;
}

// ... and read-modify-writes of one key made at the same time all take effect.
TEST(DefaultsConcurrency, ProcessesAndThreadsWritingAtOnceLoseNoKeyNorUpdate) {
    const testing::TempDir dir;
    const auto file = dir.path() / "shared.sqlite";
    constexpr int children = 3;
    constexpr int keysPerWriter = 60;
    // Every process waits at the gate until all exist, so that their writes overlap.
    int gate[2];
    ASSERT_EQ(::pipe(gate), 0);
    std::vector<pid_t> pids;
    for (int c = 0; c < children; ++c) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            ::close(gate[1]);
            char byte;
            [[maybe_unused]] auto opened = ::read(gate[0], &byte, 1);
            auto suite = openSqliteDefaultsSuite(file);
            ::_exit(suite && writeAndReadBack(*suite, "child" + std::to_string(c), keysPerWriter) ? 0 : 1);
        }
        pids.push_back(pid);
    }
    ::close(gate[0]);
    ::close(gate[1]);  // opens the gate
    // The parent's threads share one suite object.
    auto suite = openSqliteDefaultsSuite(file);
    ASSERT_TRUE(suite);
    std::atomic<int> threadFailures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            if (!writeAndReadBack(*suite, "thread" + std::to_string(t), keysPerWriter)) ++threadFailures;
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(threadFailures.load(), 0);
    for (const auto pid : pids) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    }
    // Each writer read its own keys back, so the count shows that none was lost later.
    EXPECT_EQ(suite->dictionaryRepresentation().size(),
              std::size_t{(children + 2) * keysPerWriter + 1});
    EXPECT_EQ(suite->objectForKey(counterKey), PlistValue(std::int64_t{(children + 2) * keysPerWriter}));
}

TEST(DefaultsConcurrency, TheHostProgramAndTheLibraryShareALiveSuite) {
    const testing::TempDir home;
    const fs::path program = VONTU_DEFAULTS_PROGRAM;
    const auto file = home.path() / "preferences" / "group.ios.vontu.sqlite";
    constexpr int programRuns = 8;
    constexpr int keysPerWriter = 40;
    fs::create_directories(file.parent_path());
    auto suite = openSqliteDefaultsSuite(file);
    ASSERT_TRUE(suite);

    std::vector<testing::ProcessResult> results(programRuns);
    std::thread programs([&] {
        for (int i = 0; i < programRuns; ++i) {
            results[static_cast<std::size_t>(i)] = testing::runProcess(
                program, {"--home", home.path().string(), "write", "group.ios.vontu",
                          keyOf("program", i), std::to_string(i)});
        }
    });
    for (int i = 0; i < keysPerWriter; ++i) EXPECT_TRUE(suite->setObject(i, keyOf("library", i)));
    programs.join();
    for (const auto& result : results) EXPECT_EQ(result.exitCode, 0) << result.err;

    EXPECT_EQ(suite->dictionaryRepresentation().size(), std::size_t{programRuns + keysPerWriter});
    for (int i = 0; i < programRuns; ++i) {
        EXPECT_EQ(suite->objectForKey(keyOf("program", i)), PlistValue(i));
    }
}

}  // namespace
}  // namespace vontu::platform::linux_host
