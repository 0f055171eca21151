#include "messaging_push/RandomString.hpp"

#include <set>

#include <gtest/gtest.h>

namespace tern {
namespace {

TEST(RandomString, LengthZeroIsEmpty) { EXPECT_EQ(random(0), ""); }

TEST(RandomString, DrawsOnlyLowerCaseLettersAndReachesAllOfThem) {
    std::set<char> seen;
    for (int draw = 0; draw < 200; ++draw) {
        const std::string text = random(50);
        ASSERT_EQ(text.size(), 50u);
        for (char c : text) {
            ASSERT_TRUE(c >= 'a' && c <= 'z') << text;
            seen.insert(c);
        }
    }
    // 10,000 uniform draws miss one of 26 letters with a probability below 1e-160.
    EXPECT_EQ(seen.size(), 26u);
}

}  // namespace
}  // namespace tern
