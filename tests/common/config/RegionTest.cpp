#include "Common/config/Region.hpp"

#include <gtest/gtest.h>

namespace tern {
namespace {

TEST(RegionTest, getRegionUpperCasesAndFallsBackToUs) {
    struct Case {
        const char* text;
        Region expected;
    };
    const Case cases[] = {
        {"US", Region::US}, {"us", Region::US}, {"EU", Region::EU}, {"eu", Region::EU},
        {"Eu", Region::EU}, {"XX", Region::US}, {"", Region::US},   {" EU", Region::US},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(getRegion(text), expected) << "text: \"" << text << "\"";
    }
}

TEST(RegionTest, rawValuesAreExactAndCaseSensitive) {
    EXPECT_EQ(rawValue(Region::US), "US");
    EXPECT_EQ(rawValue(Region::EU), "EU");
    EXPECT_EQ(fromRawValue<Region>("US"), Region::US);
    EXPECT_EQ(fromRawValue<Region>("EU"), Region::EU);
    EXPECT_EQ(fromRawValue<Region>("eu"), std::nullopt);
    EXPECT_EQ(fromRawValue<Region>(""), std::nullopt);
}

TEST(RegionTest, productionTrackingUrlsAreTheBuildSettings) {
    EXPECT_EQ(productionTrackingUrl(Region::US), TERN_TRACKING_URL_US);
    EXPECT_EQ(productionTrackingUrl(Region::EU), TERN_TRACKING_URL_EU);
    EXPECT_NE(productionTrackingUrl(Region::US), productionTrackingUrl(Region::EU));
}

}  // namespace
}  // namespace tern
