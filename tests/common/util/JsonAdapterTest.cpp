#include "Common/util/JsonAdapter.hpp"

#include <cmath>
#include <limits>
#include <mutex>

#include <gtest/gtest.h>

#include "Common/config/Region.hpp"

namespace tern {
namespace {

using nlohmann::json;
using vontu::platform::Bytes;
using vontu::platform::Date;
using vontu::platform::toBytes;

class LinesLogger : public Logger {
public:
    void debug(const std::string&) override {}
    void info(const std::string&) override {}
    void error(const std::string& message) override {
        std::lock_guard lock(mutex_);
        errors_.push_back(message);
    }
    std::vector<std::string> errors() const {
        std::lock_guard lock(mutex_);
        return errors_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> errors_;
};

struct Sample {
    std::string name;
    std::optional<std::int64_t> count;
    Date createdAt;
    std::vector<std::string> tags;
    std::optional<Bytes> blob;
    std::optional<Region> region;

    static std::expected<Sample, DecodingError> decode(const JsonDecoder& decoder) {
        JsonRecordReader reader(decoder);
        Sample sample;
        sample.name = reader.decode<std::string>("name");
        sample.count = reader.decodeIfPresent<std::int64_t>("count");
        sample.createdAt = reader.decode<Date>("created_at");
        sample.tags = reader.decode<std::vector<std::string>>("tags");
        sample.blob = reader.decodeIfPresent<Bytes>("blob");
        sample.region = reader.decodeIfPresent<Region>("region");
        if (!reader.ok()) return reader.failure();
        return sample;
    }
    void encode(JsonEncoder& encoder) const {
        encoder.encode("name", name);
        encoder.encodeIfPresent("count", count);
        encoder.encode("created_at", createdAt);
        encoder.encode("tags", tags);
        encoder.encodeIfPresent("blob", blob);
        encoder.encodeIfPresent("region", region);
    }
    std::string description() const { return "Sample(name: \"" + name + "\")"; }
    bool operator==(const Sample&) const = default;
};

// A record whose members are all optional.
struct Note {
    std::optional<std::string> text;
    void encode(JsonEncoder& encoder) const { encoder.encodeIfPresent("text", text); }
};

// A record that checks its own data and reports anything else as a generic failure.
struct Checked {
    static std::expected<Checked, DecodingError> decode(const JsonDecoder&) {
        return std::unexpected(DecodingError::other("The operation could not be completed."));
    }
};

// A record that is written as a single string.
struct Code {
    std::string value;
    void encode(JsonEncoder& encoder) const { encoder.encodeValue(value); }
};

// A record with a fixed member written from a string literal.
struct Kind {
    void encode(JsonEncoder& encoder) const { encoder.encode("kind", "fixed"); }
};

class JsonAdapterTest : public ::testing::Test {
protected:
    std::shared_ptr<LinesLogger> log = std::make_shared<LinesLogger>();
    JsonAdapter adapter{log};

