#include "platform/linux/SqliteDefaultsSuite.hpp"

#include <grp.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <fstream>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TempDir.hpp"

namespace vontu::platform::linux_host {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

Bytes everyByte() {
    Bytes bytes;
    for (int b = 0; b < 256; ++b) bytes.push_back(static_cast<std::uint8_t>(b));
    return bytes;
}

// One value of every type, with the edge cases of each.
std::vector<std::pair<std::string, PlistValue>> valuesOfEveryType() {
    return {
        {"string", PlistValue("Grüße, 世界")},
        {"empty string", PlistValue("")},
        {"string with NUL", PlistValue(std::string("a\0b", 3))},
        {"integer", PlistValue(42)},
        {"integer max", PlistValue(std::numeric_limits<std::int64_t>::max())},
        {"integer min", PlistValue(std::numeric_limits<std::int64_t>::min())},
        {"double", PlistValue(0.1)},
        {"integral double", PlistValue(3.0)},
        {"negative zero", PlistValue(-0.0)},
        {"huge double", PlistValue(1.7976931348623157e308)},
        {"tiny double", PlistValue(4.9e-324)},
        {"infinity", PlistValue(-std::numeric_limits<double>::infinity())},
        {"true", PlistValue(true)},
        {"false", PlistValue(false)},
        {"date", PlistValue(Date{1700000000.123456})},
        {"date before 1970", PlistValue(Date{-86400.5})},
        {"data", PlistValue(everyByte())},
        {"empty data", PlistValue(Bytes{})},
        {"empty array", PlistValue(PlistArray{})},
        {"empty dictionary", PlistValue(PlistDictionary{})},
        {"$date-keyed dictionary", PlistValue(PlistDictionary{{"$date", 5}})},
        {"$data-keyed dictionary", PlistValue(PlistDictionary{{"$data", "aGk="}})},
        {"nested",
         PlistValue(PlistDictionary{
             {"records", PlistArray{PlistDictionary{{"eml", "From: a@b\r\n\r\nbody"},
                                                    {"gid", 7},
                                                    {"seen", Date{12.0}}},
                                    PlistArray{PlistArray{toBytes("x"), false, 2.5}}}},
             {"", PlistDictionary{{"$date", PlistDictionary{{"$date", Date{1.0}}}}}}})},
    };
}

class SqliteDefaultsSuiteTest : public ::testing::Test {
protected:
    fs::path file() const { return dir_.path() / "suite.sqlite"; }
    std::shared_ptr<DefaultsSuite> open() const { return openSqliteDefaultsSuite(file()); }

    TempDir dir_;
};

TEST_F(SqliteDefaultsSuiteTest, KeepsEveryTypeAcrossWriteReadAndReopen) {
    const auto values = valuesOfEveryType();
    {
        auto suite = open();
        ASSERT_TRUE(suite);
        for (const auto& [key, value] : values) ASSERT_TRUE(suite->setObject(value, key)) << key;
        for (const auto& [key, value] : values) EXPECT_EQ(suite->objectForKey(key), value) << key;
    }
    auto reopened = open();
    ASSERT_TRUE(reopened);
    for (const auto& [key, value] : values) EXPECT_EQ(reopened->objectForKey(key), value) << key;
    EXPECT_EQ(reopened->dictionaryRepresentation(),
              PlistDictionary(values.begin(), values.end()));
}

TEST_F(SqliteDefaultsSuiteTest, KeepsNotANumber) {
    auto suite = open();
    ASSERT_TRUE(suite);
    ASSERT_TRUE(suite->setObject(std::nan(""), "double"));
    ASSERT_TRUE(suite->setObject(Date{std::nan("")}, "date"));
    const auto number = suite->objectForKey("double");
    const auto date = suite->objectForKey("date");
    ASSERT_TRUE(number && number->is<double>());
    ASSERT_TRUE(date && date->is<Date>());
    EXPECT_TRUE(std::isnan(*number->as<double>()));
    EXPECT_TRUE(std::isnan(date->as<Date>()->secondsSince1970));
}

TEST_F(SqliteDefaultsSuiteTest, ReplacesAndRemovesKeys) {
    auto suite = open();
    ASSERT_TRUE(suite);
    EXPECT_EQ(suite->objectForKey("k"), std::nullopt);
    EXPECT_TRUE(suite->removeObject("k"));  // removing what is not there succeeds

    ASSERT_TRUE(suite->setObject(1, "k"));
    ASSERT_TRUE(suite->setObject("one", "k"));
    EXPECT_EQ(suite->objectForKey("k"), PlistValue("one"));
    ASSERT_TRUE(suite->setObject(2, "other"));

    EXPECT_TRUE(suite->removeObject("k"));
    EXPECT_EQ(suite->objectForKey("k"), std::nullopt);
    EXPECT_EQ(suite->dictionaryRepresentation(), (PlistDictionary{{"other", 2}}));
}

TEST_F(SqliteDefaultsSuiteTest, RefusesValuesWithoutStoredFormAndKeepsTheOldValue) {
    PlistValue deepest = 1;
    for (int i = 0; i < 1000; ++i) {
        PlistArray wrapper;
        wrapper.push_back(std::move(deepest));
        deepest = PlistValue(std::move(wrapper));
    }
    const PlistValue deep = std::move(deepest);
    const PlistValue notUtf8 = std::string("\xff\xfe");
    const PlistValue nestedNotUtf8 = PlistDictionary{{"\xc3", 1}};

    auto suite = open();
    ASSERT_TRUE(suite);
    ASSERT_TRUE(suite->setObject("kept", "k"));
    for (const auto* value : {&deep, &notUtf8, &nestedNotUtf8}) {
        EXPECT_FALSE(suite->setObject(*value, "k"));
        EXPECT_EQ(suite->objectForKey("k"), PlistValue("kept"));
    }
}

TEST_F(SqliteDefaultsSuiteTest, CreatesOwnerOnlyFilesInWalMode) {
    auto suite = open();
    ASSERT_TRUE(suite);
    ASSERT_TRUE(suite->setObject(1, "k"));
    for (const auto* suffix : {"", "-wal", "-shm"}) {
        struct stat info {};
        const auto path = file().string() + suffix;
        ASSERT_EQ(::stat(path.c_str(), &info), 0) << path;
        EXPECT_EQ(info.st_mode & 0777, 0600u) << path;
    }
}

TEST_F(SqliteDefaultsSuiteTest, IsSafeForConcurrentCallersOfOneSuite) {
    auto suite = open();
    ASSERT_TRUE(suite);
    constexpr int threads = 4;
    constexpr int keysPerThread = 40;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&suite, t] {
            for (int i = 0; i < keysPerThread; ++i) {
                const auto key = "t" + std::to_string(t) + "-" + std::to_string(i);
                if (suite->setObject(i, key)) suite->objectForKey(key);
                suite->dictionaryRepresentation();
            }
        });
    }
    for (auto& worker : workers) worker.join();
    EXPECT_EQ(suite->dictionaryRepresentation().size(), std::size_t{threads * keysPerThread});
}

