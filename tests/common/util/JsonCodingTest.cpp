#include "Common/util/JsonAdapter.hpp"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "Common/util/AnyEncodable.hpp"
#include "Common/util/StringAnyEncodable.hpp"
#include "tests/common/RecordingLogger.hpp"

namespace tern {
namespace {

using nlohmann::json;
using testing::RecordingLogger;
using vontu::platform::Bytes;
using vontu::platform::Date;

// Written with a string literal member that reading ignores, as it does every unknown key.
struct Sample {
    std::string name;
    std::optional<std::int64_t> count;
    Date createdAt;
    std::vector<std::string> tags;
    std::optional<Bytes> blob;

    static std::expected<Sample, DecodingError> decode(const JsonDecoder& decoder) {
        JsonRecordReader reader(decoder);
        Sample sample;
        sample.name = reader.decode<std::string>("name");
        sample.count = reader.decodeIfPresent<std::int64_t>("count");
        sample.createdAt = reader.decode<Date>("created_at");
        sample.tags = reader.decode<std::vector<std::string>>("tags");
        sample.blob = reader.decodeIfPresent<Bytes>("blob");
        if (!reader.ok()) return reader.failure();
        return sample;
    }
    void encode(JsonEncoder& encoder) const {
        encoder.encode("name", name);
        encoder.encodeIfPresent("count", count);
        encoder.encode("created_at", createdAt);
        encoder.encode("tags", tags);
        encoder.encodeIfPresent("blob", blob);
        encoder.encode("kind", "sample");
    }
    std::string description() const { return "Sample(name: \"" + name + "\")"; }
    bool operator==(const Sample&) const = default;
};

// Records of other shapes: only optional members, a decoder that fails on its own, and a
// record written as a bare string.
struct Note {
    std::optional<std::string> text;
    void encode(JsonEncoder& encoder) const { encoder.encodeIfPresent("text", text); }
};
struct Checked {
    static std::expected<Checked, DecodingError> decode(const JsonDecoder&) {
        return std::unexpected(DecodingError::other("The operation could not be completed."));
    }
};
struct Code {
    std::string value;
    void encode(JsonEncoder& encoder) const { encoder.encodeValue(value); }
};

class JsonAdapterTest : public ::testing::Test {
protected:
    std::vector<std::string> errors() const { return log->messages(RecordingLogger::Level::error); }
    static Sample sample() { return Sample{"n", 3, Date{1.9}, {"a", "b"}, Bytes{1, 2}}; }

