// The shared Tern object from the first call of the process on: silent before initialisation,
// the app and extension forms, repeated initialisation, and calls racing an initialisation.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "TernTracking/AutomaticScreenViews.hpp"
#include "TernTracking/CleanupRepository.hpp"
#include "TernTracking/ModuleTopLevelObject.hpp"
#include "TernTracking/Tern.hpp"
#include "tests/tracking/TrackingTestSupport.hpp"

namespace tern::testing {
namespace {

using ::testing::Contains;
using nlohmann::json;

struct PushModuleImplementation {
    std::string siteId;
};

// A module facade as the push module writes one.
class PushModule final : public ModuleTopLevelObject<PushModuleImplementation> {
protected:
    void inititlizeModule(const std::shared_ptr<DIGraph>&) override {}
    std::shared_ptr<PushModuleImplementation> getImplementationInstance(
        const std::shared_ptr<DIGraph>& diGraph) override {
        return std::make_shared<PushModuleImplementation>(
            PushModuleImplementation{diGraph->siteId()});
    }
};

std::string initializedLine(const std::string& siteId) {
    return infoLine("Tern SDK 2.1.2 initialized and ready to use for site id: " + siteId);
}

// One test walks the whole life of the process's shared object, because its first part needs
// a process in which nothing has initialised the library yet.
TEST(TernFacadeTest, SilentUntilInitializedThenFollowsEachInitialization) {
    trackingEnv();
    Tern& tern = *Tern::shared();
    SdkInitializedUtilImpl initializedUtil;
    PushModule pushModule;

    // Before initialisation: nothing happens, nothing is logged, nothing is created.
    ASSERT_EQ(tern.diGraph(), nullptr) << "this test needs a process of its own";
    EXPECT_EQ(tern.implementation(), nullptr);
    tern.identify("A");
    tern.identify("A", json{{"k", "v"}});
    tern.track("event");
    tern.screen("Home", json::object());
    tern.setProfileAttributes({{"k", "v"}});
    tern.setDeviceAttributes({{"k", "v"}});
    tern.registerDeviceToken("tok");
    tern.deleteDeviceToken();
    tern.clearIdentify();
    tern.trackMetric("d", Metric::delivered, "tok");
    EXPECT_EQ(tern.siteId(), std::nullopt);
    EXPECT_EQ(tern.profileAttributes(), json::object());
    EXPECT_EQ(tern.deviceAttributes(), json::object());
    EXPECT_EQ(trackingEnv().libraryLineCount(), 0U);
    EXPECT_FALSE(initializedUtil.isInitlaized());
    EXPECT_EQ(initializedUtil.postInitializedData(), std::nullopt);
    EXPECT_EQ(pushModule.implementation(), nullptr);

    // The app form, screen views left off.
    TrackingServer server;
    TrackingSite first(server);
    ASSERT_NE(tern.diGraph(), nullptr);
    EXPECT_EQ(tern.siteId(), first.siteId());
    EXPECT_TRUE(initializedUtil.isInitlaized());
    EXPECT_EQ(initializedUtil.postInitializedData()->siteId, first.siteId());
    EXPECT_EQ(initializedUtil.tern(), Tern::shared());
    EXPECT_FALSE(isAutomaticScreenViewTrackingInstalled());
    EXPECT_THAT(first.messages(), Contains(initializedLine(first.siteId())));
    EXPECT_TRUE(waitForCleanupRepositoryRelease());
    EXPECT_EQ(tern.diGraph()->hooksManager()->queueRunnerHooks().size(), 1U);

    auto pushImplementation = pushModule.implementation();
    ASSERT_NE(pushImplementation, nullptr);
    EXPECT_EQ(pushImplementation->siteId, first.siteId());
    EXPECT_EQ(pushModule.implementation(), pushImplementation);

    // Initialising again with another site: later calls use the new graph.
    const auto firstGraph = tern.diGraph();
    TrackingSite second(server);
    EXPECT_NE(tern.diGraph(), firstGraph);
    EXPECT_EQ(tern.siteId(), second.siteId());
    EXPECT_EQ(initializedUtil.postInitializedData()->diGraph, tern.diGraph());
    EXPECT_THAT(second.messages(), Contains(initializedLine(second.siteId())));
    const auto firstSiteLines = first.logs().size();
    tern.identify("B");
    EXPECT_EQ(first.logs().size(), firstSiteLines);
    EXPECT_THAT(second.messages(), Contains("running hooks profile identified B"));
    EXPECT_EQ(tern.diGraph()->hooksManager()->queueRunnerHooks().size(), 1U);

    // The extension form: its reduced options, the production URL of its region, a queue that
    // sends at once, and never screen views. Nothing is queued here: the URL is not loopback.
    const std::string extensionSite = TrackingSite::newSiteId();
    Tern::initialize(extensionSite, "key", Region::EU,
                     [&](NotificationServiceExtensionSdkConfig& config) {
                         config.logLevel = TernLogLevel::debug;
                         config.trackingApiUrl = server.baseUrl();
                     });
    const SdkConfig& extensionConfig = tern.diGraph()->sdkConfig();
    EXPECT_EQ(extensionConfig.region, Region::EU);
    EXPECT_EQ(extensionConfig.trackingApiUrl, productionTrackingUrl(Region::EU));
    EXPECT_EQ(extensionConfig.logLevel, TernLogLevel::debug);
    EXPECT_EQ(extensionConfig.backgroundQueueMinNumberOfTasks, 1);
    EXPECT_FALSE(extensionConfig.autoTrackScreenViews);
    EXPECT_FALSE(isAutomaticScreenViewTrackingInstalled());
    EXPECT_TRUE(trackingEnv().waitForSiteLines(extensionSite.substr(0, 5), [&](const auto& lines) {
        return std::ranges::any_of(lines, [&](const SiteLogLine& line) {
            return line.message == initializedLine(extensionSite);
        });
    }));
    EXPECT_TRUE(waitForCleanupRepositoryRelease());

    // The app form with screen views on installs the interception.
    TrackingSite withScreenViews(server,
                                 [](json& params) { params["autoTrackScreenViews"] = true; });
    EXPECT_TRUE(tern.diGraph()->sdkConfig().autoTrackScreenViews);
    EXPECT_TRUE(isAutomaticScreenViewTrackingInstalled());
    EXPECT_TRUE(waitForCleanupRepositoryRelease());
    EXPECT_TRUE(server.requests().empty());
}

// Initialising on one thread while others use the facade: every call sees either no
// implementation or a whole one.
TEST(TernFacadeTest, CallsRacingInitializationSeeAWholeObject) {
    TrackingServer server;
    TrackingSite site(server);
    std::atomic<bool> stop{false};
    std::vector<std::thread> callers;
    for (int i = 0; i < 2; ++i) {
        callers.emplace_back([&stop, i] {
            SdkInitializedUtilImpl util;
            while (!stop) {
                Tern::shared()->track("race-" + std::to_string(i));
                EXPECT_EQ(Tern::shared()->profileAttributes(), json::object());
                if (auto data = util.postInitializedData()) {
                    EXPECT_EQ(data->siteId, data->diGraph->siteId());
                }
            }
        });
    }
    for (int round = 0; round < 5; ++round) site.initialize();
    stop = true;
    for (auto& caller : callers) caller.join();
    EXPECT_EQ(Tern::shared()->siteId(), site.siteId());
}

}  // namespace
}  // namespace tern::testing
