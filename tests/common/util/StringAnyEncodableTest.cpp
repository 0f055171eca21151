#include "Common/util/StringAnyEncodable.hpp"

#include <cmath>

#include <gtest/gtest.h>

#include "Common/util/AnyEncodable.hpp"
#include "Common/util/JsonAdapter.hpp"

namespace tern {
namespace {

using nlohmann::json;

class ErrorsLogger : public Logger {
public:
    void debug(const std::string&) override {}
    void info(const std::string&) override {}
    void error(const std::string& message) override { errors.push_back(message); }
    std::vector<std::string> errors;
};

class StringAnyEncodableTest : public ::testing::Test {
protected:
    std::shared_ptr<ErrorsLogger> log = std::make_shared<ErrorsLogger>();
    JsonAdapter adapter{log};

    std::optional<std::string> encoded(json data) {
        return adapter.toJsonString(StringAnyEncodable(std::move(data)), false);
    }
};

TEST_F(StringAnyEncodableTest, encodableValuesAndNestedDictionariesAreKept) {
    json data = {{"s", "text"},
                 {"i", 3},
                 {"d", 1.5},
                 {"b", true},
                 {"list", {1, "two", {3}}},
                 {"nested", {{"inner", {{"deep", "x"}}}, {"n", 1}}}};
    EXPECT_EQ(encoded(data), R"({"b":true,"d":1.5,"i":3,"list":[1,"two",[3]],)"
                             R"("nested":{"inner":{"deep":"x"},"n":1},"s":"text"})");
}

TEST_F(StringAnyEncodableTest, nonEncodableValuesAreDroppedWithTheirKeys) {
    struct Case {
        json data;
        std::string expected;
    };
    const Case cases[] = {
        {{{"keep", 1}, {"null", nullptr}}, R"({"keep":1})"},
        {{{"keep", 1}, {"blob", json::binary({1, 2, 3})}}, R"({"keep":1})"},
        {{{"keep", 1}, {"mixed", {1, nullptr}}}, R"({"keep":1})"},
        {{{"keep", 1}, {"objects", {{{"a", 1}}, {{"b", nullptr}}}}}, R"({"keep":1})"},
        {{{"keep", 1}, {"objects", {{{"a", 1}}}}}, R"({"keep":1,"objects":[{"a":1}]})"},
        {{{"nested", {{"gone", nullptr}, {"kept", "y"}}}}, R"({"nested":{"kept":"y"}})"},
        {{{"nested", {{"gone", nullptr}}}}, R"({"nested":{}})"},
        {json::object(), "{}"},
        {json::array({1, 2}), "{}"},
    };
    for (const auto& [data, expected] : cases) {
        EXPECT_EQ(encoded(data), expected) << data.dump();
    }
    EXPECT_TRUE(log->errors.empty());
}

TEST_F(StringAnyEncodableTest, aNonFiniteNumberFailsTheWholeEncoding) {
    EXPECT_EQ(encoded({{"keep", 1}, {"bad", {{"x", std::nan("")}}}}), std::nullopt);
    ASSERT_EQ(log->errors.size(), 1u);
    EXPECT_TRUE(log->errors[0].starts_with("Encoding could not encode value. nan, Json path: bad.x, "
                                           "object: StringAnyEncodable(data: "))
        << log->errors[0];
}

TEST_F(StringAnyEncodableTest, excessiveNestingFailsInsteadOfRecursingWithoutBound) {
    json deep = json::object();
    json* innermost = &deep;
    for (std::size_t level = 0; level < maxJsonNestingDepth + 10; ++level) {
        (*innermost)["k"] = json::object();
        innermost = &(*innermost)["k"];
    }
    EXPECT_EQ(encoded(deep), std::nullopt);
    EXPECT_EQ(log->errors.size(), 1u);
}

TEST(AnyEncodableTest, encodesTheHeldValueInPlace) {
    auto log = std::make_shared<ErrorsLogger>();
    JsonAdapter adapter(log);
    std::vector<AnyEncodable> values{AnyEncodable(std::string("a")), AnyEncodable(2),
                                     AnyEncodable(json{{"k", true}}),
                                     AnyEncodable(StringAnyEncodable(json{{"z", nullptr}}))};
    EXPECT_EQ(adapter.toJsonString(values, false), R"(["a",2,{"k":true},{}])");
}

}  // namespace
}  // namespace tern
