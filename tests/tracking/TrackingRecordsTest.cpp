// The tracking module's task payloads as the queue stores them, and default device attributes.

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "Common/util/JsonAdapter.hpp"
#include "TernTracking/DeletePushNotificationQueueTaskData.hpp"
#include "TernTracking/IdentifyProfileQueueTaskData.hpp"
#include "TernTracking/MetricRequest.hpp"
#include "TernTracking/RegisterPushNotificationQueueTaskData.hpp"
#include "TernTracking/SdkDeviceAttributesProvider.hpp"
#include "TernTracking/TrackEventQueueTaskData.hpp"
#include "tests/common/RecordingLogger.hpp"

namespace tern {
namespace {

using nlohmann::json;
using vontu::platform::Date;

// Queued tasks outlive the program that wrote them: their keys are a stored format.
TEST(TrackingRecordsTest, TaskPayloadsKeepTheirStoredFormat) {
    JsonAdapter adapter(std::make_shared<testing::RecordingLogger>());
    const auto text = [&](const auto& record) {
        return adapter.toJsonString(record, false).value_or("<failed>");
    };
    EXPECT_EQ(text(IdentifyProfileQueueTaskData{"A b/\"é", std::string("{\"x\":1}")}),
              R"({"attributes_json_string":"{\"x\":1}","identifier":"A b/\"é"})");
    // Attributes that could not be encoded are left out, not written as null.
    EXPECT_EQ(text(IdentifyProfileQueueTaskData{"", std::nullopt}), R"({"identifier":""})");
    EXPECT_EQ(text(TrackEventQueueTaskData{"p", "{}"}),
              R"({"attributes_json_string":"{}","identifier":"p"})");
    EXPECT_EQ(text(RegisterPushNotificationQueueTaskData{"p", std::string("{}")}),
              R"({"attributes_json_string":"{}","profile_identifier":"p"})");
    EXPECT_EQ(text(DeletePushNotificationQueueTaskData{"p", "tok"}),
              R"({"device_token":"tok","profile_identifier":"p"})");
    EXPECT_EQ(text(MetricRequest{"d1", Metric::opened, "tok", Date{1700000000.75}}),
              R"({"delivery_id":"d1","device_id":"tok","event":"opened","timestamp":1700000000})");

    EXPECT_EQ(adapter.fromJson<RegisterPushNotificationQueueTaskData>(
                  R"({"profile_identifier":"p","attributes_json_string":null})", false),
              (RegisterPushNotificationQueueTaskData{"p", std::nullopt}));
    EXPECT_FALSE(adapter.fromJson<MetricRequest>(
        R"({"delivery_id":"d","device_id":"t","event":"clicked","timestamp":1})", false));
}

// A device with fixed answers; push authorisation answers from another thread.
struct FixedDeviceInfo final : DeviceInfo {
    std::optional<std::string> model = "x86_64", os = "17.0";
    bool subscribed = true;
    std::string deviceManufacturer() const override { return "Apple"; }
    void setDeviceManufacturer(std::string) override {}
    std::optional<std::string> deviceModel() const override { return model; }
    std::optional<std::string> osVersion() const override { return os; }
    std::optional<std::string> osName() const override { return "iOS"; }
    std::string customerAppName() const override { return "Vontu"; }
    std::string customerAppVersion() const override { return "3.1"; }
    std::string customerBundleId() const override { return "ios.vontu"; }
    std::string sdkVersion() const override { return "2.1.2"; }
    std::string deviceLocale() const override { return "en-GB"; }
    void isPushSubscribed(std::function<void(bool)> completion) const override {
        std::thread([completion, yes = subscribed] { completion(yes); }).detach();
    }
};

json defaultAttributes(const SdkConfig& config, std::shared_ptr<DeviceInfo> device) {
    std::promise<json> answer;
    SdkDeviceAttributesProvider(config, std::move(device))
        .getDefaultDeviceAttributes([&answer](json attributes) { answer.set_value(attributes); });
    return answer.get_future().get();
}

TEST(SdkDeviceAttributesProviderTest, DefaultAttributesFollowTheConfigurationAndTheDevice) {
    auto device = std::make_shared<FixedDeviceInfo>();
    SdkConfig config;
    json expected = {{"tern_sdk_version", "2.1.2"}, {"app_version", "3.1"},
                     {"device_locale", "en-GB"},    {"device_manufacturer", "Apple"},
                     {"device_model", "x86_64"},    {"device_os", "17.0"},
                     {"push_enabled", "true"}};
    EXPECT_EQ(defaultAttributes(config, device), expected);

    // Unknown model and OS are left out; a wrapper reports its own version.
    device->model = device->os = std::nullopt;
    device->subscribed = false;
    config._sdkWrapperConfig = SdkWrapperConfig{SdkWrapperConfig::Source::flutter, "4.0.1"};
    for (const char* unknown : {"device_model", "device_os"}) expected.erase(unknown);
    expected.update({{"tern_sdk_version", "4.0.1"}, {"push_enabled", "false"}});
    EXPECT_EQ(defaultAttributes(config, device), expected);

    config.autoTrackDeviceAttributes = false;
    EXPECT_EQ(defaultAttributes(config, device), json::object());
}

}  // namespace
}  // namespace tern