// ---- Damaged stores read as absent and never crash.

void writeFile(const fs::path& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST_F(SqliteDefaultsSuiteTest, AFileThatIsNotADatabaseIsNotOpened) {
    writeFile(file(), std::string(4096, '\x5a') + "garbage");
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(readFile(file()), std::string(4096, '\x5a') + "garbage");  // left as it was
}

TEST_F(SqliteDefaultsSuiteTest, DamagedPagesNeverGiveWrongValuesOrCrash) {
    {
        auto suite = open();
        ASSERT_TRUE(suite);
        for (int i = 0; i < 200; ++i) {
            ASSERT_TRUE(suite->setObject(std::string(100, 'v'), "key" + std::to_string(i)));
        }
    }
    // Suites leave their log for the next process; fold it into the file to damage it.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file().c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    const auto intact = readFile(file());
    ASSERT_GT(intact.size(), 8192u);
    struct Damage {
        const char* name;
        std::function<std::string(std::string)> apply;
    };
    const Damage damages[] = {
        {"truncated", [](std::string s) { return s.substr(0, s.size() / 2); }},
        {"garbage after the header",
         [](std::string s) { return s.replace(100, 4000, std::string(4000, '\x7f')); }},
        {"garbage in later pages",
         [](std::string s) { return s.replace(4096, s.size() - 4096, s.size() - 4096, '\x01'); }},
    };
    for (const auto& damage : damages) {
        SCOPED_TRACE(damage.name);
        // A WAL left by the previous round would be replayed over this round's file.
        fs::remove(file().string() + "-wal");
        fs::remove(file().string() + "-shm");
        writeFile(file(), damage.apply(intact));
        auto suite = open();
        if (!suite) continue;  // not a usable database: absent
        for (int i = 0; i < 200; ++i) {
            const auto value = suite->objectForKey("key" + std::to_string(i));
            if (value) {
                EXPECT_EQ(*value, PlistValue(std::string(100, 'v')));
            }
        }
        for (const auto& [key, value] : suite->dictionaryRepresentation()) {
            EXPECT_EQ(value, PlistValue(std::string(100, 'v'))) << key;
        }
        suite->setObject(1, "new");
        suite->removeObject("key1");
    }
}

TEST_F(SqliteDefaultsSuiteTest, RowsThatCannotBeReadAreAbsent) {
    {
        auto suite = open();
        ASSERT_TRUE(suite);
        ASSERT_TRUE(suite->setObject("fine", "good"));
    }
    const std::string unreadable[] = {
        "not json",
        "",
        R"("bare string")",
        R"(["s"])",
        R"(["x", 1])",
        R"(["i", 1.5])",
        R"(["i", 9223372036854775808])",
        R"(["r", "NaN!"])",
        R"(["b", 1])",
        R"(["d", "!!!"])",
        R"(["a", [["s", "ok"], ["i"]]])",
        R"(["m", {"a": "untagged"}])",
        R"(["m", []])",
        std::string(2000, '[') + R"("s", "x")" + std::string(2000, ']'),
    };
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(file().c_str(), &db), SQLITE_OK);
        sqlite3_stmt* insert = nullptr;
        ASSERT_EQ(sqlite3_prepare_v2(db, "INSERT INTO defaults (key, value) VALUES (?1, ?2)", -1,
                                     &insert, nullptr),
                  SQLITE_OK);
        for (std::size_t i = 0; i < std::size(unreadable); ++i) {
            const auto key = "bad" + std::to_string(i);
            sqlite3_bind_text(insert, 1, key.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(insert, 2, unreadable[i].data(),
                              static_cast<int>(unreadable[i].size()), SQLITE_TRANSIENT);
            EXPECT_EQ(sqlite3_step(insert), SQLITE_DONE);
            sqlite3_reset(insert);
        }
        EXPECT_EQ(sqlite3_exec(db, "INSERT INTO defaults VALUES ('blob', x'00ff')", nullptr,
                               nullptr, nullptr),
                  SQLITE_OK);
        sqlite3_finalize(insert);
        sqlite3_close(db);
    }
    auto suite = open();
    ASSERT_TRUE(suite);
    for (std::size_t i = 0; i < std::size(unreadable); ++i) {
        EXPECT_EQ(suite->objectForKey("bad" + std::to_string(i)), std::nullopt) << unreadable[i];
    }
    EXPECT_EQ(suite->objectForKey("blob"), std::nullopt);
    EXPECT_EQ(suite->dictionaryRepresentation(), (PlistDictionary{{"good", "fine"}}));
}

