#include "Common/config/SdkConfig.hpp"

#include <gtest/gtest.h>

#include "Common/config/NotificationServiceExtensionSdkConfig.hpp"

namespace tern {
namespace {

using nlohmann::json;

// Every field but the callback, for comparing whole records.
auto fieldsOf(const SdkConfig& config) {
    return std::tuple(config.region, config.trackingApiUrl, config.autoTrackPushEvents,
                      config.backgroundQueueMinNumberOfTasks, config.backgroundQueueSecondsDelay,
                      config.backgroundQueueExpiredSeconds, config.logLevel,
                      config.autoTrackScreenViews, config.autoTrackDeviceAttributes,
                      config._sdkWrapperConfig);
}

TEST(SdkConfigTest, factoryDefaults) {
    for (Region region : {Region::US, Region::EU}) {
        SdkConfig config = SdkConfig::Factory::create(region);
        EXPECT_EQ(config.region, region);
        EXPECT_EQ(config.trackingApiUrl, productionTrackingUrl(region));
        EXPECT_TRUE(config.autoTrackPushEvents);
        EXPECT_EQ(config.backgroundQueueMinNumberOfTasks, 10);
        EXPECT_EQ(config.backgroundQueueSecondsDelay, 30.0);
        EXPECT_EQ(config.backgroundQueueExpiredSeconds, 259200.0);
        EXPECT_EQ(config.logLevel, TernLogLevel::error);
        EXPECT_FALSE(config.autoTrackScreenViews);
        EXPECT_FALSE(config.autoScreenViewBody);
        EXPECT_TRUE(config.autoTrackDeviceAttributes);
        EXPECT_EQ(config._sdkWrapperConfig, std::nullopt);
    }
    EXPECT_EQ(fieldsOf(SdkConfig{}), fieldsOf(SdkConfig::Factory::create(Region::US)));
}

TEST(SdkConfigTest, keysRawValuesAreTheCaseNames) {
    const std::vector<std::string> expected = {
        "siteId", "apiKey", "region", "trackingApiUrl", "autoTrackDeviceAttributes",
        "autoTrackScreenViews", "logLevel", "autoTrackPushEvents",
        "backgroundQueueMinNumberOfTasks", "backgroundQueueSecondsDelay",
        "backgroundQueueExpiredSeconds", "source", "version"};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        auto key = static_cast<SdkConfig::Keys>(i);
        EXPECT_EQ(rawValue(key), expected[i]);
        EXPECT_EQ(fromRawValue<SdkConfig::Keys>(expected[i]), key);
    }
}

TEST(SdkConfigTest, modifyAppliesEveryKeyOfTheRightType) {
    SdkConfig config = SdkConfig::Factory::create(Region::US);
    config.modify(json{{"logLevel", "debug"},
                       {"autoTrackDeviceAttributes", false},
                       {"autoTrackPushEvents", false},
                       {"autoTrackScreenViews", true},
                       {"backgroundQueueMinNumberOfTasks", 3},
                       {"backgroundQueueSecondsDelay", 1.5},
                       {"backgroundQueueExpiredSeconds", 60.0},
                       {"trackingApiUrl", "http://127.0.0.1:8080"},
                       {"source", "Flutter"},
                       {"version", "3.1.0"},
                       {"siteId", "ignored"},
                       {"region", "EU"}});
    EXPECT_EQ(config.logLevel, TernLogLevel::debug);
    EXPECT_FALSE(config.autoTrackDeviceAttributes);
    EXPECT_FALSE(config.autoTrackPushEvents);
    EXPECT_TRUE(config.autoTrackScreenViews);
    EXPECT_EQ(config.backgroundQueueMinNumberOfTasks, 3);
    EXPECT_EQ(config.backgroundQueueSecondsDelay, 1.5);
    EXPECT_EQ(config.backgroundQueueExpiredSeconds, 60.0);
    EXPECT_EQ(config.trackingApiUrl, "http://127.0.0.1:8080");
    EXPECT_EQ(config._sdkWrapperConfig,
              (SdkWrapperConfig{SdkWrapperConfig::Source::flutter, "3.1.0"}));
    // Region and site are read by initialisation, never by modify().
    EXPECT_EQ(config.region, Region::US);
}

TEST(SdkConfigTest, modifyIgnoresValuesOfTheWrongType) {
    struct Case {
        const char* key;
        json value;
    };
    const Case cases[] = {
        {"logLevel", 1},
        {"logLevel", "DEBUG"},
        {"logLevel", "Debug"},
        {"logLevel", nullptr},
        {"autoTrackDeviceAttributes", 0},
        {"autoTrackDeviceAttributes", "false"},
        {"autoTrackPushEvents", 0},
        {"autoTrackPushEvents", nullptr},
        {"autoTrackScreenViews", 1},
        {"autoTrackScreenViews", "true"},
        {"backgroundQueueMinNumberOfTasks", true},
        {"backgroundQueueMinNumberOfTasks", 5.5},
        {"backgroundQueueMinNumberOfTasks", 5.0},
        {"backgroundQueueMinNumberOfTasks", "5"},
        {"backgroundQueueMinNumberOfTasks", 18446744073709551615ULL},
        {"backgroundQueueSecondsDelay", "5"},
        {"backgroundQueueSecondsDelay", true},
        {"backgroundQueueSecondsDelay", json::array({5})},
        {"backgroundQueueExpiredSeconds", false},
        {"backgroundQueueExpiredSeconds", json::object()},
        {"trackingApiUrl", ""},
        {"trackingApiUrl", 8080},
        {"trackingApiUrl", nullptr},
    };
    const SdkConfig defaults = SdkConfig::Factory::create(Region::EU);
    for (const auto& [key, value] : cases) {
        SdkConfig config = defaults;
        config.modify(json{{key, value}});
        EXPECT_EQ(fieldsOf(config), fieldsOf(defaults)) << key << " = " << value.dump();
    }
}

TEST(SdkConfigTest, modifyTakesIntegersForDoubleFields) {
    SdkConfig config;
    config.modify(json{{"backgroundQueueSecondsDelay", 5}, {"backgroundQueueExpiredSeconds", 7}});
    EXPECT_EQ(config.backgroundQueueSecondsDelay, 5.0);
    EXPECT_EQ(config.backgroundQueueExpiredSeconds, 7.0);
}

TEST(SdkConfigTest, modifyChangesTheWrapperOnlyForAKnownSourceWithAVersion) {
    struct Case {
        json params;
        std::optional<SdkWrapperConfig> expected;
    };
    const Case cases[] = {
        {{{"source", "ReactNative"}, {"version", "1.2"}},
         SdkWrapperConfig{SdkWrapperConfig::Source::reactNative, "1.2"}},
        {{{"source", "Expo"}, {"version", ""}},
         SdkWrapperConfig{SdkWrapperConfig::Source::expo, ""}},
        {{{"source", "reactnative"}, {"version", "1.2"}}, std::nullopt},
        {{{"source", "Flutter"}}, std::nullopt},
        {{{"version", "1.2"}}, std::nullopt},
        {{{"source", "Flutter"}, {"version", 12}}, std::nullopt},
        {{{"source", 1}, {"version", "1.2"}}, std::nullopt},
    };
    for (const auto& [params, expected] : cases) {
        SdkConfig config;
        config.modify(params);
        EXPECT_EQ(config._sdkWrapperConfig, expected) << params.dump();
    }

    SdkConfig configured;
    configured.modify(json{{"source", "Expo"}, {"version", "2"}});
    configured.modify(json{{"source", "expo"}, {"version", "3"}});
    EXPECT_EQ(configured._sdkWrapperConfig, (SdkWrapperConfig{SdkWrapperConfig::Source::expo, "2"}));
}

TEST(SdkConfigTest, modifyWithSomethingOtherThanAnObjectChangesNothing) {
    SdkConfig config;
    config.modify(json::array({json{{"logLevel", "debug"}}}));
    config.modify(json("logLevel"));
    EXPECT_EQ(fieldsOf(config), fieldsOf(SdkConfig{}));
}

TEST(SdkConfigTest, wrapperSourcesCompareCaseSensitively) {
    EXPECT_EQ(fromRawValue<SdkWrapperConfig::Source>("ReactNative"),
              SdkWrapperConfig::Source::reactNative);
    EXPECT_EQ(fromRawValue<SdkWrapperConfig::Source>("Expo"), SdkWrapperConfig::Source::expo);
    EXPECT_EQ(fromRawValue<SdkWrapperConfig::Source>("Flutter"), SdkWrapperConfig::Source::flutter);
    EXPECT_EQ(fromRawValue<SdkWrapperConfig::Source>("flutter"), std::nullopt);
    EXPECT_EQ((SdkWrapperConfig{SdkWrapperConfig::Source::expo, "1.0"}).description(),
              "SdkWrapperConfig(source: expo, version: \"1.0\")");
}

TEST(NotificationServiceExtensionSdkConfigTest, factoryDefaults) {
    auto config = NotificationServiceExtensionSdkConfig::Factory::create(Region::EU);
    EXPECT_EQ(config.region, Region::EU);
    EXPECT_EQ(config.trackingApiUrl, productionTrackingUrl(Region::EU));
    EXPECT_TRUE(config.autoTrackPushEvents);
    EXPECT_EQ(config.logLevel, TernLogLevel::error);
    EXPECT_TRUE(config.autoTrackDeviceAttributes);
    EXPECT_EQ(config._sdkWrapperConfig, std::nullopt);
}

TEST(NotificationServiceExtensionSdkConfigTest, toSdkConfigAlwaysUsesTheProductionUrl) {
    auto extension = NotificationServiceExtensionSdkConfig::Factory::create(Region::EU);
    extension.trackingApiUrl = "http://127.0.0.1:9999";
    extension.autoTrackPushEvents = false;
    extension.logLevel = TernLogLevel::debug;
    extension.autoTrackDeviceAttributes = false;
    extension._sdkWrapperConfig = SdkWrapperConfig{SdkWrapperConfig::Source::flutter, "9"};

    SdkConfig config = extension.toSdkConfig();
    EXPECT_EQ(config.region, Region::EU);
    EXPECT_EQ(config.trackingApiUrl, productionTrackingUrl(Region::EU));
    EXPECT_FALSE(config.autoTrackPushEvents);
    EXPECT_EQ(config.logLevel, TernLogLevel::debug);
    EXPECT_FALSE(config.autoTrackDeviceAttributes);
    EXPECT_EQ(config._sdkWrapperConfig, extension._sdkWrapperConfig);
    EXPECT_EQ(config.backgroundQueueMinNumberOfTasks, 1);
    EXPECT_EQ(config.backgroundQueueSecondsDelay, 0.0);
    EXPECT_EQ(config.backgroundQueueExpiredSeconds, 259200.0);
    EXPECT_FALSE(config.autoTrackScreenViews);
    EXPECT_FALSE(config.autoScreenViewBody);
}

}  // namespace
}  // namespace tern
