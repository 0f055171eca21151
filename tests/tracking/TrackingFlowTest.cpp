// Calls of the Tern facade with a tracking server on 127.0.0.1: what they queue, what runs send.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "Common/hooks/HookModule.hpp"
#include "platform/Env.hpp"
#include "tests/tracking/TrackingTestSupport.hpp"

namespace tern::testing {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;

// Records each profile and screen hook call with the profile stored at that moment.
class RecordingHooks final : public ModuleHookProvider,
                             public ProfileIdentifyHook,
                             public ScreenTrackingHook,
                             public std::enable_shared_from_this<RecordingHooks> {
public:
    std::shared_ptr<ProfileIdentifyHook> profileIdentifyHook() override {
        return shared_from_this();
    }
    std::shared_ptr<QueueRunnerHook> queueRunnerHook() override { return nullptr; }
    std::shared_ptr<ScreenTrackingHook> screenTrackingHook() override { return shared_from_this(); }
    void beforeIdentifiedProfileChange(const std::string& from, const std::string& to) override {
        record("change(" + from + "," + to + ")");
    }
    void profileIdentified(const std::string& id) override { record("identified(" + id + ")"); }
    void beforeProfileStoppedBeingIdentified(const std::string& id) override {
        record("stopped(" + id + ")");
    }
    void screenViewed(const std::string& name) override { record("screen(" + name + ")"); }
    void record(const std::string& call) {
        auto stored = Tern::shared()->diGraph()->profileStore()->identifier();
        calls.push_back(call + " stored=" + stored.value_or("none"));
    }
    std::vector<std::string> calls;
};

class TrackingFlowTest : public ::testing::Test {
protected:
    TrackingFlowTest() {
        Tern::shared()->diGraph()->hooksManager()->add(HookModule::messagingInApp, hooks);
    }
    Tern& tern() { return *Tern::shared(); }
    // The queue as "type", then " opens <group>" and " in <group>" for each group it waits for.
    std::vector<std::string> queue() {
        std::vector<std::string> lines;
        for (const auto& [type, opens, waitsFor, data] : site.queued()) {
            lines.push_back(type + (opens ? " opens " + *opens : ""));
            for (const auto& group : waitsFor.value_or(std::vector<std::string>{}))
                lines.back() += " in " + group;
        }
        return lines;
    }
    // The requests of one run of the queue, as "METHOD path" lines; those to failing get 404.
    std::vector<std::string> runQueue(const std::string& failing = "") {
        server.setStatusRule([failing](auto& sent) { return sent.path == failing ? 404 : 200; });
        server.clearRequests();
        EXPECT_TRUE(site.runQueue());
        return server.requestLines();
    }
    json body(std::size_t index) { return server.requests().at(index).json(); }