// ---- Stores that cannot be written.
//
// File permissions do not bind root, so these scenarios run in a child process that is not
// root (made "nobody" when the tests run as root, which needs a temporary directory that others
// may pass through, as /tmp is). The child reports the first failed check.

std::string runUnprivileged(const fs::path& dir, const std::function<std::string()>& scenario) {
    if (::geteuid() == 0) {
        constexpr uid_t nobody = 65534;
        if (::chown(dir.c_str(), nobody, nobody) != 0 || ::chmod(dir.c_str(), 0700) != 0) {
            return "cannot hand the directory over";
        }
    }
    int report[2];
    if (::pipe(report) != 0) return "no pipe";
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(report[0]);
        std::string failure;
        if (::geteuid() == 0 && (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 ||
                                 ::setuid(65534) != 0)) {
            failure = "cannot drop privileges";
        } else {
            failure = scenario();
        }
        if (!failure.empty()) {
            [[maybe_unused]] auto written = ::write(report[1], failure.data(), failure.size());
        }
        ::_exit(failure.empty() ? 0 : 1);
    }
    ::close(report[1]);
    std::string failure;
    char buffer[512];
    for (ssize_t n; (n = ::read(report[0], buffer, sizeof buffer)) > 0;) {
        failure.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(report[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFEXITED(status)) return "the child crashed";
    return failure;
}

TEST_F(SqliteDefaultsSuiteTest, AReadOnlyFileReadsButRefusesWrites) {
    const auto failure = runUnprivileged(dir_.path(), [this]() -> std::string {
        {
            auto suite = open();
            if (!suite || !suite->setObject("kept", "k")) return "cannot prepare the suite";
        }
        if (::chmod(file().c_str(), 0400) != 0) return "cannot protect the file";
        auto suite = open();
        if (!suite) return "a read-only suite does not open";
        if (suite->objectForKey("k") != PlistValue("kept")) return "the stored value is lost";
        if (suite->setObject("new", "k")) return "a write to a read-only file succeeded";
        if (suite->setObject("new", "other")) return "an insert into a read-only file succeeded";
        if (suite->removeObject("k")) return "a removal from a read-only file succeeded";
        if (suite->objectForKey("k") != PlistValue("kept")) return "the stored value changed";
        return "";
    });
    EXPECT_EQ(failure, "");
}

TEST_F(SqliteDefaultsSuiteTest, ASuiteCannotBeCreatedInAReadOnlyDirectory) {
    const auto failure = runUnprivileged(dir_.path(), [this]() -> std::string {
        if (::chmod(dir_.path().c_str(), 0500) != 0) return "cannot protect the directory";
        if (open() != nullptr) return "a suite opened in a read-only directory";
        if (fs::exists(file())) return "a file appeared";
        return "";
    });
    EXPECT_EQ(failure, "");
}

}  // namespace
}  // namespace vontu::platform::linux_host
