// vontu-defaults run as a process, as scripts and the other hosts' tests use it.

#include <sys/stat.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Process.hpp"
#include "tests/support/TempDir.hpp"

namespace vontu::testing {
namespace {

namespace fs = std::filesystem;

class VontuDefaultsHost : public ::testing::Test {
protected:
    ProcessResult run(std::vector<std::string> args) const {
        args.insert(args.begin(), {"--home", home_.path().string()});
        return runProcess(VONTU_DEFAULTS_PROGRAM, args);
    }
    // Runs the program and checks that it failed with this exit code and one line of error.
    void expectFailure(const std::vector<std::string>& args, int exitCode) const {
        std::string shown;
        for (const auto& arg : args) shown += "[" + arg + "]";
        const auto result = run(args);
        EXPECT_EQ(result.exitCode, exitCode) << shown;
        EXPECT_EQ(result.out, "") << shown;
        EXPECT_TRUE(!result.err.empty() && result.err.find('\n') == result.err.size() - 1)
            << shown << ": " << result.err;
    }
    fs::path preferences() const { return home_.path() / "preferences"; }

    TempDir home_;
};

TEST_F(VontuDefaultsHost, ReadsAndDeletesKeysAndWholeSuites) {
    ASSERT_EQ(run({"write", "s", "a", "1"}).exitCode, 0);
    ASSERT_EQ(run({"write", "s", "b", R"(["x"])"}).exitCode, 0);
    EXPECT_EQ(run({"read", "s"}).out, "{\"a\":1,\"b\":[\"x\"]}\n");
    EXPECT_EQ(run({"delete", "s", "a"}).exitCode, 0);
    EXPECT_EQ(run({"delete", "s", "a"}).exitCode, 0);  // already gone
    EXPECT_EQ(run({"read", "s"}).out, "{\"b\":[\"x\"]}\n");
    expectFailure({"read", "s", "a"}, 1);
    expectFailure({"read", "never-written", "a"}, 1);

    ASSERT_EQ(run({"write", "s", "c", "2"}).exitCode, 0);
    EXPECT_EQ(run({"delete", "s"}).exitCode, 0);
    EXPECT_EQ(run({"read", "s"}).out, "{}\n");
    // Reading and deleting never create a suite.
    EXPECT_EQ(run({"read", "other"}).out, "{}\n");
    EXPECT_EQ(run({"delete", "other"}).exitCode, 0);
    EXPECT_FALSE(fs::exists(preferences() / "never-written.sqlite"));
    EXPECT_FALSE(fs::exists(preferences() / "other.sqlite"));
}

TEST_F(VontuDefaultsHost, RefusesBadInputWithExitTwoAndWritesNothing) {
    const std::vector<std::vector<std::string>> cases = {
        {"write", "s", "k", "{not json"},
        {"write", "s", "k", R"({"a": [null]})"},
        {"write", "..", "k", "1"},
        {"delete", "a/b", "k"},
        {},
        {"frobnicate", "s"},
        {"write", "s", "k"},
        {"read", "s", "k", "extra"},
    };
    for (const auto& args : cases) expectFailure(args, 2);
    EXPECT_FALSE(fs::exists(preferences()));
}

// The order of the sources of the state root is the platform's (checked with it); without
// --home the program must take it from the environment and create private directories.
TEST_F(VontuDefaultsHost, TakesTheStateRootFromTheEnvironmentAndMakesItPrivate) {
    const fs::path root = home_.path() / "env";
    const auto result = runProcess(VONTU_DEFAULTS_PROGRAM, {"write", "suite", "k", "1"}, "", {{"VONTU_HOME", root.string()}});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    for (const auto& [path, mode] : {std::pair{root, 0700u}, {root / "preferences", 0700u}, {root / "preferences" / "suite.sqlite", 0600u}}) {
        struct stat info {};
        ASSERT_EQ(::stat(path.c_str(), &info), 0) << path;
        EXPECT_EQ(info.st_mode & 0777, mode) << path;
    }
    // A relative $XDG_DATA_HOME is ignored rather than taken from the working directory.
    const fs::path user = home_.path() / "user";
    const auto fallback = runProcess(VONTU_DEFAULTS_PROGRAM, {"write", "suite", "k", "1"}, "",
                                     {{"VONTU_HOME", ""}, {"XDG_DATA_HOME", "relative"}, {"HOME", user.string()}});
    ASSERT_EQ(fallback.exitCode, 0) << fallback.err;
    EXPECT_TRUE(fs::exists(user / ".local" / "share" / "vontu" / "preferences" / "suite.sqlite"));
}

TEST_F(VontuDefaultsHost, AnUnusableSuiteFailsWithExitOneAndIsLeftAlone) {
    fs::create_directories(preferences());
    const auto file = preferences() / "broken.sqlite";
    const std::string garbage(8192, '\x42');
    std::ofstream(file, std::ios::binary) << garbage;
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"read", "broken", "k"}, {"read", "broken"}, {"write", "broken", "k", "1"}, {"delete", "broken"}}) {
        expectFailure(args, 1);
    }
    std::ifstream in(file, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), garbage);
}

}  // namespace
}  // namespace vontu::testing
