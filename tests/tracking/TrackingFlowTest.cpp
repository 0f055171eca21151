// Profiles, events, device tokens and metrics from the Tern facade to a tracking server on
// 127.0.0.1: what each call queues (types, groups, order), what runs of the queue send, also
// when requests fail, and which hooks run. Single requests are checked byte for byte through
// the tern host (TernHostTest).

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

// Records every profile and screen hook call with the profile stored at that moment, so a test
// sees whether a hook ran before or after the change. The hooks run on the caller's thread.
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

struct PlanAttributes {
    std::string plan;
    int seats = 0;
    void encode(JsonEncoder& encoder) const {
        encoder.encode("plan", plan);
        encoder.encode("seats", seats);
    }
};

class TrackingFlowTest : public ::testing::Test {
protected:
    TrackingFlowTest() {
        Tern::shared()->diGraph()->hooksManager()->add(HookModule::messagingInApp, hooks);
    }

    Tern& tern() { return *Tern::shared(); }
    // The queue as "type", then " opens <group>" and " in <group>,<group>" when it has groups.
    std::vector<std::string> queue() {
        std::vector<std::string> lines;
        for (const auto& task : site.queued()) {
            std::string line = task.type + (task.groupStart ? " opens " + *task.groupStart : "");
            const auto members = task.groupMember.value_or(std::vector<std::string>{});
            for (std::size_t i = 0; i < members.size(); ++i) {
                line += (i ? "," : " in ") + members[i];
            }
            lines.push_back(line);
        }
        return lines;
    }
    // The requests of one run of the queue, as "METHOD path" lines.
    std::vector<std::string> runQueue() {
        server.clearRequests();
        EXPECT_TRUE(site.runQueue());
        return server.requestLines();
    }
    json body(std::size_t index) { return server.requests().at(index).json(); }
    void failRequestsTo(const std::string& path) {
        server.setStatusRule([path](const TrackingServer::Request& request) {
            return request.path == path ? std::optional(404) : std::nullopt;
        });
    }

    TrackingServer server;
    TrackingSite site{server};
    std::shared_ptr<RecordingHooks> hooks = std::make_shared<RecordingHooks>();
};

TEST_F(TrackingFlowTest, TheStoredTokenFollowsTheIdentifiedProfile) {
    // Without a profile the token stays on the device and only metrics are queued.
    tern().registerDeviceToken("tok");
    tern().track("event");
    tern().screen("Screen");
    tern().setProfileAttributes({{"x", 1}});
    tern().setDeviceAttributes({{"y", 2}});
    tern().deleteDeviceToken();
    tern().trackMetric("dlv-1", Metric::opened, "tok");
    EXPECT_THAT(queue(), ElementsAre("trackPushMetric"));

    tern().identify("A", json{{"plan", "pro"}});
    ASSERT_TRUE(site.waitForQueuedRegistrations(1));
    tern().identify("A", PlanAttributes{"team", 5});  // the same profile: its attributes only
    tern().identify("B");
    ASSERT_TRUE(site.waitForQueuedRegistrations(2));
    tern().clearIdentify();
    tern().clearIdentify();  // nothing identified any more: nothing to do
    tern().identify("C");
    ASSERT_TRUE(site.waitForQueuedRegistrations(3));
    // The app's device attributes register the token again, over the default ones.
    tern().setDeviceAttributes({{"app_version", "custom"}, {"y", 2}});
    ASSERT_TRUE(site.waitForQueuedRegistrations(4));
    EXPECT_EQ(tern().deviceAttributes(), json::object());  // write-only
    EXPECT_EQ(tern().profileAttributes(), json::object());

    // Only a switch opens a group; registrations and deletions wait for what they depend on.
    const std::string registrationFor = "registerPushToken opens registered_push_tokentok in ";
    EXPECT_THAT(queue(),
                ElementsAre("trackPushMetric", "identifyProfile",
                            registrationFor + "identified_profile_A",
                            "identifyProfile",
                            "deletePushToken in registered_push_tokentok,identified_profile_A",
                            "identifyProfile opens identified_profile_B",
                            registrationFor + "identified_profile_B",
                            "deletePushToken in registered_push_tokentok,identified_profile_B",
                            "identifyProfile", registrationFor + "identified_profile_C",
                            registrationFor + "identified_profile_C"));
    EXPECT_THAT(hooks->calls,  // none for the screen view without a profile
                ElementsAre("identified(A) stored=A", "change(A,B) stored=A",
                            "identified(B) stored=B", "stopped(B) stored=B",
                            "identified(C) stored=C"));
    EXPECT_THAT(runQueue(),
                ElementsAre("POST /push/events", "PUT /api/v1/customers/A",
                            "PUT /api/v1/customers/A/devices", "PUT /api/v1/customers/A",
                            "DELETE /api/v1/customers/A/devices/tok",
                            "PUT /api/v1/customers/B", "PUT /api/v1/customers/B/devices",
                            "DELETE /api/v1/customers/B/devices/tok", "PUT /api/v1/customers/C",
                            "PUT /api/v1/customers/C/devices", "PUT /api/v1/customers/C/devices"));
    EXPECT_EQ(body(1), (json{{"plan", "pro"}}));
    EXPECT_EQ(body(3), (json{{"plan", "team"}, {"seats", 5}}));
    json merged = body(9)["device"]["attributes"];
    EXPECT_EQ(merged["push_enabled"], "true");
    EXPECT_FALSE(merged.contains("y"));
    merged.update(json{{"app_version", "custom"}, {"y", 2}});
    EXPECT_EQ(body(10)["device"]["attributes"], merged);
}

