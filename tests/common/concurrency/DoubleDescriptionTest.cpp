#include "Common/util/DoubleDescription.hpp"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace tern {
namespace {

TEST(DoubleDescriptionTest, PrintsTheShortestTextWithAFraction) {
    const std::pair<double, const char*> cases[] = {
        {30.0, "30.0"}, {0.1, "0.1"}, {-2.5, "-2.5"}, {-0.0, "-0.0"},
        {0.0001, "0.0001"}, {0.00001, "1e-05"}, {0.000015, "1.5e-05"},
        {1e16, "10000000000000000.0"}, {1e17, "1e+17"}, {1.0 / 3.0, "0.3333333333333333"},
        {-std::numeric_limits<double>::infinity(), "-inf"}, {std::nan(""), "nan"},
    };
    for (const auto& [value, text] : cases) EXPECT_EQ(doubleDescription(value), text) << text;
}

}  // namespace
}  // namespace tern
