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
#include <vector>

#include <gtest/gtest.h>

#include "platform/PlistJson.hpp"
#include "tests/support/Process.hpp"
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

// A value of every type with the edge cases of each, and the JSON text it is written as
// (null where the JSON form is not checked: too long, or read back as another type).
struct TypedValue {
    std::string key;
    PlistValue value;
    const char* json;
};

std::vector<TypedValue> valuesOfEveryType() {
    return {
        {"string", "Grüße, 世界", R"("Grüße, 世界")"},
        {"empty string", "", R"("")"},
        {"string with NUL", std::string("a\0b", 3), R"("a\u0000b")"},
        {"integer max", std::numeric_limits<std::int64_t>::max(), "9223372036854775807"},
        {"integer min", std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
        {"double", 0.1, "0.1"},
        {"integral double", 3.0, "3.0"},
        {"huge double", 1.7976931348623157e308, "1.7976931348623157e+308"},
        {"tiny double", 4.9e-324, "5e-324"},
        {"false", false, "false"},
        {"date", Date{1700000000.25}, R"({"$date":1700000000.25})"},
        {"date before 1970", Date{-86400.5}, R"({"$date":-86400.5})"},
        {"data", toBytes("hi"), R"({"$data":"aGk="})"},
        {"every byte", everyByte(), nullptr},
        {"empty data", Bytes{}, R"({"$data":""})"},
        {"empty array", PlistArray{}, "[]"},
        {"empty dictionary", PlistDictionary{}, "{}"},
        // Only the exact forms are dates and data in JSON; the store keeps any dictionary.
        {"$date-keyed dictionary", PlistDictionary{{"$date", 5}}, nullptr},
        {"$data-keyed dictionary", PlistDictionary{{"$data", "aGk="}}, nullptr},
        {"$date beside another key", PlistDictionary{{"$date", 1}, {"x", 2}}, R"({"$date":1,"x":2})"},
        {"$data that is no string", PlistDictionary{{"$data", 5}}, R"({"$data":5})"},
        {"nested",
         PlistDictionary{
             {"records", PlistArray{PlistDictionary{{"eml", "From: a@b\r\n\r\nbody"},
                                                    {"gid", 7},
                                                    {"seen", Date{12.0}}},
                                    PlistArray{PlistArray{toBytes("x"), false, 2.5}}}},
             {"", PlistDictionary{{"b", PlistArray{Date{3.0}}}}}},
         R"({"":{"b":[{"$date":3.0}]},"records":[{"eml":"From: a@b\r\n\r\nbody","gid":7,)"
         R"("seen":{"$date":12.0}},[[{"$data":"eA=="},false,2.5]]]})"},
    };
}

TEST(DefaultsRoundTrip, EveryTypeKeepsItsTypeInTheStoreInJsonAndThroughTheHostProgram) {
    const TempDir home;
    const auto preferences = home.path() / "preferences";
    fs::create_directories(preferences);
    const auto values = valuesOfEveryType();
    PlistDictionary all, withJson;
    {
        auto suite = openSqliteDefaultsSuite(preferences / "library.sqlite");
        ASSERT_TRUE(suite);
        for (const auto& [key, value, json] : values) {
            ASSERT_TRUE(suite->setObject(value, key)) << key;
            EXPECT_EQ(suite->objectForKey(key), value) << key;
            all.emplace(key, value);
            if (json) withJson.emplace(key, value);
        }
    }
    auto reopened = openSqliteDefaultsSuite(preferences / "library.sqlite");
    ASSERT_TRUE(reopened);
    EXPECT_EQ(reopened->dictionaryRepresentation(), all);
    for (const auto* suffix : {"", "-wal", "-shm"}) {  // owner-only files, in WAL mode
        struct stat info {};
        const auto path = (preferences / "library.sqlite").string() + suffix;
        ASSERT_EQ(::stat(path.c_str(), &info), 0) << path;
        EXPECT_EQ(info.st_mode & 0777, 0600u) << path;
    }

    const fs::path program = VONTU_DEFAULTS_PROGRAM;
    for (const auto& [key, value, json] : values) {
        SCOPED_TRACE(key);
        EXPECT_EQ(reopened->objectForKey(key), value);
        if (!json) continue;
        EXPECT_EQ(plistToJson(value).dump(), json);
        EXPECT_EQ(plistFromJson(nlohmann::json::parse(json)), value);
        const auto write = testing::runProcess(
            program, {"--home", home.path().string(), "write", "program", key, json});
        EXPECT_EQ(write.exitCode, 0) << write.err;
        EXPECT_EQ(write.out, "");
    }
    // The program reads what the library wrote, and the library what the program wrote.
    const auto read = testing::runProcess(program, {"--home", home.path().string(), "read", "library"});
    EXPECT_EQ(read.out, plistToJson(PlistValue(all)).dump() + "\n") << read.err;
    auto written = openSqliteDefaultsSuite(preferences / "program.sqlite");
    ASSERT_TRUE(written);
    EXPECT_EQ(written->dictionaryRepresentation(), withJson);
}

TEST(PlistJson, ReadsOtherFormsAndRefusesJsonWithoutPropertyListForm) {
    const std::pair<const char*, PlistValue> reads[] = {
        {"1e3", PlistValue(1000.0)},
        // Integers that a signed 64-bit value cannot hold become doubles.
        {"9223372036854775808", PlistValue(9223372036854775808.0)},
        {"18446744073709551616", PlistValue(18446744073709551616.0)},
        {R"([{"$date": -12}, {"$date": "soon"}])",
         PlistValue(PlistArray{Date{-12.0}, PlistDictionary{{"$date", "soon"}}})},
    };
    for (const auto& [text, expected] : reads) {
        EXPECT_EQ(plistFromJson(nlohmann::json::parse(text)), expected) << text;
    }
    const std::string refused[] = {
        "null", R"({"a": [1, null]})", R"({"$data": "not base64!"})", R"([{"$data": "a=Gk"}])",
        std::string(20000, '[') + std::string(20000, ']'),
    };
    for (const auto& text : refused) {
        const auto read = plistFromJson(nlohmann::json::parse(text));
        ASSERT_FALSE(read.has_value()) << text.substr(0, 40);
        EXPECT_FALSE(read.error().empty());
    }
}

class SqliteDefaultsSuiteTest : public ::testing::Test {
protected:
    fs::path file() const { return dir_.path() / "suite.sqlite"; }
    std::shared_ptr<DefaultsSuite> open() const { return openSqliteDefaultsSuite(file()); }

    TempDir dir_;
};

TEST_F(SqliteDefaultsSuiteTest, KeepsNumbersAndDatesThatAreNotFinite) {
    auto suite = open();
    ASSERT_TRUE(suite);
    const double inf = std::numeric_limits<double>::infinity();
    for (double number : {std::nan(""), inf, -inf}) {
        ASSERT_TRUE(suite->setObject(number, "double"));
        ASSERT_TRUE(suite->setObject(Date{number}, "date"));
        const auto stored = suite->objectForKey("double");
        const auto date = suite->objectForKey("date");
        ASSERT_TRUE(stored && stored->is<double>() && date && date->is<Date>()) << number;
        const double back[] = {*stored->as<double>(), date->as<Date>()->secondsSince1970};
        for (double value : back) {
            EXPECT_TRUE(std::isnan(number) ? std::isnan(value) : value == number) << number;
        }
    }
}

TEST_F(SqliteDefaultsSuiteTest, ReplacesAndRemovesKeysAndRefusesValuesWithoutStoredForm) {
    auto suite = open();
    ASSERT_TRUE(suite);
    EXPECT_EQ(suite->objectForKey("k"), std::nullopt);
    EXPECT_TRUE(suite->removeObject("k"));  // removing what is not there succeeds
    ASSERT_TRUE(suite->setObject(1, "k"));
    ASSERT_TRUE(suite->setObject("one", "k"));
    ASSERT_TRUE(suite->setObject(2, "other"));
    EXPECT_EQ(suite->objectForKey("k"), PlistValue("one"));
    EXPECT_TRUE(suite->removeObject("k"));
    EXPECT_EQ(suite->dictionaryRepresentation(), (PlistDictionary{{"other", 2}}));

    PlistValue deep = 1;
    for (int i = 0; i < 1000; ++i) deep = PlistValue(PlistArray{std::move(deep)});
    const PlistValue refused[] = {deep, std::string("\xff\xfe"), PlistDictionary{{"\xc3", 1}}};
    for (const auto& value : refused) {
        EXPECT_FALSE(suite->setObject(value, "other"));
        EXPECT_EQ(suite->objectForKey("other"), PlistValue(2));
    }
}

// ---- Damaged stores read as absent and never crash.

void writeFile(const fs::path& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST_F(SqliteDefaultsSuiteTest, DamagedFilesNeverGiveWrongValuesOrCrash) {
    const PlistValue stored(std::string(100, 'v'));
    {
        auto suite = open();
        ASSERT_TRUE(suite);
        for (int i = 0; i < 200; ++i) ASSERT_TRUE(suite->setObject(stored, "key" + std::to_string(i)));
    }
    // Suites leave their log for the next process; fold it into the file to damage it.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file().c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    const auto intact = readFile(file());
    ASSERT_GT(intact.size(), 8192u);
    const std::pair<const char*, std::function<std::string(std::string)>> damages[] = {
        {"truncated", [](std::string s) { return s.substr(0, s.size() / 2); }},
        {"garbage after the header",
         [](std::string s) { return s.replace(100, 4000, std::string(4000, '\x7f')); }},
        {"garbage in later pages",
         [](std::string s) { return s.replace(4096, s.size() - 4096, s.size() - 4096, '\x01'); }},
    };
    for (const auto& [name, damage] : damages) {
        SCOPED_TRACE(name);
        // A log left by the previous round would be replayed over this round's file.
        fs::remove(file().string() + "-wal");
        fs::remove(file().string() + "-shm");
        writeFile(file(), damage(intact));
        auto suite = open();
        if (!suite) continue;  // not a usable database: absent
        for (int i = 0; i < 200; ++i) {
            const auto value = suite->objectForKey("key" + std::to_string(i));
            if (value) {
                EXPECT_EQ(*value, stored);
            }
        }
        for (const auto& [key, value] : suite->dictionaryRepresentation()) EXPECT_EQ(value, stored) << key;
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
        R"("bare string")",
        R"(["x", 1])",
        R"(["i", 9223372036854775808])",
        R"(["r", "NaN!"])",
        R"(["d", "!!!"])",
        R"(["a", [["s", "ok"], ["i"]]])",
        R"(["m", {"a": "untagged"}])",
        std::string(2000, '[') + R"("s", "x")" + std::string(2000, ']'),
    };
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file().c_str(), &db), SQLITE_OK);
    sqlite3_stmt* insert = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "INSERT INTO defaults (key, value) VALUES (?1, ?2)", -1,
                                 &insert, nullptr),
              SQLITE_OK);
    for (std::size_t i = 0; i < std::size(unreadable); ++i) {
        const auto key = "bad" + std::to_string(i);
        sqlite3_bind_text(insert, 1, key.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 2, unreadable[i].data(), static_cast<int>(unreadable[i].size()),
                          SQLITE_TRANSIENT);
        EXPECT_EQ(sqlite3_step(insert), SQLITE_DONE);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    EXPECT_EQ(sqlite3_exec(db, "INSERT INTO defaults VALUES ('blob', x'00ff')", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);

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
// File permissions do not bind root, so these checks run in a child process that is not root
// (made "nobody" when the tests run as root, which needs a temporary directory that others may
// pass through, as /tmp is). The child reports the first failed check.
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
        if (::geteuid() == 0 &&
            (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)) {
            failure = "cannot drop privileges";
        } else {
            failure = scenario();
        }
        [[maybe_unused]] auto written = ::write(report[1], failure.data(), failure.size());
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
    return WIFEXITED(status) ? failure : "the child crashed";
}

TEST_F(SqliteDefaultsSuiteTest, ReadOnlyFilesReadButRefuseWritesAndReadOnlyDirectoriesGetNoSuite) {
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

        const auto inner = dir_.path() / "locked";
        if (!fs::create_directory(inner) || ::chmod(inner.c_str(), 0500) != 0) {
            return "cannot protect the directory";
        }
        if (openSqliteDefaultsSuite(inner / "suite.sqlite") != nullptr) {
            return "a suite opened in a read-only directory";
        }
        if (fs::exists(inner / "suite.sqlite")) return "a file appeared";
        return "";
    });
    EXPECT_EQ(failure, "");
}

}  // namespace
}  // namespace vontu::platform::linux_host
