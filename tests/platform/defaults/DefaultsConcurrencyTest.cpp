// Several processes share one suite, as the main app and the extension processes do: writes
// that happen at the same time are all kept, and each process sees its own writes at once.

#include <sys/wait.h>
#include <unistd.h>

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

// Writes count keys under the writer's name, reading each back at once, and reads the other
// writers' keys as it goes. False when a write failed or was not visible.
bool writeAndReadBack(const fs::path& file, const std::string& writer, int count) {
    auto suite = openSqliteDefaultsSuite(file);
    if (!suite) return false;
    for (int i = 0; i < count; ++i) {
        const auto key = keyOf(writer, i);
        if (!suite->setObject(PlistDictionary{{"writer", writer}, {"index", i}}, key)) return false;
        if (suite->objectForKey(key) != PlistValue(PlistDictionary{{"writer", writer}, {"index", i}})) {
            return false;
        }
        suite->objectForKey(keyOf("parent", i));
    }
    return true;
}

TEST(DefaultsConcurrency, ProcessesWritingAtOnceLoseNoKey) {
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
            ::_exit(writeAndReadBack(file, "child" + std::to_string(c), keysPerWriter) ? 0 : 1);
        }
        pids.push_back(pid);
    }
    ::close(gate[0]);
    ::close(gate[1]);  // opens the gate
    EXPECT_TRUE(writeAndReadBack(file, "parent", keysPerWriter));
    for (const auto pid : pids) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    }

    auto suite = openSqliteDefaultsSuite(file);
    ASSERT_TRUE(suite);
    const auto all = suite->dictionaryRepresentation();
    EXPECT_EQ(all.size(), std::size_t{(children + 1) * keysPerWriter});
    for (int c = 0; c < children; ++c) {
        for (int i = 0; i < keysPerWriter; ++i) {
            EXPECT_TRUE(all.contains(keyOf("child" + std::to_string(c), i)));
        }
    }
}

TEST(DefaultsConcurrency, TheHostProgramAndTheLibraryShareASuite) {
    const testing::TempDir home;
    const fs::path program = VONTU_DEFAULTS_PROGRAM;
    const auto file = home.path() / "preferences" / "group.ios.vontu.sqlite";
    constexpr int programRuns = 8;
    constexpr int keysPerWriter = 40;

    // The library creates the suite first, so that the programs write into a live store.
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
    for (int i = 0; i < keysPerWriter; ++i) {
        ASSERT_TRUE(suite->setObject(i, keyOf("library", i)));
    }
    programs.join();
    for (const auto& result : results) EXPECT_EQ(result.exitCode, 0) << result.err;

    const auto all = suite->dictionaryRepresentation();
    EXPECT_EQ(all.size(), std::size_t{programRuns + keysPerWriter});
    for (int i = 0; i < programRuns; ++i) {
        EXPECT_EQ(suite->objectForKey(keyOf("program", i)), PlistValue(i));
    }
    // And the program sees what the library wrote.
    const auto read = testing::runProcess(
        program, {"--home", home.path().string(), "read", "group.ios.vontu", "library-7"});
    EXPECT_EQ(read.exitCode, 0) << read.err;
    EXPECT_EQ(read.out, "7\n");
}

}  // namespace
}  // namespace vontu::platform::linux_host