    static Sample sample() {
        return Sample{"n", 3, Date{1.9}, {"a", "b"}, Bytes{1, 2}, Region::EU};
    }
};

TEST_F(JsonAdapterTest, encodesWithSortedKeysAndReadsBack) {
    const std::string expected =
        R"({"blob":"AQI=","count":3,"created_at":1,"name":"n","region":"EU","tags":["a","b"]})";
    EXPECT_EQ(adapter.toJsonString(sample(), false), expected);
    EXPECT_EQ(adapter.toJson(sample()), adapter.toJson(sample()));

    auto decoded = adapter.fromJson<Sample>(expected);
    ASSERT_TRUE(decoded.has_value());
    Sample expectedBack = sample();
    expectedBack.createdAt = Date{1};
    EXPECT_EQ(*decoded, expectedBack);
    EXPECT_TRUE(log->errors().empty());
}

TEST_F(JsonAdapterTest, absentOptionalMembersAreLeftOut) {
    Sample bare{"n", std::nullopt, Date{0}, {}, std::nullopt, std::nullopt};
    EXPECT_EQ(adapter.toJsonString(bare, true), R"({"created_at":0,"name":"n","tags":[]})");
    auto decoded = adapter.fromJson<Sample>(R"({"name":"n","created_at":0.5,"tags":[],"count":null})");
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(decoded->count, std::nullopt);
    EXPECT_EQ(decoded->createdAt, Date{0.5});
}

TEST_F(JsonAdapterTest, datesAreWholeSecondsTruncatedTowardZero) {
    struct Case {
        double seconds;
        std::string expected;
    };
    const Case cases[] = {
        {1.9, "1"}, {-1.9, "-1"}, {0.5, "0"}, {-0.5, "0"}, {1700000000.999, "1700000000"},
    };
    for (const auto& [seconds, expected] : cases) {
        EXPECT_EQ(adapter.toJsonString(Date{seconds}, false), expected) << seconds;
    }
}

TEST_F(JsonAdapterTest, unrepresentableValuesFailTheEncodingWithTheirPath) {
    struct Case {
        Sample record;
        std::string expectedLog;
    };
    auto withDate = [](double seconds) {
        Sample record = sample();
        record.createdAt = Date{seconds};
        return record;
    };
    auto withTag = [](std::string tag) {
        Sample record = sample();
        record.tags.push_back(std::move(tag));
        return record;
    };
    const Case cases[] = {
        {withDate(std::nan("")),
         "Encoding could not encode value. Date(timeIntervalSince1970: nan), Json path: "
         "created_at, object: Sample(name: \"n\")"},
        {withDate(std::numeric_limits<double>::infinity()),
         "Encoding could not encode value. Date(timeIntervalSince1970: inf), Json path: "
         "created_at, object: Sample(name: \"n\")"},
        {withDate(1e19),
         "Encoding could not encode value. Date(timeIntervalSince1970: 1e+19), Json path: "
         "created_at, object: Sample(name: \"n\")"},
        {withTag("a\xff"),
         "Encoding could not encode value. \"a\uFFFD\", Json path: tags[2], object: "
         "Sample(name: \"n\")"},
    };
    for (const auto& [record, expectedLog] : cases) {
        LinesLogger* lines = log.get();
        std::size_t before = lines->errors().size();
        EXPECT_EQ(adapter.toJson(record), std::nullopt);
        ASSERT_EQ(lines->errors().size(), before + 1);
        EXPECT_EQ(lines->errors().back(), expectedLog);
    }
}

TEST_F(JsonAdapterTest, decodingFailuresAreLoggedWithPathAndJson) {
    struct Case {
        std::string json;
        std::string expectedLog;
    };
    const std::string valid = R"("created_at":0,"tags":[])";
    const Case cases[] = {
        {R"({"name":1,)" + valid + "}",
         R"(Decode type did not match payload. Type: std::string, Json path: name, json: {"name":1,)" +
             valid + "}"},
        {R"({"name":null,)" + valid + "}",
         R"(Decode non-optional value not found. Value: std::string, Json path: name, json: {"name":null,)" +
             valid + "}"},
        {"{" + valid + "}",
         "Decode key not found. Key: name,\nJson path: (root), json: {" + valid + "}"},
        {R"({"name":"n","created_at":0,"tags":["a",2]})",
         R"(Decode type did not match payload. Type: std::string, Json path: tags[1], json: {"name":"n","created_at":0,"tags":["a",2]})"},
        {R"({"name":"n","created_at":"today","tags":[]})",
         R"(Decode type did not match payload. Type: vontu::platform::Date, Json path: created_at, json: {"name":"n","created_at":"today","tags":[]})"},
        {R"({"name":"n","count":1.5,)" + valid + "}",
         R"(Decode data corrupted. Json path: count, json: {"name":"n","count":1.5,)" + valid +
             "}"},
        {R"({"name":"n","region":"XX",)" + valid + "}",
         R"(Decode data corrupted. Json path: region, json: {"name":"n","region":"XX",)" +
             valid + "}"},
        {R"({"name":"n","blob":"%%%",)" + valid + "}",
         R"(Decode data corrupted. Json path: blob, json: {"name":"n","blob":"%%%",)" + valid +
             "}"},
        {R"([])",
         "Decode type did not match payload. Type: nlohmann::json::object_t, Json path: (root), "
         "json: []"},
        {R"({"name":)", R"(Decode data corrupted. Json path: (root), json: {"name":)"},
        {"", "Decode data corrupted. Json path: (root), json: "},
        {"{\"name\":\"\xc3\x28\"}",
         "Decode data corrupted. Json path: (root), json: (error getting json string)"},
    };
    for (const auto& [text, expectedLog] : cases) {
        std::size_t before = log->errors().size();
        EXPECT_EQ(adapter.fromJson<Sample>(text), std::nullopt) << text;
        ASSERT_EQ(log->errors().size(), before + 1) << text;
        EXPECT_EQ(log->errors().back(), expectedLog);
    }
}

TEST_F(JsonAdapterTest, recordsOwnFailuresAreGenericDecodeErrors) {
    EXPECT_EQ(adapter.fromJson<Checked>("{}"), std::nullopt);
    EXPECT_EQ(log->errors(),
              std::vector<std::string>{
                  "Generic decode error. The operation could not be completed., json: {}"});
}

TEST_F(JsonAdapterTest, failuresAreSilentWithoutLogErrors) {
    EXPECT_EQ(adapter.fromJson<Sample>("{", false), std::nullopt);
    EXPECT_EQ(adapter.fromJson<Sample>("{}", false), std::nullopt);
    EXPECT_TRUE(log->errors().empty());
}

TEST_F(JsonAdapterTest, integersAreRangeChecked) {
    EXPECT_EQ(adapter.fromJson<std::int32_t>("2147483647"), 2147483647);
    EXPECT_EQ(adapter.fromJson<std::int32_t>("2147483648"), std::nullopt);
    EXPECT_EQ(adapter.fromJson<std::uint32_t>("-1"), std::nullopt);
    EXPECT_EQ(adapter.fromJson<std::int64_t>("5.0"), 5);
    EXPECT_EQ(adapter.fromJson<std::int64_t>("true"), std::nullopt);
    EXPECT_EQ(adapter.fromJson<std::uint64_t>("18446744073709551615"),
              std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(log->errors().back(),
              "Decode type did not match payload. Type: std::int64_t, Json path: (root), json: "
              "true");
    EXPECT_EQ(adapter.fromJson<bool>("1"), std::nullopt);
    EXPECT_EQ(adapter.fromJson<double>("1"), 1.0);
}

TEST_F(JsonAdapterTest, deepOrTruncatedDocumentsAreAbsentAndLogged) {
    for (std::size_t depth : {600u, 200000u}) {
        std::string deep(depth, '[');
        deep += std::string(depth, ']');
        EXPECT_EQ(adapter.fromJson<json>(deep), std::nullopt);
        ASSERT_FALSE(log->errors().empty());
        EXPECT_TRUE(log->errors().back().starts_with("Decode data corrupted. Json path: (root), "
                                                     "json: [[[["));
    }
    std::string allowed(maxJsonNestingDepth, '[');
    allowed += std::string(maxJsonNestingDepth, ']');
    EXPECT_TRUE(adapter.fromJson<json>(allowed).has_value());
}

TEST_F(JsonAdapterTest, toJsonStringCanTreatAnEmptyObjectAsAbsent) {
    EXPECT_EQ(adapter.toJsonString(Note{}, true), std::nullopt);
    EXPECT_EQ(adapter.toJsonString(Note{}, false), "{}");
    EXPECT_EQ(adapter.toJsonString(Note{"x"}, true), R"({"text":"x"})");
    EXPECT_EQ(adapter.toJsonString(Kind{}, true), R"({"kind":"fixed"})");
    EXPECT_TRUE(log->errors().empty());
}

TEST_F(JsonAdapterTest, dictionariesConvertToAndFromRecords) {
    json dictionary = {{"name", "n"}, {"created_at", 7}, {"tags", {"x"}}};
    auto record = adapter.fromDictionary<Sample>(dictionary);
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(record->tags, std::vector<std::string>{"x"});
    EXPECT_EQ(adapter.toDictionary(*record), dictionary);

    // A record that is not written as an object has no dictionary form.
    EXPECT_EQ(adapter.toDictionary(Code{"abc"}), std::nullopt);
    EXPECT_TRUE(log->errors().empty());
}

TEST_F(JsonAdapterTest, dictionariesWithoutJsonFormAreLogged) {
    json withBinary = {{"name", "n"}, {"blob", json::binary({1, 2})}};
    EXPECT_EQ(adapter.fromDictionary<Sample>(withBinary), std::nullopt);
    ASSERT_EQ(log->errors().size(), 1u);
    EXPECT_TRUE(log->errors()[0].starts_with("Invalid value in JSON write at blob: "));
    EXPECT_NE(log->errors()[0].find(", dictionary: {"), std::string::npos);

    json withNan = {{"n", std::nan("")}};
    EXPECT_EQ(adapter.fromDictionary<json>(withNan), std::nullopt);
    EXPECT_EQ(log->errors().size(), 2u);
}

}  // namespace
}  // namespace tern
