// The tracking module's task payloads as JSON (the bytes that the queue stores), its error
// texts, the default device attributes and the lazily created module implementation. Request
// bodies are checked end to end, as the server receives them, in TrackingFlowTest.

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "Common/http/HttpRequestError.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "TernTracking/DeletePushNotificationQueueTaskData.hpp"
#include "TernTracking/IdentifyProfileQueueTaskData.hpp"
#include "TernTracking/MetricRequest.hpp"
#include "TernTracking/ModuleTopLevelObject.hpp"
#include "TernTracking/RegisterPushNotificationQueueTaskData.hpp"
#include "TernTracking/SdkDeviceAttributesProvider.hpp"
#include "TernTracking/TernError.hpp"
#include "TernTracking/TrackEventQueueTaskData.hpp"
#include "tests/common/RecordingLogger.hpp"

namespace tern {
namespace {

using testing::RecordingLogger;
using vontu::platform::Date;

class TrackingRecordsTest : public ::testing::Test {
protected:
    template <class T>
    std::string json(const T& record) {
        return jsonAdapter.toJsonString(record, false).value_or("<failed>");
    }
    template <class T>
    std::optional<T> decode(const std::string& text) {
        return jsonAdapter.fromJson<T>(text, false);
    }

    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    JsonAdapter jsonAdapter{logger};
};

TEST_F(TrackingRecordsTest, TaskPayloadsUseTheirWireKeys) {
    struct Case {
        std::string written;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {json(IdentifyProfileQueueTaskData{"A b/\"é", std::string("{\"x\":1}")}),
         R"({"attributes_json_string":"{\"x\":1}","identifier":"A b/\"é"})"},
        // Attributes that could not be encoded are left out, not written as null.
        {json(IdentifyProfileQueueTaskData{"", std::nullopt}), R"({"identifier":""})"},
        {json(TrackEventQueueTaskData{"p", "{}"}),
         R"({"attributes_json_string":"{}","identifier":"p"})"},
        {json(RegisterPushNotificationQueueTaskData{"p", std::string("{}")}),
         R"({"attributes_json_string":"{}","profile_identifier":"p"})"},
        {json(DeletePushNotificationQueueTaskData{"p", "tok"}),
         R"({"device_token":"tok","profile_identifier":"p"})"},
        {json(MetricRequest{"d1", Metric::opened, "tok", Date{1700000000.75}}),
         R"({"delivery_id":"d1","device_id":"tok","event":"opened","timestamp":1700000000})"},
    };
    for (const auto& [written, expected] : cases) EXPECT_EQ(written, expected);
}

TEST_F(TrackingRecordsTest, TaskPayloadsReadBackAndRejectWhatTheyCannotRead) {
    EXPECT_EQ(decode<IdentifyProfileQueueTaskData>(R"({"identifier":"A"})"),
              (IdentifyProfileQueueTaskData{"A", std::nullopt}));
    EXPECT_EQ(decode<RegisterPushNotificationQueueTaskData>(
                  R"({"profile_identifier":"p","attributes_json_string":null})"),
              (RegisterPushNotificationQueueTaskData{"p", std::nullopt}));
    EXPECT_EQ(decode<MetricRequest>(
                  R"({"delivery_id":"d","device_id":"t","event":"converted","timestamp":5.5})"),
              (MetricRequest{"d", Metric::converted, "t", Date{5.5}}));

    EXPECT_FALSE(decode<IdentifyProfileQueueTaskData>(R"({"attributes_json_string":"{}"})"));
    EXPECT_FALSE(decode<TrackEventQueueTaskData>(R"({"identifier":"p"})"));
    EXPECT_FALSE(decode<DeletePushNotificationQueueTaskData>(R"({"profile_identifier":"p"})"));
    EXPECT_FALSE(decode<MetricRequest>(
        R"({"delivery_id":"d","device_id":"t","event":"clicked","timestamp":1})"));
    EXPECT_FALSE(decode<MetricRequest>("[]"));
    EXPECT_FALSE(decode<TrackEventQueueTaskData>("not json"));
}

TEST(TernErrorTest, DescriptionsAreTheFixedTextsOrTheHttpErrors) {
    EXPECT_EQ(TernError::notInitialized().description(),
              "SDK has not been initialized yet. Check the docs about initializing the SDK.");
    EXPECT_EQ(TernError::noCustomerIdentified().description(),
              "Customer has not yet been identified.");
    const auto httpError = HttpRequestError::unauthorized();
    EXPECT_EQ(TernError::http(httpError).description(), httpError.description());
    EXPECT_EQ(TernError::http(httpError).httpError(), httpError);
    EXPECT_FALSE(TernError::notInitialized().httpError());
}

// A device with fixed answers; push authorisation answers from another thread.
class FixedDeviceInfo final : public DeviceInfo {
public:
    std::optional<std::string> model = "x86_64";
    std::optional<std::string> os = "17.0";
    bool pushSubscribed = true;

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
        std::thread([completion, subscribed = pushSubscribed] { completion(subscribed); }).detach();
    }
};

nlohmann::json defaultAttributes(const SdkConfig& config, std::shared_ptr<DeviceInfo> device) {
    std::promise<nlohmann::json> answer;
    auto future = answer.get_future();
    SdkDeviceAttributesProvider(config, std::move(device))
        .getDefaultDeviceAttributes(
            [&answer](nlohmann::json attributes) { answer.set_value(std::move(attributes)); });
    return future.get();
}

TEST(SdkDeviceAttributesProviderTest, DefaultAttributesFollowTheConfigurationAndTheDevice) {
    auto device = std::make_shared<FixedDeviceInfo>();
    SdkConfig config;
    EXPECT_EQ(defaultAttributes(config, device), (nlohmann::json{{"tern_sdk_version", "2.1.2"},
                                                                 {"app_version", "3.1"},
                                                                 {"device_locale", "en-GB"},
                                                                 {"device_manufacturer", "Apple"},
                                                                 {"device_model", "x86_64"},
                                                                 {"device_os", "17.0"},
                                                                 {"push_enabled", "true"}}));

    device->model.reset();
    device->os.reset();
    device->pushSubscribed = false;
    config._sdkWrapperConfig = SdkWrapperConfig{SdkWrapperConfig::Source::flutter, "4.0.1"};
    EXPECT_EQ(defaultAttributes(config, device), (nlohmann::json{{"tern_sdk_version", "4.0.1"},
                                                                 {"app_version", "3.1"},
                                                                 {"device_locale", "en-GB"},
                                                                 {"device_manufacturer", "Apple"},
                                                                 {"push_enabled", "false"}}));

    config.autoTrackDeviceAttributes = false;
    EXPECT_EQ(defaultAttributes(config, device), nlohmann::json::object());
}

// A library that is or is not initialised, as a test says.
class SwitchableInitializedUtil final : public SdkInitializedUtil {
public:
    std::shared_ptr<Tern> tern() override { return nullptr; }
    bool isInitlaized() override { return graph != nullptr; }
    std::optional<PostInitializedData> postInitializedData() override {
        if (!graph) return std::nullopt;
        return PostInitializedData{graph->siteId(), graph};
    }
    std::shared_ptr<DIGraph> graph;
};

struct ModuleImplementation {
    std::string siteId;
};

class CountingModule final : public ModuleTopLevelObject<ModuleImplementation> {
public:
    using ModuleTopLevelObject::ModuleTopLevelObject;
    std::atomic<int> created{0};
    std::atomic<int> initialized{0};

protected:
    void inititlizeModule(const std::shared_ptr<DIGraph>&) override { ++initialized; }
    std::shared_ptr<ModuleImplementation> getImplementationInstance(
        const std::shared_ptr<DIGraph>& diGraph) override {
        ++created;
        return std::make_shared<ModuleImplementation>(ModuleImplementation{diGraph->siteId()});
    }
};

TEST(ModuleTopLevelObjectTest, CreatesItsImplementationOnceTheLibraryIsInitialised) {
    auto util = std::make_shared<SwitchableInitializedUtil>();
    CountingModule module(nullptr, util);

    EXPECT_EQ(module.implementation(), nullptr);
    module.initializeModuleIfSdkInitialized();
    EXPECT_EQ(module.created, 0);
    EXPECT_EQ(module.initialized, 0);

    util->graph = std::make_shared<DIGraph>("site-module", "key", SdkConfig{});
    auto first = module.implementation();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->siteId, "site-module");
    EXPECT_EQ(module.implementation(), first);
    EXPECT_EQ(module.created, 1);
    EXPECT_EQ(module.initialized, 1);

    module.initializeModuleIfSdkInitialized();
    EXPECT_EQ(module.initialized, 2);

    auto injected = std::make_shared<ModuleImplementation>(ModuleImplementation{"injected"});
    CountingModule withDouble(injected, util);
    EXPECT_EQ(withDouble.implementation(), injected);
    EXPECT_EQ(withDouble.created, 0);
}

TEST(ModuleTopLevelObjectDeathTest, AnOperationNotOverriddenStopsTheProcess) {
    struct ForgetfulModule final : ModuleTopLevelObject<ModuleImplementation> {
        using ModuleTopLevelObject::ModuleTopLevelObject;
    };
    auto util = std::make_shared<SwitchableInitializedUtil>();
    util->graph = std::make_shared<DIGraph>("site-forgetful", "key", SdkConfig{});
    EXPECT_DEATH(
        {
            ForgetfulModule module(nullptr, util);
            module.implementation();
        },
        "forgot to override in subclass");
}

}  // namespace
}  // namespace tern
