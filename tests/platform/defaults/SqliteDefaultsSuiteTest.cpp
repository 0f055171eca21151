#include "platform/linux/SqliteDefaultsSuite.hpp"

#include <grp.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <functional>
#include <limits>
#include <numeric>

#include <gtest/gtest.h>

#include "platform/PlistJson.hpp"
#include "tests/support/TempDir.hpp"

namespace vontu::platform::linux_host {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

TEST(DefaultsRoundTrip, EveryTypeKeepsItsTypeInTheStoreAndInJson) {
    Bytes everyByte(256);
    std::iota(everyByte.begin(), everyByte.end(), 0);
    const double inf = std::numeric_limits<double>::infinity();
    // Each value with the JSON text it is written as (null where the JSON form is not checked).
    const struct { std::string key; PlistValue value; const char* json; } values[] = {
        {"string", "Grüße, 世界", R"("Grüße, 世界")"},
        {"string with NUL", std::string("a\0b", 3), R"("a\u0000b")"},
        {"integer min", std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
        {"double", 0.1, "0.1"},
        {"integral double", 3.0, "3.0"},
        {"tiny double", 4.9e-324, "5e-324"},
        {"infinity", inf, nullptr},
        {"false", false, "false"},
        {"date before 1970", Date{-86400.5}, R"({"$date":-86400.5})"},
        {"date at minus infinity", Date{-inf}, nullptr},
        {"every byte", everyByte, nullptr},
        {"empty data", Bytes{}, R"({"$data":""})"},
        // Only the exact forms are dates and data in JSON; the store keeps any dictionary.
        {"$date beside another key", PlistDictionary{{"$date", 1}, {"x", 2}}, R"({"$date":1,"x":2})"},
        {"$data that is no string", PlistDictionary{{"$data", 5}}, R"({"$data":5})"},
        {"nested", PlistDictionary{{"", PlistArray{PlistDictionary{{"seen", Date{12.0}}}, PlistArray{toBytes("x"), 2.5}}}},
         R"({"":[{"seen":{"$date":12.0}},[{"$data":"eA=="},2.5]]})"},
    };
    const TempDir dir;
    const auto file = dir.path() / "library.sqlite";
    PlistDictionary all;
    {
        auto suite = openSqliteDefaultsSuite(file);
        ASSERT_TRUE(suite);
        for (const auto& [key, value, json] : values) {
            ASSERT_TRUE(suite->setObject(value, key)) << key;
            all.emplace(key, value);
        }
    }
    auto reopened = openSqliteDefaultsSuite(file);
    ASSERT_TRUE(reopened);
    EXPECT_EQ(reopened->dictionaryRepresentation(), all);
    for (const auto* suffix : {"", "-wal", "-shm"}) {  // owner-only files, in WAL mode
        struct stat info {};
        ASSERT_EQ(::stat((file.string() + suffix).c_str(), &info), 0) << suffix;
        EXPECT_EQ(info.st_mode & 0777, 0600u) << suffix;
    }
    for (const auto& [key, value, json] : values) {
        if (!json) continue;
        EXPECT_EQ(plistToJson(value).dump(), json) << key;
        EXPECT_EQ(plistFromJson(nlohmann::json::parse(json)), value) << key;
    }
}

TEST(PlistJson, ReadsOtherFormsAndRefusesJsonWithoutPropertyListForm) {
    // Integers that a signed 64-bit value cannot hold become doubles.
    EXPECT_EQ(plistFromJson(nlohmann::json::parse("9223372036854775808")), PlistValue(9223372036854775808.0));
    EXPECT_EQ(plistFromJson(nlohmann::json::parse(R"([{"$date": "soon"}])")),
              PlistValue(PlistArray{PlistDictionary{{"$date", "soon"}}}));
    const std::string refused[] = {
        R"({"a": [1, null]})", R"({"$data": "not base64!"})", std::string(20000, '[') + std::string(20000, ']')};
    for (const auto& text : refused) EXPECT_FALSE(plistFromJson(nlohmann::json::parse(text))) << text.substr(0, 40);
}

class SqliteDefaultsSuiteTest : public ::testing::Test {
protected:
    fs::path file() const { return dir_.path() / "suite.sqlite"; }
    std::shared_ptr<DefaultsSuite> open() const { return openSqliteDefaultsSuite(file()); }

    TempDir dir_;
};

// (Replacing and removing keys are checked through vontu-defaults and the extension's tests.)
TEST_F(SqliteDefaultsSuiteTest, KeepsNaNAndRefusesValuesWithoutStoredFormKeepingTheOldValue) {
    auto suite = open();
    ASSERT_TRUE(suite && suite->setObject(std::nan(""), "double") && suite->setObject(Date{std::nan("")}, "date"));
    const auto number = suite->objectForKey("double"), date = suite->objectForKey("date");
    ASSERT_TRUE(number && number->is<double>() && date && date->is<Date>());
    EXPECT_TRUE(std::isnan(*number->as<double>()) && std::isnan(date->as<Date>()->secondsSince1970));

    ASSERT_TRUE(suite->setObject(2, "other"));
    PlistValue deep = 1;
    for (int i = 0; i < 1000; ++i) deep = PlistValue(PlistArray{std::move(deep)});
    for (const auto& value : {deep, PlistValue(std::string("\xff\xfe")), PlistValue(PlistDictionary{{"\xc3", 1}})}) {
        EXPECT_FALSE(suite->setObject(value, "other"));
        EXPECT_EQ(suite->objectForKey("other"), PlistValue(2));
    }
}

// Runs SQL on the file directly, as another program could.
int executeSql(const fs::path& file, const std::string& sql) {
    sqlite3* db = nullptr;
    int status = sqlite3_open(file.c_str(), &db);
    if (status == SQLITE_OK) status = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return status;
}

TEST_F(SqliteDefaultsSuiteTest, DamagedFilesNeverGiveWrongValuesOrCrash) {
    const PlistValue stored(std::string(100, 'v'));
    {
        auto suite = open();
        ASSERT_TRUE(suite);
        for (int i = 0; i < 200; ++i) ASSERT_TRUE(suite->setObject(stored, "key" + std::to_string(i)));
    }
    // Suites leave their log for the next process; fold it into the file to damage it.
    ASSERT_EQ(executeSql(file(), "PRAGMA wal_checkpoint(TRUNCATE)"), SQLITE_OK);
    std::ifstream in(file(), std::ios::binary);
    const std::string intact{std::istreambuf_iterator<char>(in), {}};
    ASSERT_GT(intact.size(), 8192u);
    const std::pair<const char*, std::function<std::string(std::string)>> damages[] = {
        {"truncated", [](std::string s) { return s.substr(0, s.size() / 2); }},
        {"garbage after the header", [](std::string s) { return s.replace(100, 4000, std::string(4000, '\x7f')); }},
        {"garbage in later pages", [](std::string s) { return s.replace(4096, s.size() - 4096, s.size() - 4096, '\x01'); }},
    };
    for (const auto& [name, damage] : damages) {
        SCOPED_TRACE(name);
        // A log left by the previous round would be replayed over this round's file.
        for (const char* log : {"-wal", "-shm"}) fs::remove(file().string() + log);
        std::ofstream(file(), std::ios::binary | std::ios::trunc) << damage(intact);
        auto suite = open();
        if (!suite) continue;  // not a usable database: absent
        for (const auto& [key, value] : suite->dictionaryRepresentation()) EXPECT_EQ(value, stored) << key;
        suite->setObject(1, "new");
        suite->removeObject("key1");
    }
}

TEST_F(SqliteDefaultsSuiteTest, RowsThatCannotBeReadAreAbsent) {
    auto suite = open();
    ASSERT_TRUE(suite && suite->setObject("fine", "good"));
    // Rows that another writer put there, read through the suite that is already open.
    const std::string unreadable[] = {
        "not json", R"(["x", 1])", R"(["i", 9223372036854775808])", R"(["d", "!!!"])",
        R"(["a", [["s", "ok"], ["i"]]])", std::string(2000, '[') + R"("s", "x")" + std::string(2000, ']'),
    };
    std::string sql = "INSERT INTO defaults VALUES ('blob', x'00ff');";
    for (std::size_t i = 0; i < std::size(unreadable); ++i) {
        sql += "INSERT INTO defaults VALUES ('bad" + std::to_string(i) + "', '" + unreadable[i] + "');";
    }
    ASSERT_EQ(executeSql(file(), sql), SQLITE_OK);
    for (std::size_t i = 0; i < std::size(unreadable); ++i) {
        EXPECT_EQ(suite->objectForKey("bad" + std::to_string(i)), std::nullopt) << unreadable[i];
    }
    EXPECT_EQ(suite->dictionaryRepresentation(), (PlistDictionary{{"good", "fine"}}));
}

// File permissions do not bind root, so this runs the scenario in a child process that is not
// root (made "nobody" when the tests run as root, which needs a temporary directory that others
// may pass through, as /tmp is). The child reports the first failed check.
std::string runUnprivileged(const fs::path& dir, const std::function<std::string()>& scenario) {
    constexpr uid_t nobody = 65534;
    const bool root = ::geteuid() == 0;
    if (root && (::chown(dir.c_str(), nobody, nobody) != 0 || ::chmod(dir.c_str(), 0700) != 0)) return "cannot hand over";
    const auto report = dir / "failure.txt";
    const pid_t child = ::fork();
    if (child == 0) {
        const bool dropped = !root || (::setgroups(0, nullptr) == 0 && ::setgid(nobody) == 0 && ::setuid(nobody) == 0);
        std::ofstream(report) << (dropped ? scenario() : "cannot drop privileges");
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    std::ifstream in(report);
    if (!WIFEXITED(status) || !in) return "the child crashed or reported nothing";
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST_F(SqliteDefaultsSuiteTest, ReadOnlyFilesReadButRefuseWritesAndReadOnlyDirectoriesGetNoSuite) {
    const auto failure = runUnprivileged(dir_.path(), [this]() -> std::string {
        if (auto suite = open(); !suite || !suite->setObject("kept", "k")) return "cannot prepare the suite";
        if (::chmod(file().c_str(), 0400) != 0) return "cannot protect the file";
        auto suite = open();
        if (!suite || suite->objectForKey("k") != PlistValue("kept")) return "a read-only suite does not read";
        if (suite->setObject("new", "k") || suite->removeObject("k")) return "a read-only file was changed";
        if (suite->objectForKey("k") != PlistValue("kept")) return "the stored value changed";
        const auto inner = dir_.path() / "locked";
        if (!fs::create_directory(inner) || ::chmod(inner.c_str(), 0500) != 0) return "cannot protect the directory";
        if (openSqliteDefaultsSuite(inner / "suite.sqlite")) return "a suite opened in a read-only directory";
        if (fs::exists(inner / "suite.sqlite")) return "a file appeared";
        return "";
    });
    EXPECT_EQ(failure, "");
}

}  // namespace
}  // namespace vontu::platform::linux_host
