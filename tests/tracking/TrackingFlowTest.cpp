// Profiles, events, device tokens and metrics from the Tern facade to a tracking server on
// 127.0.0.1: what each call queues (types, groups, order), what a run of the queue sends, what
// the library logs and which hooks it calls.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "Common/hooks/HookModule.hpp"
#include "TernTracking/Tern.hpp"
#include "platform/Crypto.hpp"
#include "tests/tracking/TrackingTestSupport.hpp"

namespace tern::testing {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsSupersetOf;
using ::testing::Not;

// Records every profile and screen hook call together with the profile stored at that moment,
// so a test sees whether a hook ran before or after the change.
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

    void beforeIdentifiedProfileChange(const std::string& oldIdentifier,
                                       const std::string& newIdentifier) override {
        record("beforeIdentifiedProfileChange(" + oldIdentifier + "," + newIdentifier + ")");
    }
    void profileIdentified(const std::string& identifier) override {
        record("profileIdentified(" + identifier + ")");
    }
    void beforeProfileStoppedBeingIdentified(const std::string& oldIdentifier) override {
        record("beforeProfileStoppedBeingIdentified(" + oldIdentifier + ")");
    }
    void screenViewed(const std::string& name) override { record("screenViewed(" + name + ")"); }

    std::vector<std::string> calls() const {
        std::lock_guard guard(mutex_);
        return calls_;
    }

private:
    void record(const std::string& call) {
        auto stored = Tern::shared()->diGraph()->profileStore()->identifier();
        std::lock_guard guard(mutex_);
        calls_.push_back(call + " stored=" + stored.value_or("none"));
    }

    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
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

    std::shared_ptr<GlobalDataStore> globalData() {
        return Tern::shared()->diGraph()->globalDataStore();
    }
    std::optional<std::string> storedProfile() {
        return Tern::shared()->diGraph()->profileStore()->identifier();
    }
    std::vector<std::string> inventoryTypes() {
        std::vector<std::string> types;
        for (const auto& entry : readInventory(site.siteId())) types.push_back(entry.type);
        return types;
    }
    bool logged(const std::string& message) {
        const auto messages = site.messages();
        return std::ranges::find(messages, message) != messages.end();
    }
    // The requests of the next queue run, as "METHOD path" lines.
    std::vector<std::string> runQueueAndCollect() {
        server.clearRequests();
        EXPECT_TRUE(site.runQueue());
        return server.requestLines();
    }
    // The request of the last run at index, or an empty one (and a failure) when there is none.
    ReceivedRequest request(std::size_t index) {
        const auto requests = server.requests();
        if (index < requests.size()) return requests[index];
        ADD_FAILURE() << "the server received no request " << index;
        return {};
    }
    Tern& tern() { return *Tern::shared(); }

    TrackingServer server;
    TrackingSite site{server};
    std::shared_ptr<RecordingHooks> hooks = std::make_shared<RecordingHooks>();
};

// --- identify ------------------------------------------------------------------------------

