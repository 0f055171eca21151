// The shared Tern object from the first call of the process on: silent before initialisation,
// the app and extension forms, and calls racing an initialisation.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "TernTracking/AutomaticScreenViews.hpp"
#include "TernTracking/SdkInitializedUtilImpl.hpp"
#include "tests/common/util/RecordingEnv.hpp"
#include "tests/tracking/TrackingTestSupport.hpp"

namespace tern::testing {
namespace {

using nlohmann::json;

// One test, as its first part needs a process in which nothing has initialised the library yet.
TEST(TernFacadeTest, SilentUntilInitializedThenFollowsEachInitialization) {
    Tern& tern = *Tern::shared();
    SdkInitializedUtilImpl initializedUtil;
    ASSERT_EQ(tern.diGraph(), nullptr) << "this test needs a process of its own";
    {
        RecordingEnv env;  // before initialisation, calls do nothing and log nothing
        tern.identify("A", json{{"k", "v"}});
        tern.track("event");
        tern.screen("Home", json::object());
        tern.setProfileAttributes({{"k", "v"}});
        tern.setDeviceAttributes({{"k", "v"}});
        tern.registerDeviceToken("tok");
        tern.deleteDeviceToken();
        tern.clearIdentify();
        tern.trackMetric("d", Metric::delivered, "tok");
        EXPECT_TRUE(env.logLines().empty());
    }
    EXPECT_EQ(tern.siteId(), std::nullopt);
    EXPECT_EQ(initializedUtil.postInitializedData(), std::nullopt);

    TrackingServer server;
    TrackingSite app(server);
    EXPECT_EQ(tern.siteId(), app.siteId());
    ASSERT_TRUE(initializedUtil.postInitializedData());
    EXPECT_EQ(initializedUtil.postInitializedData()->diGraph, tern.diGraph());

    // The extension form takes a few options only, not the URL, and never tracks screen views.
    Tern::initialize("extension-site", "key", Region::EU,
                     [&](NotificationServiceExtensionSdkConfig& config) {
                         config.logLevel = TernLogLevel::debug;
                         config.trackingApiUrl = server.baseUrl();
                     });
    EXPECT_TRUE(cleanupFinished());
    EXPECT_EQ(tern.siteId(), "extension-site");
    EXPECT_EQ(tern.diGraph()->sdkConfig().trackingApiUrl, productionTrackingUrl(Region::EU));
    EXPECT_EQ(tern.diGraph()->sdkConfig().logLevel, TernLogLevel::debug);
    EXPECT_FALSE(isAutomaticScreenViewTrackingInstalled());
}

// Initialising on one thread while others use the facade: every call sees either no
// implementation or a whole one.
TEST(TernFacadeTest, CallsRacingInitializationSeeAWholeObject) {
    TrackingServer server;
    TrackingSite site(server);
    std::atomic<bool> stop{false};
    auto use = [&stop] {
        for (SdkInitializedUtilImpl util; !stop;) {
            Tern::shared()->track("race");
            EXPECT_EQ(Tern::shared()->profileAttributes(), json::object());
            if (auto data = util.postInitializedData()) {
                EXPECT_EQ(data->siteId, data->diGraph->siteId());
            }
        }
    };
    std::thread first(use), second(use);
    for (int round = 0; round < 5; ++round) site.initialize();
    stop = true;
    first.join();
    second.join();
}

}  // namespace
}  // namespace tern::testing