    TrackingServer server;
    TrackingSite site{server};
    std::shared_ptr<RecordingHooks> hooks = std::make_shared<RecordingHooks>();
};

TEST_F(TrackingFlowTest, TheStoredTokenFollowsTheIdentifiedProfile) {
    // Without a profile the token stays on the device and only metrics are queued.
    tern().registerDeviceToken("tok");
    tern().deleteDeviceToken();
    tern().trackMetric("dlv-1", Metric::opened, "tok");
    EXPECT_THAT(queue(), ElementsAre("trackPushMetric"));

    tern().identify("A", json{{"plan", "pro"}});
    ASSERT_TRUE(site.waitForQueuedRegistrations(1));
    tern().identify("A", json{{"plan", "team"}});  // the same profile: its attributes only
    tern().identify("B");
    ASSERT_TRUE(site.waitForQueuedRegistrations(2));
    tern().clearIdentify();
    tern().identify("C");
    ASSERT_TRUE(site.waitForQueuedRegistrations(3));
    // The app's device attributes register the token again, over the default ones.
    tern().setDeviceAttributes({{"app_version", "custom"}, {"y", 2}});
    ASSERT_TRUE(site.waitForQueuedRegistrations(4));

    const std::string registrationFor = "registerPushToken opens registered_push_tokentok in ";
    EXPECT_THAT(queue(),
                ElementsAre("trackPushMetric", "identifyProfile",
                            registrationFor + "identified_profile_A", "identifyProfile",
                            "deletePushToken in registered_push_tokentok in identified_profile_A",
                            "identifyProfile opens identified_profile_B",
                            registrationFor + "identified_profile_B",
                            "deletePushToken in registered_push_tokentok in identified_profile_B",
                            "identifyProfile", registrationFor + "identified_profile_C",
                            registrationFor + "identified_profile_C"));
    EXPECT_THAT(hooks->calls,
                ElementsAre("identified(A) stored=A", "change(A,B) stored=A",
                            "identified(B) stored=B", "stopped(B) stored=B",
                            "identified(C) stored=C"));
    EXPECT_EQ(runQueue().size(), 11U);
    json merged = body(9)["device"]["attributes"];
    merged.update(json{{"app_version", "custom"}, {"y", 2}});
    EXPECT_EQ(body(10)["device"]["attributes"], merged);
}

TEST_F(TrackingFlowTest, EventsWaitUntilTheIdentifyOfTheirProfileSucceeded) {
    tern().identify("A");
    tern().identify("B");
    tern().track("bought", json{{"sku", "x-1"}});
    EXPECT_THAT(runQueue("/api/v1/customers/B"),
                ElementsAre("PUT /api/v1/customers/A", "PUT /api/v1/customers/B"));
    EXPECT_THAT(runQueue(),
                ElementsAre("PUT /api/v1/customers/B", "POST /api/v1/customers/B/events"));
}

TEST_F(TrackingFlowTest, UnencodableInputChangesNothingAndOddValuesGoThrough) {
    tern().identify("\xff\xfe");  // not UTF-8: no task, no hook, no profile
    tern().identify("A");
    const json infinite = {{"x", std::numeric_limits<double>::infinity()}};
    tern().track("inf", infinite);
    tern().screen("Home/Ω \"x\"", json{{"", "empty"}, {"gone", nullptr}});
    EXPECT_THAT(hooks->calls,
                ElementsAre("identified(A) stored=A", "screen(Home/Ω \"x\") stored=A"));
    EXPECT_THAT(runQueue(),
                ElementsAre("PUT /api/v1/customers/A", "POST /api/v1/customers/A/events"));
    EXPECT_EQ(body(1)["data"], (json{{"", "empty"}}));

    tern().identify("A", infinite);  // identifies still, without the attributes
    ASSERT_EQ(site.queued().size(), 1U);
    EXPECT_EQ(site.queued()[0].data, (json{{"identifier", "A"}}));
}

TEST_F(TrackingFlowTest, StartUpDropsExpiredTasks) {
    // A task written four days ago (three is the expiry) through a graph of the same site.
    struct FourDaysAgo final : DateUtil {
        vontu::platform::Date now() const override {
            return vontu::platform::Env::current().now().addingSeconds(-4 * 86400);
        }
    };
    tern().trackMetric("dlv", Metric::delivered, "tok");
    {
        DIGraph past(site.siteId(), "test-api-key", SdkConfig{});
        past.override<DateUtil>(std::make_shared<FourDaysAgo>());
        past.queueStorage()->create("trackEvent", vontu::platform::toBytes("{}"), std::nullopt,
                                    std::nullopt);
    }
    site.initialize();
    EXPECT_THAT(queue(), ElementsAre("trackPushMetric"));
}

TEST_F(TrackingFlowTest, ASecondInitializeSwitchesToTheOtherSiteAndBack) {
    tern().identify("A");
    TrackingServer otherServer;
    TrackingSite other(otherServer);
    tern().identify("B");  // a first identify there: the other site has its own profile
    EXPECT_TRUE(other.runQueue());
    EXPECT_THAT(otherServer.requestLines(), ElementsAre("PUT /api/v1/customers/B"));
    site.initialize();
    EXPECT_EQ(tern().diGraph()->profileStore()->identifier(), "A");
    EXPECT_THAT(runQueue(), ElementsAre("PUT /api/v1/customers/A"));
}

}  // namespace
}  // namespace tern::testing