TEST_F(TrackingFlowTest, FirstIdentifyRegistersTheStoredTokenAndTellsTheHooks) {
    tern().registerDeviceToken("tok1");
    EXPECT_TRUE(
        logged(infoLine("no profile identified, so not registering device token to a profile")));
    EXPECT_EQ(globalData()->pushDeviceToken(), "tok1");
    EXPECT_TRUE(inventoryTypes().empty());

    tern().identify("A", json{{"plan", "pro"}});
    ASSERT_TRUE(site.waitForQueuedRegistrations(1));

    const auto inventory = readInventory(site.siteId());
    ASSERT_EQ(inventory.size(), 2U);
    EXPECT_EQ(inventory[0].type, "identifyProfile");
    EXPECT_EQ(inventory[0].groupStart, std::nullopt);  // a first identify opens no group
    EXPECT_EQ(inventory[0].groupMember, std::nullopt);
    EXPECT_EQ(inventory[1].type, "registerPushToken");
    EXPECT_EQ(inventory[1].groupStart, "registered_push_tokentok1");
    EXPECT_EQ(inventory[1].groupMember, std::vector<std::string>{"identified_profile_A"});

    EXPECT_THAT(hooks->calls(), ElementsAre("profileIdentified(A) stored=A"));
    EXPECT_THAT(site.messages(),
                IsSupersetOf(std::vector<std::string>{infoLine("identify profile A"),
                              "identify profile attributes {\"plan\":\"pro\"}",
                              "storing identifier on device storage A",
                              "registering existing device token to newly identified profile: A",
                              "running hooks profile identified A"}));
    EXPECT_FALSE(logged("running hooks changing profile from A to A"));

    EXPECT_THAT(runQueueAndCollect(),
                ElementsAre("PUT /api/v1/customers/A", "PUT /api/v1/customers/A/devices"));
    EXPECT_EQ(request(0).json(), (json{{"plan", "pro"}}));
    EXPECT_EQ(request(0).authorization,
              "Basic " + vontu::platform::base64Encode(site.siteId() + ":test-api-key"));
    const json device = request(1).json()["device"];
    EXPECT_EQ(device["id"], "tok1");
    EXPECT_EQ(device["platform"], "iOS");
    EXPECT_TRUE(device["last_used"].is_number_integer());
    EXPECT_EQ(device["attributes"]["tern_sdk_version"], "2.1.2");
    EXPECT_EQ(device["attributes"]["push_enabled"], "true");
    EXPECT_TRUE(inventoryTypes().empty());
}

TEST_F(TrackingFlowTest, IdentifyingTheSameProfileAgainOnlyUpdatesItsAttributes) {
    tern().registerDeviceToken("tok1");
    tern().identify("A");
    ASSERT_TRUE(site.waitForQueuedRegistrations(1));
    const auto linesBefore = site.logs().size();

    tern().identify("A", PlanAttributes{"team", 5});

    EXPECT_THAT(inventoryTypes(),
                ElementsAre("identifyProfile", "registerPushToken", "identifyProfile"));
    EXPECT_EQ(readInventory(site.siteId())[2].groupStart, std::nullopt);
    EXPECT_THAT(hooks->calls(), ElementsAre("profileIdentified(A) stored=A"));
    EXPECT_THAT(site.messagesFrom(linesBefore),
                Not(::testing::Contains(::testing::HasSubstr("registering"))));

    EXPECT_THAT(runQueueAndCollect(),
                ElementsAre("PUT /api/v1/customers/A", "PUT /api/v1/customers/A/devices",
                            "PUT /api/v1/customers/A"));
    EXPECT_EQ(request(0).json(), json::object());
    EXPECT_EQ(request(2).json(), (json{{"plan", "team"}, {"seats", 5}}));
}

TEST_F(TrackingFlowTest, SwitchingProfilesMovesTheTokenInOrder) {
    tern().identify("A");
    tern().registerDeviceToken("tok");
    ASSERT_TRUE(site.waitForQueuedRegistrations(1));

    tern().identify("B", json{{"tier", 2}});
    ASSERT_TRUE(site.waitForQueuedRegistrations(2));

    const auto inventory = readInventory(site.siteId());
    ASSERT_EQ(inventory.size(), 5U);
    EXPECT_EQ(inventory[2].type, "deletePushToken");
    EXPECT_EQ(inventory[2].groupStart, std::nullopt);
    EXPECT_EQ(inventory[2].groupMember,
              (std::vector<std::string>{"registered_push_tokentok", "identified_profile_A"}));
    EXPECT_EQ(inventory[3].type, "identifyProfile");
    EXPECT_EQ(inventory[3].groupStart, "identified_profile_B");
    EXPECT_EQ(inventory[4].type, "registerPushToken");
    EXPECT_EQ(inventory[4].groupMember, std::vector<std::string>{"identified_profile_B"});

    EXPECT_THAT(hooks->calls(), ElementsAre("profileIdentified(A) stored=A",
                                            "beforeIdentifiedProfileChange(A,B) stored=A",
                                            "profileIdentified(B) stored=B"));
    EXPECT_THAT(site.messages(),
                IsSupersetOf(std::vector<std::string>{infoLine("changing profile from id A to B"),
                              "deleting token from previously identified profile to prevent "
                              "sending messages to it. It's assumed that for privacy and "
                              "messaging relevance, you only want to send messages to devices "
                              "that a profile is currently identifed with.",
                              "running hooks changing profile from A to B"}));

    EXPECT_THAT(runQueueAndCollect(),
                ElementsAre("PUT /api/v1/customers/A", "PUT /api/v1/customers/A/devices",
                            "DELETE /api/v1/customers/A/devices/tok", "PUT /api/v1/customers/B",
                            "PUT /api/v1/customers/B/devices"));
    EXPECT_EQ(request(2).body, "");
    EXPECT_EQ(request(3).json(), (json{{"tier", 2}}));
}