TEST_F(TrackingFlowTest, EventsWaitUntilTheIdentifyOfTheirProfileSucceeded) {
    tern().identify("A");
    tern().identify("B");
    tern().track("bought", json{{"sku", "x-1"}});
    tern().screen("Basket");
    failRequestsTo("/api/v1/customers/B");
    EXPECT_THAT(runQueue(), ElementsAre("PUT /api/v1/customers/A", "PUT /api/v1/customers/B"));
    server.setStatusRule({});
    EXPECT_THAT(runQueue(),
                ElementsAre("PUT /api/v1/customers/B", "POST /api/v1/customers/B/events",
                            "POST /api/v1/customers/B/events"));
}

TEST_F(TrackingFlowTest, ATokenDeletionWaitsForItsRegistration) {
    tern().identify("A");
    tern().registerDeviceToken("tok");
    ASSERT_TRUE(site.waitForQueuedRegistrations(1));
    tern().deleteDeviceToken();
    failRequestsTo("/api/v1/customers/A/devices");
    EXPECT_THAT(runQueue(),
                ElementsAre("PUT /api/v1/customers/A", "PUT /api/v1/customers/A/devices"));
    server.setStatusRule({});
    EXPECT_THAT(runQueue(), ElementsAre("PUT /api/v1/customers/A/devices",
                                        "DELETE /api/v1/customers/A/devices/tok"));
    // The device keeps its token for a later profile.
    EXPECT_EQ(tern().diGraph()->globalDataStore()->pushDeviceToken(), "tok");
}

TEST_F(TrackingFlowTest, UnencodableInputChangesNothingAndOddValuesGoThrough) {
    // An identifier that is not UTF-8 cannot be stored in a task: nothing changes, so A below is
    // a first identify with no hook but its own.
    tern().identify("\xff\xfe");
    tern().identify("A");
    const json infinite = {{"x", std::numeric_limits<double>::infinity()}};
    tern().track("inf", infinite);
    tern().screen("inf", infinite);
    EXPECT_THAT(queue(), ElementsAre("identifyProfile"));

    // Big and odd values go through whole; values without a JSON form are left out.
    const std::string big(1 << 18, 'b');
    tern().track("", json{{"big", big}, {"", "empty"}, {"gone", nullptr}});
    tern().screen("Home/Ω \"x\"", PlanAttributes{"pro", 1});
    EXPECT_THAT(hooks->calls,
                ElementsAre("identified(A) stored=A", "screen(Home/Ω \"x\") stored=A"));
    EXPECT_THAT(runQueue(),
                ElementsAre("PUT /api/v1/customers/A", "POST /api/v1/customers/A/events",
                            "POST /api/v1/customers/A/events"));
    EXPECT_TRUE(body(1)["data"] == (json{{"big", big}, {"", "empty"}}));
    EXPECT_EQ(body(1)["name"], "");
    EXPECT_EQ(body(2)["name"], "Home/Ω \"x\"");
    EXPECT_EQ(body(2)["data"], (json{{"plan", "pro"}, {"seats", 1}}));

    // Attributes that cannot be encoded still identify, without attributes.
    tern().identify("A", infinite);
    ASSERT_EQ(site.queued().size(), 1U);
    EXPECT_EQ(site.queued()[0].data, (json{{"identifier", "A"}}));
}

TEST_F(TrackingFlowTest, StartUpDropsExpiredTasksButKeepsGroupOpeners) {
    // Tasks written four days ago (three is the expiry) through a graph of the same site.
    class FourDaysAgo final : public DateUtil {
        vontu::platform::Date now() const override {
            return {vontu::platform::Env::current().now().secondsSince1970 - 4 * 86400};
        }
    };
    tern().trackMetric("dlv", Metric::delivered, "tok");
    {
        DIGraph past(site.siteId(), "test-api-key", SdkConfig{});
        past.override<DateUtil>(std::make_shared<FourDaysAgo>());
        const auto data = vontu::platform::toBytes("{}");
        past.queueStorage()->create("trackEvent", data, std::nullopt, std::nullopt);
        past.queueStorage()->create("identifyProfile", data,
                                    QueueTaskGroup::identifiedProfile("a"), std::nullopt);
    }
    site.initialize();
    EXPECT_THAT(queue(),
                ElementsAre("trackPushMetric", "identifyProfile opens identified_profile_a"));
}

TEST_F(TrackingFlowTest, ASecondInitializeSwitchesToTheOtherSiteAndBack) {
    tern().identify("A");
    TrackingServer otherServer;
    TrackingSite other(otherServer);
    // The other site has its own profile and queue: a first identify there.
    tern().identify("B");
    EXPECT_TRUE(other.runQueue());
    EXPECT_THAT(otherServer.requestLines(), ElementsAre("PUT /api/v1/customers/B"));
    site.initialize();
    EXPECT_EQ(tern().diGraph()->profileStore()->identifier(), "A");
    EXPECT_THAT(runQueue(), ElementsAre("PUT /api/v1/customers/A"));
}

}  // namespace
}  // namespace tern::testing
