#include "Common/util/TernDeviceInfo.hpp"

#include <sys/utsname.h>

#include <chrono>
#include <future>

#include <gtest/gtest.h>

#include "Common/util/DeviceMetricsGrabberImpl.hpp"
#include "Common/util/SdkDateUtil.hpp"
#include "Common/util/UserAgentUtilImpl.hpp"
#include "tests/common/util/RecordingEnv.hpp"

namespace tern {
namespace {

using testing::RecordingEnv;
using vontu::platform::AuthorizationStatus;

TEST(TernDeviceInfoTest, readsTheHostDeviceAndApp) {
    RecordingEnv env;
    TernDeviceInfo info;
    struct utsname names {};
    ASSERT_EQ(::uname(&names), 0);
    EXPECT_EQ(info.deviceModel(), std::string(names.machine));
    EXPECT_EQ(info.osName(), "iOS");
    EXPECT_EQ(info.osVersion(), "17.0");
    EXPECT_EQ(info.customerAppName(), "Vontu");
    EXPECT_EQ(info.customerAppVersion(), "1.0");
    EXPECT_EQ(info.customerBundleId(), "ios.vontu");
    EXPECT_EQ(info.sdkVersion(), "2.1.2");
    EXPECT_EQ(DeviceMetricsGrabberImpl().appBundleId(), "ios.vontu");

    EXPECT_EQ(info.deviceManufacturer(), "Apple");
    info.setDeviceManufacturer("Other");
    EXPECT_EQ(info.deviceManufacturer(), "Other");
}

TEST(TernDeviceInfoTest, deviceLocaleFromPreferredLanguageElseCurrentLocale) {
    struct Case {
        std::vector<std::string> preferred;
        std::string current;
        std::string expected;
    };
    const Case cases[] = {
        {{"en-GB", "de-DE"}, "fr_FR", "en-GB"},
        {{}, "de_DE", "de-DE"},
        {{"en"}, "de_DE", "de-DE"},
        {{"zh-Hans-CN"}, "en_US", "zh-CN"},
        {{"es-419"}, "en_US", "es-419"},
        {{"pt_BR"}, "en_US", "pt-BR"},
        {{"en-US@calendar=gregorian"}, "de_DE", "en-US"},
        {{""}, "en_US_POSIX", "en-US-POSIX"},
    };
    for (const auto& [preferred, current, expected] : cases) {
        RecordingEnv env;
        env.preferredLanguagesOverride = preferred;
        env.currentLocaleOverride = current;
        EXPECT_EQ(TernDeviceInfo().deviceLocale(), expected)
            << (preferred.empty() ? "(none)" : preferred.front()) << " / " << current;
    }
}

TEST(TernDeviceInfoTest, onlyFullAuthorisationCountsAsSubscribed) {
    struct Case {
        AuthorizationStatus status;
        bool expected;
    };
    const Case cases[] = {
        {AuthorizationStatus::notDetermined, false}, {AuthorizationStatus::denied, false},
        {AuthorizationStatus::authorized, true},     {AuthorizationStatus::provisional, false},
        {AuthorizationStatus::ephemeral, false},
    };
    for (const auto& [status, expected] : cases) {
        RecordingEnv env;
        env.authorizationOverride = status;
        std::promise<bool> answer;
        auto future = answer.get_future();
        TernDeviceInfo().isPushSubscribed([&answer](bool subscribed) { answer.set_value(subscribed); });
        ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(future.get(), expected) << static_cast<int>(status);
    }
}

TEST(SdkDateUtilTest, nowIsThePlatformClock) {
    RecordingEnv env;
    double system = std::chrono::duration<double>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
    EXPECT_NEAR(SdkDateUtil().now().secondsSince1970, system, 5.0);
}

// A DeviceInfo with fixed answers, for the user agent.
class FixedDeviceInfo : public DeviceInfo {
public:
    std::optional<std::string> model = "iPhone15,2";
    std::optional<std::string> version = "17.1";
    std::optional<std::string> name = "iOS";

    std::string deviceManufacturer() const override { return "Apple"; }
    void setDeviceManufacturer(std::string) override {}
    std::optional<std::string> deviceModel() const override { return model; }
    std::optional<std::string> osVersion() const override { return version; }
    std::optional<std::string> osName() const override { return name; }
    std::string customerAppName() const override { return "Vontu"; }
    std::string customerAppVersion() const override { return "4.2"; }
    std::string customerBundleId() const override { return "ios.vontu"; }
    std::string sdkVersion() const override { return "2.1.2"; }
    std::string deviceLocale() const override { return "en-US"; }
    void isPushSubscribed(std::function<void(bool)> completion) const override {
        completion(true);
    }
};

TEST(UserAgentUtilTest, headerValues) {
    struct Case {
        std::optional<SdkWrapperConfig> wrapper;
        bool osNameKnown;
        bool modelKnown;
        std::string expected;
    };
    const Case cases[] = {
        {std::nullopt, true, true, "Tern iOS Client/2.1.2 (iPhone15,2; iOS 17.1) ios.vontu/4.2"},
        {SdkWrapperConfig{SdkWrapperConfig::Source::reactNative, "3.0.1"}, true, true,
         "Tern ReactNative Client/3.0.1 (iPhone15,2; iOS 17.1) ios.vontu/4.2"},
        {SdkWrapperConfig{SdkWrapperConfig::Source::expo, "1"}, true, true,
         "Tern Expo Client/1 (iPhone15,2; iOS 17.1) ios.vontu/4.2"},
        {SdkWrapperConfig{SdkWrapperConfig::Source::flutter, "2"}, false, true,
         "Tern Flutter Client/2"},
        {std::nullopt, false, true, "Tern iOS Client/2.1.2"},
        {std::nullopt, true, false, "Tern iOS Client/2.1.2"},
    };
    for (const auto& [wrapper, osNameKnown, modelKnown, expected] : cases) {
        auto device = std::make_shared<FixedDeviceInfo>();
        if (!osNameKnown) device->name.reset();
        if (!modelKnown) device->model.reset();
        SdkConfig config;
        config._sdkWrapperConfig = wrapper;
        EXPECT_EQ(UserAgentUtilImpl(device, config).getUserAgentHeaderValue(), expected);
    }
}

}  // namespace
}  // namespace tern