TEST_F(TrackingFlowTest, ClearingForgetsTheProfileButKeepsTheToken) {
    const auto start = site.logs().size();
    tern().clearIdentify();
    EXPECT_THAT(site.messagesFrom(start), ElementsAre(infoLine("clearing identified profile")));

    tern().registerDeviceToken("tok");
    tern().identify("A");
    ASSERT_TRUE(site.waitForQueuedRegistrations(1));
    tern().clearIdentify();

    EXPECT_EQ(storedProfile(), std::nullopt);
    EXPECT_EQ(globalData()->pushDeviceToken(), "tok");
    EXPECT_THAT(hooks->calls(), ElementsAre("profileIdentified(A) stored=A",
                                            "beforeProfileStoppedBeingIdentified(A) stored=A"));
    EXPECT_THAT(site.messages(),
                IsSupersetOf(std::vector<std::string>{"delete device token from A to stop sending push to a profile that "
                              "is no longer identified",
                              "running hooks: profile stopped being identified A",
                              "deleting profile info from device storage"}));

    // Nothing identified: events are dropped, and a new identify registers the kept token.
    tern().track("after");
    EXPECT_TRUE(
        logged(infoLine("ignoring track event after because no profile currently identified")));
    tern().identify("C");
    ASSERT_TRUE(site.waitForQueuedRegistrations(2));
    EXPECT_THAT(inventoryTypes(),
                ElementsAre("identifyProfile", "registerPushToken", "deletePushToken",
                            "identifyProfile", "registerPushToken"));
    EXPECT_THAT(runQueueAndCollect(),
                ElementsAre("PUT /api/v1/customers/A", "PUT /api/v1/customers/A/devices",
                            "DELETE /api/v1/customers/A/devices/tok", "PUT /api/v1/customers/C",
                            "PUT /api/v1/customers/C/devices"));
}

TEST_F(TrackingFlowTest, EventsWaitUntilTheIdentifyOfTheirProfileSucceeded) {
    tern().identify("A");
    tern().identify("B");
    tern().track("bought", json{{"sku", "x-1"}});
    tern().screen("Basket");
    server.setStatusRule([](const ReceivedRequest& request) -> std::optional<int> {
        if (request.path == "/api/v1/customers/B") return 404;
        return std::nullopt;
    });

    EXPECT_THAT(runQueueAndCollect(),
                ElementsAre("PUT /api/v1/customers/A", "PUT /api/v1/customers/B"));
    EXPECT_THAT(inventoryTypes(), ElementsAre("identifyProfile", "trackEvent", "trackEvent"));

    server.setStatusRule({});
    EXPECT_THAT(runQueueAndCollect(),
                ElementsAre("PUT /api/v1/customers/B", "POST /api/v1/customers/B/events",
                            "POST /api/v1/customers/B/events"));
    EXPECT_EQ(request(1).json()["name"], "bought");
    EXPECT_EQ(request(2).json()["type"], "screen");
    EXPECT_TRUE(inventoryTypes().empty());
}

