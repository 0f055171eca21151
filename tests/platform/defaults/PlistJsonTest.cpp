#include "platform/PlistJson.hpp"

#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace vontu::platform {
namespace {

using nlohmann::json;

struct ReadCase {
    const char* json;
    PlistValue expected;
};

TEST(PlistJson, ReadsEveryJsonFormAsItsPropertyListType) {
    const ReadCase cases[] = {
        {R"("text")", PlistValue("text")},
        {R"(true)", PlistValue(true)},
        {R"(42)", PlistValue(42)},
        {R"(-7)", PlistValue(-7)},
        {R"(9223372036854775807)", PlistValue(std::numeric_limits<std::int64_t>::max())},
        {R"(-9223372036854775808)", PlistValue(std::numeric_limits<std::int64_t>::min())},
        // Integers that a signed 64-bit value cannot hold become doubles.
        {R"(9223372036854775808)", PlistValue(9223372036854775808.0)},
        {R"(18446744073709551616)", PlistValue(18446744073709551616.0)},
        {R"(1.0)", PlistValue(1.0)},
        {R"(1e3)", PlistValue(1000.0)},
        {R"(-2.5)", PlistValue(-2.5)},
        {R"({"$date": 1700000000.25})", PlistValue(Date{1700000000.25})},
        {R"({"$date": -12})", PlistValue(Date{-12.0})},
        {R"({"$data": "aGk="})", PlistValue(toBytes("hi"))},
        {R"({"$data": ""})", PlistValue(Bytes{})},
        // Only the exact forms are dates and data; anything else is a dictionary.
        {R"({"$date": "soon"})", PlistValue(PlistDictionary{{"$date", "soon"}})},
        {R"({"$date": 1, "x": 2})", PlistValue(PlistDictionary{{"$date", 1}, {"x", 2}})},
        {R"({"$data": 5})", PlistValue(PlistDictionary{{"$data", 5}})},
        {R"([])", PlistValue(PlistArray{})},
        {R"({})", PlistValue(PlistDictionary{})},
        {R"({"a": [1, 2.0, {"b": [{"$date": 3}]}]})",
         PlistValue(PlistDictionary{
             {"a", PlistArray{1, 2.0, PlistDictionary{{"b", PlistArray{Date{3.0}}}}}}})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        const auto read = plistFromJson(json::parse(c.json));
        ASSERT_TRUE(read.has_value()) << read.error();
        EXPECT_EQ(*read, c.expected);
    }
}

TEST(PlistJson, RefusesJsonWithoutPropertyListForm) {
    const char* cases[] = {
        R"(null)",
        R"([1, null])",
        R"({"a": {"b": null}})",
        R"({"$data": "not base64!"})",
        R"({"$data": "aGk"})",
        R"([{"$data": "a=Gk"}])",
    };
    for (const auto* text : cases) {
        SCOPED_TRACE(text);
        const auto read = plistFromJson(json::parse(text));
        ASSERT_FALSE(read.has_value());
        EXPECT_FALSE(read.error().empty());
    }
}

TEST(PlistJson, RefusesNestingBeyondTheLimitWithoutExhaustingTheStack) {
    const std::string deep = std::string(20000, '[') + std::string(20000, ']');
    const auto read = plistFromJson(json::parse(deep));
    EXPECT_FALSE(read.has_value());
}

TEST(PlistJson, WritesEveryTypeInItsJsonForm) {
    struct WriteCase {
        PlistValue value;
        const char* json;
    };
    const WriteCase cases[] = {
        {PlistValue("text"), R"("text")"},
        {PlistValue(-3), R"(-3)"},
        {PlistValue(3.0), R"(3.0)"},
        {PlistValue(false), R"(false)"},
        {PlistValue(Date{1.5}), R"({"$date":1.5})"},
        {PlistValue(toBytes("hi")), R"({"$data":"aGk="})"},
        {PlistValue(PlistDictionary{{"b", 1}, {"a", PlistArray{true, "x"}}}),
         R"({"a":[true,"x"],"b":1})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        EXPECT_EQ(plistToJson(c.value).dump(), c.json);
        // And the form reads back as the same value.
        EXPECT_EQ(plistFromJson(plistToJson(c.value)), c.value);
    }
}

}  // namespace
}  // namespace vontu::platform