    std::shared_ptr<RecordingLogger> log = std::make_shared<RecordingLogger>();
    JsonAdapter adapter{log};
};

TEST_F(JsonAdapterTest, EncodesSortedKeysWithoutAbsentMembersAndReadsBack) {
    // Leaving out absent members and reading null as absent are checked with the task records.
    const std::string full = R"({"blob":"AQI=","count":3,"created_at":1,"kind":"sample","name":"n","tags":["a","b"]})";
    EXPECT_EQ(adapter.toJsonString(sample(), true), full);
    EXPECT_EQ(adapter.fromJson<Sample>(full), (Sample{"n", 3, Date{1}, {"a", "b"}, Bytes{1, 2}}));
    // Dates are written as whole seconds, truncated toward zero.
    EXPECT_EQ(adapter.toJsonString(Date{-1.9}, false), "-1");
    EXPECT_EQ(adapter.toJsonString(Date{-0.5}, false), "0");
    // An object with nothing in it may count as absent.
    EXPECT_EQ(adapter.toJsonString(Note{}, true), std::nullopt);
    EXPECT_EQ(adapter.toJsonString(Note{}, false), "{}");
    EXPECT_TRUE(errors().empty());
}

TEST_F(JsonAdapterTest, UnrepresentableValuesFailTheEncodingWithTheirPath) {
    Sample nanDate = sample(), farDate = sample(), badTag = sample();
    nanDate.createdAt = Date{std::nan("")};
    farDate.createdAt = Date{1e19};
    badTag.tags.push_back("a\xff");
    const std::pair<Sample, std::string> cases[] = {
        {nanDate, "Date(timeIntervalSince1970: nan), Json path: created_at"},
        {farDate, "Date(timeIntervalSince1970: 1e+19), Json path: created_at"},
        {badTag, "\"a\uFFFD\", Json path: tags[2]"},
    };
    for (const auto& [record, detail] : cases) {
        EXPECT_EQ(adapter.toJson(record), std::nullopt) << detail;
        EXPECT_EQ(errors().back(), "Encoding could not encode value. " + detail + ", object: Sample(name: \"n\")");
    }
    EXPECT_EQ(errors().size(), std::size(cases));
}

TEST_F(JsonAdapterTest, DecodingFailuresAreLoggedOnceWithPathAndJson) {
    const std::string valid = R"("created_at":0,"tags":[])";
    const std::pair<std::string, std::string> cases[] = {
        {R"({"name":null,)" + valid + "}", "Decode non-optional value not found. Value: std::string, Json path: name"},
        {"{" + valid + "}", "Decode key not found. Key: name,\nJson path: (root)"},
        {R"({"name":"n","created_at":0,"tags":["a",2]})",
         "Decode type did not match payload. Type: std::string, Json path: tags[1]"},
        {R"({"name":"n","count":1.5,)" + valid + "}", "Decode data corrupted. Json path: count"},
        {"[]", "Decode type did not match payload. Type: nlohmann::json::object_t, Json path: (root)"},
        {R"({"name":)", "Decode data corrupted. Json path: (root)"},
    };
    for (const auto& [text, head] : cases) {
        const auto before = errors().size();
        EXPECT_EQ(adapter.fromJson<Sample>(text), std::nullopt);
        ASSERT_EQ(errors().size(), before + 1) << text;
        EXPECT_EQ(errors().back(), head + ", json: " + text);
    }
    EXPECT_EQ(adapter.fromJson<Sample>("{\"name\":\"\xc3\x28\"}"), std::nullopt);
    EXPECT_EQ(errors().back(), "Decode data corrupted. Json path: (root), json: (error getting json string)");
    EXPECT_EQ(adapter.fromJson<Checked>("{}"), std::nullopt);
    EXPECT_EQ(errors().back(), "Generic decode error. The operation could not be completed., json: {}");

    // Failures asked to be silent are.
    const auto logged = errors().size();
    EXPECT_EQ(adapter.fromJson<Sample>("{", false), std::nullopt);
    EXPECT_EQ(adapter.fromJson<Sample>("{}", false), std::nullopt);
    EXPECT_EQ(errors().size(), logged);
}

TEST_F(JsonAdapterTest, NumbersAreRangeAndTypeChecked) {
    EXPECT_EQ(adapter.fromJson<std::int32_t>("2147483647"), 2147483647);
    EXPECT_EQ(adapter.fromJson<std::int32_t>("2147483648"), std::nullopt);
    EXPECT_EQ(adapter.fromJson<std::uint32_t>("-1"), std::nullopt);
    EXPECT_EQ(adapter.fromJson<std::int64_t>("5.0"), 5);
    EXPECT_EQ(adapter.fromJson<std::uint64_t>("18446744073709551615"), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(adapter.fromJson<std::int64_t>("true"), std::nullopt);
    EXPECT_EQ(errors().back(), "Decode type did not match payload. Type: std::int64_t, Json path: (root), json: true");
    EXPECT_EQ(adapter.fromJson<bool>("1"), std::nullopt);
    EXPECT_EQ(adapter.fromJson<double>("1"), 1.0);
}

TEST_F(JsonAdapterTest, DocumentsNestedBeyondTheLimitAreAbsentAndLogged) {
    for (std::size_t depth : {600u, 200000u}) {
        EXPECT_EQ(adapter.fromJson<json>(std::string(depth, '[') + std::string(depth, ']')), std::nullopt);
        EXPECT_TRUE(errors().back().starts_with("Decode data corrupted. Json path: (root), json: [[[["));
    }
    EXPECT_TRUE(adapter.fromJson<json>(std::string(maxJsonNestingDepth, '[') + std::string(maxJsonNestingDepth, ']')));
}

TEST_F(JsonAdapterTest, DictionariesConvertToAndFromRecords) {
    json dictionary = {{"name", "n"}, {"created_at", 7}, {"tags", {"x"}}, {"kind", "sample"}};
    auto record = adapter.fromDictionary<Sample>(dictionary);
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(adapter.toDictionary(*record), dictionary);
    // A record not written as an object has no dictionary form.
    EXPECT_EQ(adapter.toDictionary(Code{"abc"}), std::nullopt);

    // Dictionaries without a JSON form are refused and logged.
    EXPECT_EQ(adapter.fromDictionary<Sample>({{"name", "n"}, {"blob", json::binary({1, 2})}}), std::nullopt);
    ASSERT_EQ(errors().size(), 1u);
    EXPECT_TRUE(errors()[0].starts_with("Invalid value in JSON write at blob: ")) << errors()[0];
    EXPECT_NE(errors()[0].find(", dictionary: {"), std::string::npos);
    EXPECT_EQ(adapter.fromDictionary<json>({{"n", std::nan("")}}), std::nullopt);
    EXPECT_EQ(errors().size(), 2u);
}

TEST_F(JsonAdapterTest, StringAnyEncodableKeepsEncodableValuesAndDropsTheRestWithTheirKeys) {
    const std::pair<json, std::string> cases[] = {
        {{{"s", "t"}, {"d", 1.5}, {"b", true}, {"list", {1, "two", {3}}}, {"nested", {{"inner", {{"deep", "x"}}}}}},
         R"({"b":true,"d":1.5,"list":[1,"two",[3]],"nested":{"inner":{"deep":"x"}},"s":"t"})"},
        // Nulls and bytes go, and so does an array holding either, even inside an object.
        {{{"keep", 1}, {"null", nullptr}, {"blob", json::binary({1})}, {"mixed", {1, nullptr}},
          {"objects", {{{"a", 1}}, {{"b", nullptr}}}}, {"fine", {{{"a", 1}}}}},
         R"({"fine":[{"a":1}],"keep":1})"},
        {{{"nested", {{"gone", nullptr}, {"kept", "y"}}}, {"emptied", {{"gone", nullptr}}}},
         R"({"emptied":{},"nested":{"kept":"y"}})"},
        {json::array({1, 2}), "{}"},
    };
    for (const auto& [data, expected] : cases) {
        EXPECT_EQ(adapter.toJsonString(StringAnyEncodable(data), false), expected) << data.dump();
    }
    std::vector<AnyEncodable> values{AnyEncodable(std::string("a")), AnyEncodable(2), AnyEncodable(json{{"k", true}}),
                                     AnyEncodable(StringAnyEncodable(json{{"z", nullptr}}))};
    EXPECT_EQ(adapter.toJsonString(values, false), R"(["a",2,{"k":true},{}])");
    EXPECT_TRUE(errors().empty());
}

TEST_F(JsonAdapterTest, StringAnyEncodableFailsWholeOnNonFiniteNumbersAndDeepNesting) {
    EXPECT_EQ(adapter.toJsonString(StringAnyEncodable({{"keep", 1}, {"bad", {{"x", std::nan("")}}}}), false), std::nullopt);
    ASSERT_EQ(errors().size(), 1u);
    EXPECT_TRUE(errors()[0].starts_with(
        "Encoding could not encode value. nan, Json path: bad.x, object: StringAnyEncodable(data: "))
        << errors()[0];

    json deep = 1;
    for (std::size_t level = 0; level < maxJsonNestingDepth + 10; ++level) deep = json{{"k", std::move(deep)}};
    EXPECT_EQ(adapter.toJsonString(StringAnyEncodable(deep), false), std::nullopt);
    EXPECT_EQ(errors().size(), 2u);
}

}  // namespace
}  // namespace tern