// --- track and screen ----------------------------------------------------------------------

TEST_F(TrackingFlowTest, EventBodiesCarryTypeNameDataAndTime) {
    tern().screen("Unseen");
    EXPECT_TRUE(logged(infoLine(
        "ignoring track screen view event Unseen because no profile currently identified")));
    EXPECT_TRUE(hooks->calls().empty());

    tern().identify("A");
    const auto before = vontu::platform::Env::current().now().secondsSince1970;
    tern().track("purchase", json{{"price", 9.5}, {"items", {1, 2}}, {"gone", nullptr}});
    tern().track("plain");
    tern().screen("Home/Ω \"x\"", PlanAttributes{"pro", 1});
    const auto after = vontu::platform::Env::current().now().secondsSince1970;

    EXPECT_THAT(hooks->calls(), ElementsAre("profileIdentified(A) stored=A",
                                            "screenViewed(Home/Ω \"x\") stored=A"));
    for (const auto& entry : readInventory(site.siteId())) {
        if (entry.type != "trackEvent") continue;
        EXPECT_EQ(entry.groupMember, std::vector<std::string>{"identified_profile_A"});
    }
    EXPECT_TRUE(logged(infoLine("track event purchase")));
    EXPECT_TRUE(logged(infoLine("track screen view event Home/Ω \"x\"")));

    EXPECT_THAT(runQueueAndCollect(),
                ElementsAre("PUT /api/v1/customers/A", "POST /api/v1/customers/A/events",
                            "POST /api/v1/customers/A/events", "POST /api/v1/customers/A/events"));
    struct Expected {
        std::string type;
        std::string name;
        json data;
    };
    const std::vector<Expected> expected = {
        {"event", "purchase", {{"items", {1, 2}}, {"price", 9.5}}},
        {"event", "plain", json::object()},
        {"screen", "Home/Ω \"x\"", {{"plan", "pro"}, {"seats", 1}}},
    };
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const json body = request(i + 1).json();
        EXPECT_EQ(body["type"], expected[i].type);
        EXPECT_EQ(body["name"], expected[i].name);
        EXPECT_EQ(body["data"], expected[i].data);
        EXPECT_GE(body["timestamp"].get<double>(), std::floor(before));
        EXPECT_LE(body["timestamp"].get<double>(), after);
        EXPECT_TRUE(request(i + 1).contentType.starts_with("application/json"));
    }
}

TEST_F(TrackingFlowTest, UnencodableInputIsReportedAndNothingBreaks) {
    // An identifier that is not UTF-8 cannot be stored in a task: nothing changes on the device.
    tern().identify("\xff\xfe");
    EXPECT_TRUE(logged("failed to enqueue identify task"));
    EXPECT_EQ(storedProfile(), std::nullopt);
    EXPECT_TRUE(hooks->calls().empty());

    tern().identify("A");
    const json infinite = {{"x", std::numeric_limits<double>::infinity()}};
    tern().track("inf", infinite);
    EXPECT_TRUE(
        logged(errorLine("attributes provided for track event inf failed to JSON encode.")));
    json deep = json::object();
    for (int i = 0; i < 600; ++i) deep = json{{"d", std::move(deep)}};
    tern().screen("deep", deep);
    EXPECT_TRUE(logged(
        errorLine("attributes provided for track screen view event deep failed to JSON encode.")));
    EXPECT_THAT(hooks->calls(), ElementsAre("profileIdentified(A) stored=A"));

    // Big and odd values go through whole; values without a JSON form are left out.
    const std::string big(1 << 18, 'b');
    tern().track("", json{{"big", big}, {"", "empty key"}, {"blob", json::binary({1, 2})}});

    EXPECT_THAT(runQueueAndCollect(),
                ElementsAre("PUT /api/v1/customers/A", "POST /api/v1/customers/A/events"));
    const json event = request(1).json();
    EXPECT_TRUE(event["data"] == (json{{"big", big}, {"", "empty key"}}));
    EXPECT_EQ(event["name"], "");

    // A body that cannot be encoded still identifies, without attributes.
    tern().identify("A", infinite);
    EXPECT_TRUE(logged("identify profile attributes none"));
    EXPECT_TRUE(logged("added queue task data {\"identifier\":\"A\"}"));
}

