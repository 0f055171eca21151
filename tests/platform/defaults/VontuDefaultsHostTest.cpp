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
    fs::path preferences() const { return home_.path() / "preferences"; }

    TempDir home_;
};

bool isOneLine(const std::string& text) {
    return !text.empty() && text.find('\n') == text.size() - 1;
}

TEST_F(VontuDefaultsHost, WritesAndReadsEveryJsonForm) {
    struct Case {
        const char* written;
        const char* read;
    };
    const Case cases[] = {
        {R"("text")", R"("text")"},
        {R"(42)", R"(42)"},
        {R"(-5)", R"(-5)"},
        {R"(1.0)", R"(1.0)"},
        {R"(1e3)", R"(1000.0)"},
        {R"(true)", R"(true)"},
        {R"({"$date": 1700000000.5})", R"({"$date":1700000000.5})"},
        {R"({"$data": "aGk="})", R"({"$data":"aGk="})"},
        {R"({"b": [1, {"$date": 2}], "a": {}})", R"({"a":{},"b":[1,{"$date":2.0}]})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.written);
        const auto write = run({"write", "suite", "key", c.written});
        ASSERT_EQ(write.exitCode, 0) << write.err;
        EXPECT_EQ(write.out, "");
        const auto read = run({"read", "suite", "key"});
        ASSERT_EQ(read.exitCode, 0) << read.err;
        EXPECT_EQ(read.out, std::string(c.read) + "\n");
    }
}

TEST_F(VontuDefaultsHost, ReadsAndDeletesKeysAndWholeSuites) {
    ASSERT_EQ(run({"write", "s", "a", "1"}).exitCode, 0);
    ASSERT_EQ(run({"write", "s", "b", R"(["x"])"}).exitCode, 0);
    EXPECT_EQ(run({"read", "s"}).out, "{\"a\":1,\"b\":[\"x\"]}\n");

    EXPECT_EQ(run({"delete", "s", "a"}).exitCode, 0);
    EXPECT_EQ(run({"delete", "s", "a"}).exitCode, 0);  // already gone
    EXPECT_EQ(run({"read", "s", "a"}).exitCode, 1);
    EXPECT_EQ(run({"read", "s"}).out, "{\"b\":[\"x\"]}\n");

    ASSERT_EQ(run({"write", "s", "c", "2"}).exitCode, 0);
    EXPECT_EQ(run({"delete", "s"}).exitCode, 0);
    EXPECT_EQ(run({"read", "s"}).out, "{}\n");
}

TEST_F(VontuDefaultsHost, AMissingKeyIsOneErrorLineAndExitOne) {
    for (const auto* suite : {"never-written", "written"}) {
        SCOPED_TRACE(suite);
        if (std::string(suite) == "written") {
            ASSERT_EQ(run({"write", suite, "k", "1"}).exitCode, 0);
        }
        const auto read = run({"read", suite, "absent"});
        EXPECT_EQ(read.exitCode, 1);
        EXPECT_EQ(read.out, "");
        EXPECT_TRUE(isOneLine(read.err)) << read.err;
    }
    // Reading and deleting never create a suite.
    EXPECT_EQ(run({"read", "other"}).out, "{}\n");
    EXPECT_EQ(run({"delete", "other"}).exitCode, 0);
    EXPECT_FALSE(fs::exists(preferences() / "never-written.sqlite"));
    EXPECT_FALSE(fs::exists(preferences() / "other.sqlite"));
}

TEST_F(VontuDefaultsHost, RefusesBadInputWithExitTwoAndWritesNothing) {
    const std::vector<std::vector<std::string>> cases = {
        {"write", "s", "k", "{not json"},
        {"write", "s", "k", "null"},
        {"write", "s", "k", R"({"a": [null]})"},
        {"write", "s", "k", R"({"$data": "***"})"},
        {"write", "s/t", "k", "1"},
        {"write", "..", "k", "1"},
        {"write", ".", "k", "1"},
        {"write", "", "k", "1"},
        {"read", "../escape"},
        {"delete", "a/b", "k"},
        {},
        {"frobnicate", "s"},
        {"read"},
        {"write", "s", "k"},
        {"read", "s", "k", "extra"},
    };
    for (const auto& args : cases) {
        std::string shown;
        for (const auto& arg : args) shown += "[" + arg + "]";
        SCOPED_TRACE(shown);
        const auto result = run(args);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(isOneLine(result.err)) << result.err;
    }
    EXPECT_FALSE(fs::exists(preferences()));
}

TEST_F(VontuDefaultsHost, FindsTheStateRootAsTheHostsDo) {
    struct Case {
        const char* name;
        std::map<std::string, std::string> env;
        bool withHomeOption;
        fs::path expectedRoot;
    };
    const fs::path root = home_.path();
    const Case cases[] = {
        {"--home wins", {{"VONTU_HOME", (root / "env").string()}}, true, root / "option"},
        {"$VONTU_HOME",
         {{"VONTU_HOME", (root / "env").string()}, {"XDG_DATA_HOME", (root / "xdg").string()}},
         false, root / "env"},
        {"$XDG_DATA_HOME", {{"VONTU_HOME", ""}, {"XDG_DATA_HOME", (root / "xdg").string()}},
         false, root / "xdg" / "vontu"},
        {"$HOME", {{"VONTU_HOME", ""}, {"XDG_DATA_HOME", ""}, {"HOME", (root / "user").string()}},
         false, root / "user" / ".local" / "share" / "vontu"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> args = {"write", "suite", "k", "1"};
        if (c.withHomeOption) args.insert(args.begin(), {"--home", (root / "option").string()});
        const auto result = runProcess(VONTU_DEFAULTS_PROGRAM, args, "", c.env);
        ASSERT_EQ(result.exitCode, 0) << result.err;
        const auto file = c.expectedRoot / "preferences" / "suite.sqlite";
        ASSERT_TRUE(fs::exists(file));
        struct stat info {};
        ASSERT_EQ(::stat(file.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0600u);
        for (const auto& dir : {c.expectedRoot, c.expectedRoot / "preferences"}) {
            ASSERT_EQ(::stat(dir.c_str(), &info), 0);
            EXPECT_EQ(info.st_mode & 0777, 0700u) << dir;
        }
    }
}

TEST_F(VontuDefaultsHost, AnUnusableSuiteFailsWithExitOneAndIsLeftAlone) {
    fs::create_directories(preferences());
    const auto file = preferences() / "broken.sqlite";
    const std::string garbage(8192, '\x42');
    {
        std::ofstream(file, std::ios::binary) << garbage;
    }
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"read", "broken", "k"}, {"read", "broken"}, {"write", "broken", "k", "1"},
             {"delete", "broken"}}) {
        SCOPED_TRACE(args.front());
        const auto result = run(args);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_TRUE(isOneLine(result.err)) << result.err;
    }
    std::ifstream in(file, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), garbage);
}

}  // namespace
}  // namespace vontu::testing
