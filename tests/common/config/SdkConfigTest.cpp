#include "Common/config/SdkConfig.hpp"

#include <gtest/gtest.h>

#include "Common/config/NotificationServiceExtensionSdkConfig.hpp"

namespace tern {
namespace {

using nlohmann::json;
using Source = SdkWrapperConfig::Source;

// Every field but the callback, for comparing whole records.
auto fieldsOf(const SdkConfig& config) {
    return std::tuple(config.region, config.trackingApiUrl, config.autoTrackPushEvents,
                      config.backgroundQueueMinNumberOfTasks, config.backgroundQueueSecondsDelay,
                      config.backgroundQueueExpiredSeconds, config.logLevel,
                      config.autoTrackScreenViews, config.autoTrackDeviceAttributes,
                      config._sdkWrapperConfig);
}

TEST(RegionTest, ParsingIgnoresCaseAndFallsBackToUs) {
    const std::pair<const char*, Region> cases[] = {
        {"US", Region::US}, {"eu", Region::EU}, {"Eu", Region::EU},
        {"XX", Region::US}, {"", Region::US},   {" EU", Region::US},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(getRegion(text), expected) << text;
    EXPECT_NE(productionTrackingUrl(Region::US), productionTrackingUrl(Region::EU));
}

TEST(SdkConfigTest, FactoryDefaults) {
    for (Region region : {Region::US, Region::EU}) {
        const SdkConfig config = SdkConfig::Factory::create(region);
        EXPECT_EQ(fieldsOf(config),
                  std::tuple(region, productionTrackingUrl(region), true, 10, 30.0, 259200.0,
                             TernLogLevel::error, false, true, std::optional<SdkWrapperConfig>()));
        EXPECT_FALSE(config.autoScreenViewBody);
    }
    EXPECT_EQ(fieldsOf(SdkConfig{}), fieldsOf(SdkConfig::Factory::create(Region::US)));
}

TEST(SdkConfigTest, ModifyAppliesEveryKeyOfTheRightTypeButNeverRegionOrSite) {
    SdkConfig config = SdkConfig::Factory::create(Region::US);
    config.modify(json{{"logLevel", "debug"},
                       {"autoTrackDeviceAttributes", false},
                       {"autoTrackPushEvents", false},
                       {"autoTrackScreenViews", true},
                       {"backgroundQueueMinNumberOfTasks", 3},
                       {"backgroundQueueSecondsDelay", 1.5},
                       {"backgroundQueueExpiredSeconds", 60},  // integers are taken for doubles
                       {"trackingApiUrl", "http://127.0.0.1:8080"},
                       {"source", "Flutter"},
                       {"version", "3.1.0"},
                       {"siteId", "ignored"},
                       {"region", "EU"}});
    EXPECT_EQ(fieldsOf(config),
              std::tuple(Region::US, std::string("http://127.0.0.1:8080"), false, 3, 1.5, 60.0,
                         TernLogLevel::debug, true, false,
                         std::optional(SdkWrapperConfig{Source::flutter, "3.1.0"})));
}

TEST(SdkConfigTest, ModifyIgnoresValuesOfTheWrongTypeAndNonObjects) {
    const std::pair<const char*, json> cases[] = {
        {"logLevel", 1},
        {"logLevel", "Debug"},
        {"autoTrackDeviceAttributes", 0},
        {"autoTrackPushEvents", "false"},
        {"backgroundQueueMinNumberOfTasks", true},
        {"backgroundQueueMinNumberOfTasks", 5.0},
        {"backgroundQueueMinNumberOfTasks", 18446744073709551615ULL},
        {"backgroundQueueSecondsDelay", "5"},
        {"backgroundQueueExpiredSeconds", json::array({5})},
        {"trackingApiUrl", ""},
        {"trackingApiUrl", 8080},
    };
    const SdkConfig defaults = SdkConfig::Factory::create(Region::EU);
    for (const auto& [key, value] : cases) {
        SdkConfig config = defaults;
        config.modify(json{{key, value}});
        EXPECT_EQ(fieldsOf(config), fieldsOf(defaults)) << key << " = " << value.dump();
    }
    SdkConfig config = defaults;
    config.modify(json::array({json{{"logLevel", "debug"}}}));
    config.modify(json("logLevel"));
    EXPECT_EQ(fieldsOf(config), fieldsOf(defaults));
}

TEST(SdkConfigTest, ModifySetsTheWrapperOnlyForAKnownSourceWithAVersion) {
    const std::pair<json, std::optional<SdkWrapperConfig>> cases[] = {
        {{{"source", "ReactNative"}, {"version", "1.2"}}, SdkWrapperConfig{Source::reactNative, "1.2"}},
        {{{"source", "Expo"}, {"version", ""}}, SdkWrapperConfig{Source::expo, ""}},
        {{{"source", "reactnative"}, {"version", "1.2"}}, std::nullopt},
        {{{"source", "Flutter"}}, std::nullopt},
        {{{"source", "Flutter"}, {"version", 12}}, std::nullopt},
    };
    for (const auto& [params, expected] : cases) {
        SdkConfig config;
        config.modify(params);
        EXPECT_EQ(config._sdkWrapperConfig, expected) << params.dump();
    }
    // A later bad pair keeps the wrapper already set.
    SdkConfig configured;
    configured.modify(json{{"source", "Expo"}, {"version", "2"}});
    configured.modify(json{{"source", "expo"}, {"version", "3"}});
    EXPECT_EQ(configured._sdkWrapperConfig, (SdkWrapperConfig{Source::expo, "2"}));
    EXPECT_EQ(configured._sdkWrapperConfig->description(),
              "SdkWrapperConfig(source: expo, version: \"2\")");
}

TEST(NotificationServiceExtensionSdkConfigTest, ToSdkConfigKeepsTheSettingsButUsesTheProductionUrl) {
    auto extension = NotificationServiceExtensionSdkConfig::Factory::create(Region::EU);
    EXPECT_EQ(std::tuple(extension.trackingApiUrl, extension.autoTrackPushEvents, extension.logLevel,
                         extension.autoTrackDeviceAttributes, extension._sdkWrapperConfig),
              std::tuple(productionTrackingUrl(Region::EU), true, TernLogLevel::error, true,
                         std::optional<SdkWrapperConfig>()));
    extension.trackingApiUrl = "http://127.0.0.1:9999";
    extension.autoTrackPushEvents = false;
    extension.logLevel = TernLogLevel::debug;
    extension.autoTrackDeviceAttributes = false;
    extension._sdkWrapperConfig = SdkWrapperConfig{Source::flutter, "9"};

    const SdkConfig config = extension.toSdkConfig();
    EXPECT_EQ(fieldsOf(config),
              std::tuple(Region::EU, productionTrackingUrl(Region::EU), false, 1, 0.0, 259200.0,
                         TernLogLevel::debug, false, false, extension._sdkWrapperConfig));
    EXPECT_FALSE(config.autoScreenViewBody);
}

}  // namespace
}  // namespace tern