// --- attributes ----------------------------------------------------------------------------

TEST_F(TrackingFlowTest, AttributeSettersUpdateTheProfileAndTheDevice) {
    const auto start = site.logs().size();
    tern().setProfileAttributes({{"x", 1}});
    tern().setDeviceAttributes({{"y", 2}});
    EXPECT_TRUE(site.messagesFrom(start).empty());
    EXPECT_EQ(tern().profileAttributes(), json::object());

    tern().identify("A");
    tern().setProfileAttributes({{"x", 1}});
    EXPECT_EQ(tern().profileAttributes(), json::object());
    tern().setDeviceAttributes({{"y", 2}});  // no token yet: nothing
    tern().registerDeviceToken("tok");
    ASSERT_TRUE(site.waitForQueuedRegistrations(1));
    tern().setDeviceAttributes({{"app_version", "custom"}, {"y", 2}});
    ASSERT_TRUE(site.waitForQueuedRegistrations(2));
    EXPECT_EQ(tern().deviceAttributes(), json::object());

    EXPECT_THAT(runQueueAndCollect(),
                ElementsAre("PUT /api/v1/customers/A", "PUT /api/v1/customers/A",
                            "PUT /api/v1/customers/A/devices", "PUT /api/v1/customers/A/devices"));
    EXPECT_EQ(request(1).json(), (json{{"x", 1}}));
    const json plain = request(2).json()["device"]["attributes"];
    const json custom = request(3).json()["device"]["attributes"];
    EXPECT_FALSE(plain.contains("y"));
    EXPECT_EQ(custom["y"], 2);
    EXPECT_EQ(custom["app_version"], "custom");  // the app's value wins over the default
    EXPECT_EQ(custom["tern_sdk_version"], "2.1.2");
}

// --- device tokens and metrics -------------------------------------------------------------

TEST_F(TrackingFlowTest, TokenDeletionWaitsForItsRegistration) {
    tern().deleteDeviceToken();
    EXPECT_TRUE(logged(infoLine("no device token exists so ignoring request to delete")));
    tern().registerDeviceToken("tok");
    tern().deleteDeviceToken();
    EXPECT_TRUE(
        logged(infoLine("no profile identified so not removing device token from profile")));
    EXPECT_TRUE(inventoryTypes().empty());

    tern().identify("A");
    ASSERT_TRUE(site.waitForQueuedRegistrations(1));
    tern().deleteDeviceToken();
    EXPECT_THAT(inventoryTypes(),
                ElementsAre("identifyProfile", "registerPushToken", "deletePushToken"));
    EXPECT_EQ(readInventory(site.siteId())[2].groupMember,
              (std::vector<std::string>{"registered_push_tokentok", "identified_profile_A"}));

    server.setStatusRule([](const ReceivedRequest& request) -> std::optional<int> {
        if (request.path == "/api/v1/customers/A/devices") return 404;
        return std::nullopt;
    });
    EXPECT_THAT(runQueueAndCollect(),
                ElementsAre("PUT /api/v1/customers/A", "PUT /api/v1/customers/A/devices"));
    server.setStatusRule({});
    EXPECT_THAT(runQueueAndCollect(), ElementsAre("PUT /api/v1/customers/A/devices",
                                                  "DELETE /api/v1/customers/A/devices/tok"));
    EXPECT_EQ(globalData()->pushDeviceToken(), "tok");
}

