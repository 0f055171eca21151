#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "Common/util/DoubleDescription.hpp"

namespace tern {
namespace {

TEST(DoubleDescriptionTest, PrintsTheShortestTextWithAFraction) {
    struct Case {
        double value;
        const char* text;
    };
    const Case cases[] = {
        {30.0, "30.0"},
        {0.5, "0.5"},
        {1.5, "1.5"},
        {0.1, "0.1"},
        {100.0, "100.0"},
        {123.456, "123.456"},
        {-2.5, "-2.5"},
        {0.0, "0.0"},
        {-0.0, "-0.0"},
        {259200.0, "259200.0"},
        {0.0001, "0.0001"},
        {0.00001, "1e-05"},
        {0.000015, "1.5e-05"},
        {1e-300, "1e-300"},
        {9007199254740992.0, "9007199254740992.0"},
        {1e16, "10000000000000000.0"},
        {1e17, "1e+17"},
        {2.5e20, "2.5e+20"},
        {1.0 / 3.0, "0.3333333333333333"},
        {std::numeric_limits<double>::infinity(), "inf"},
        {-std::numeric_limits<double>::infinity(), "-inf"},
        {std::nan(""), "nan"},
    };
    for (const auto& c : cases) EXPECT_EQ(doubleDescription(c.value), c.text) << c.text;
}

}  // namespace
}  // namespace tern
