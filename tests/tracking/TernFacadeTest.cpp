// The shared Tern object from the first call of the process on: silent before initialisation,
// the app and extension forms, and calls racing an initialisation.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Common/util/ConsoleLogger.hpp"
#include "TernTracking/AutomaticScreenViews.hpp"
#include "TernTracking/SdkInitializedUtilImpl.hpp"
#include "platform/Env.hpp"
#include "tests/tracking/TrackingTestSupport.hpp"

namespace tern::testing {
namespace {

using nlohmann::json;
using vontu::platform::Env;

// Counts the library's log lines on their way to the platform.
class LineCountingEnv final : public vontu::platform::EnvWrapper {
public:
    using EnvWrapper::EnvWrapper;
    void writeLog(const std::string& subsystem, const std::string& category,
                  vontu::platform::LogType type, const std::string& message) override {
        if (subsystem == ConsoleLogger::logSubsystem) ++lines;
        target().writeLog(subsystem, category, type, message);
    }
    std::atomic<int> lines{0};
};

// One test walks the life of the process's shared object, because its first part needs a
// process in which nothing has initialised the library yet.
TEST(TernFacadeTest, SilentUntilInitializedThenFollowsEachInitialization) {
    Tern& tern = *Tern::shared();
    SdkInitializedUtilImpl initializedUtil;
    ASSERT_EQ(tern.diGraph(), nullptr) << "this test needs a process of its own";

    // Before initialisation every call does nothing and logs nothing.
    LineCountingEnv counting(Env::current());
    Env::setCurrent(&counting);
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
    Env::setCurrent(&counting.target());
    EXPECT_EQ(counting.lines, 0);
    EXPECT_EQ(tern.implementation(), nullptr);
    EXPECT_EQ(tern.siteId(), std::nullopt);
    EXPECT_EQ(tern.profileAttributes(), json::object());
    EXPECT_EQ(tern.deviceAttributes(), json::object());
    EXPECT_FALSE(initializedUtil.isInitlaized());
    EXPECT_EQ(initializedUtil.postInitializedData(), std::nullopt);

    // The app form.
    TrackingServer server;
    TrackingSite app(server);
    EXPECT_EQ(tern.siteId(), app.siteId());
    EXPECT_TRUE(initializedUtil.isInitlaized());
    ASSERT_TRUE(initializedUtil.postInitializedData());
    EXPECT_EQ(initializedUtil.postInitializedData()->siteId, app.siteId());
    EXPECT_EQ(initializedUtil.postInitializedData()->diGraph, tern.diGraph());
    EXPECT_EQ(initializedUtil.tern(), Tern::shared());

    // The extension form: its few options (the URL is not one of them: the region's production
    // URL is used) and never screen views. Nothing is queued here: the URL is not loopback.
    const std::string extensionSite = TrackingSite::newSiteId();
    Tern::initialize(extensionSite, "key", Region::EU,
                     [&](NotificationServiceExtensionSdkConfig& config) {
                         config.logLevel = TernLogLevel::debug;
                         config.trackingApiUrl = server.baseUrl();
                     });
    EXPECT_TRUE(cleanupFinished());
    EXPECT_EQ(tern.siteId(), extensionSite);
    const SdkConfig& extensionConfig = tern.diGraph()->sdkConfig();
    EXPECT_EQ(extensionConfig.trackingApiUrl, productionTrackingUrl(Region::EU));
    EXPECT_EQ(extensionConfig.logLevel, TernLogLevel::debug);
    EXPECT_FALSE(isAutomaticScreenViewTrackingInstalled());
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