TEST_F(TrackingFlowTest, DeviceAttributesFollowTheConfigurationAndThePushSetting) {
    site.initialize([](json& params) { params["autoTrackDeviceAttributes"] = false; });
    tern().identify("A");
    tern().registerDeviceToken("tok");
    ASSERT_TRUE(site.waitForQueuedRegistrations(1));
    tern().setDeviceAttributes({{"only", "custom"}});
    ASSERT_TRUE(site.waitForQueuedRegistrations(2));

    site.initialize();
    trackingEnv().setPushAuthorized(false);
    tern().registerDeviceToken("tok");
    ASSERT_TRUE(site.waitForQueuedRegistrations(3));
    trackingEnv().setPushAuthorized(true);

    EXPECT_THAT(runQueueAndCollect(),
                ElementsAre("PUT /api/v1/customers/A", "PUT /api/v1/customers/A/devices",
                            "PUT /api/v1/customers/A/devices", "PUT /api/v1/customers/A/devices"));
    EXPECT_EQ(request(1).json()["device"]["attributes"], json::object());
    EXPECT_EQ(request(2).json()["device"]["attributes"], (json{{"only", "custom"}}));
    EXPECT_EQ(request(3).json()["device"]["attributes"]["push_enabled"], "false");
}

TEST_F(TrackingFlowTest, MetricsNeedNoProfile) {
    const auto before = vontu::platform::Env::current().now().secondsSince1970;
    tern().trackMetric("delivery 1/ä", Metric::opened, "tok\"1");
    EXPECT_THAT(site.messages(), IsSupersetOf(std::vector<std::string>{infoLine("push metric opened"),
                                               "delivery id delivery 1/ä device token tok\"1"}));
    const auto inventory = readInventory(site.siteId());
    ASSERT_EQ(inventory.size(), 1U);
    EXPECT_EQ(inventory[0].type, "trackPushMetric");
    EXPECT_EQ(inventory[0].groupStart, std::nullopt);
    EXPECT_EQ(inventory[0].groupMember, std::nullopt);

    EXPECT_THAT(runQueueAndCollect(), ElementsAre("POST /push/events"));
    const json body = request(0).json();
    EXPECT_EQ(body["delivery_id"], "delivery 1/ä");
    EXPECT_EQ(body["event"], "opened");
    EXPECT_EQ(body["device_id"], "tok\"1");
    EXPECT_GE(body["timestamp"].get<double>(), std::floor(before));
    EXPECT_EQ(body.size(), 4U);
}

// --- initialisation ------------------------------------------------------------------------

TEST_F(TrackingFlowTest, ASecondInitializeSwitchesToTheOtherSite) {
    tern().identify("A");
    TrackingServer otherServer;
    TrackingSite other(otherServer);
    EXPECT_EQ(tern().siteId(), other.siteId());
    EXPECT_TRUE(trackingEnv().waitForSiteLines(other.sitePrefix(), [&](const auto& lines) {
        return std::ranges::any_of(lines, [&](const SiteLogLine& line) {
            return line.message == infoLine(
                                       "Tern SDK 2.1.2 initialized and ready to use for "
                                       "site id: " +
                                       other.siteId());
        });
    }));

    // The other site has its own profile and queue: a first identify there.
    tern().identify("B");
    EXPECT_EQ(storedProfile(), "B");
    EXPECT_TRUE(other.runQueue());
    EXPECT_THAT(otherServer.requestLines(), ElementsAre("PUT /api/v1/customers/B"));
    ASSERT_EQ(otherServer.requests().size(), 1U);
    EXPECT_EQ(otherServer.requests()[0].authorization,
              "Basic " + vontu::platform::base64Encode(other.siteId() + ":test-api-key"));
    EXPECT_TRUE(server.requests().empty());

    // Back on the first site, its profile is still there.
    site.initialize();
    EXPECT_EQ(storedProfile(), "A");
    EXPECT_THAT(runQueueAndCollect(), ElementsAre("PUT /api/v1/customers/A"));
}

}  // namespace
}  // namespace tern::testing
