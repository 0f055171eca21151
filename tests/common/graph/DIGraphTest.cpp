#include <future>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/DIGraph.hpp"
#include "Common/util/ConsoleLogger.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using testing::RecordingLogger;

class DIGraphTest : public ::testing::Test {
protected:
    vontu::testing::TestEnv testEnv;
    DIGraph graph{"site1", "key1", SdkConfig{}};
};

TEST_F(DIGraphTest, SharedServicesAreKeptAndOthersBuiltAnew) {
    EXPECT_EQ(graph.lockManager(), graph.lockManager());
    EXPECT_EQ(graph.hooksManager(), graph.hooksManager());
    EXPECT_EQ(graph.singleScheduleTimer(), graph.singleScheduleTimer());

    EXPECT_NE(graph.jsonAdapter(), graph.jsonAdapter());
    EXPECT_NE(graph.logger(), graph.logger());
    EXPECT_NE(graph.keyValueStorage(), graph.keyValueStorage());
    EXPECT_NE(graph.fileStorage(), graph.fileStorage());
    EXPECT_NE(graph.threadUtil(), graph.threadUtil());
    EXPECT_NE(graph.deviceInfo(), graph.deviceInfo());
    EXPECT_NE(graph.userAgentUtil(), graph.userAgentUtil());
    EXPECT_NE(graph.dateUtil(), graph.dateUtil());
    EXPECT_NE(graph.uIKitWrapper(), graph.uIKitWrapper());
    EXPECT_NE(graph.globalDataStore(), graph.globalDataStore());
    EXPECT_NE(graph.profileStore(), graph.profileStore());

    EXPECT_NE(std::dynamic_pointer_cast<ConsoleLogger>(graph.logger()), nullptr);
}

TEST_F(DIGraphTest, SharedServiceAskedFromManyThreadsIsOneObject) {
    std::vector<std::shared_ptr<LockManager>> managers(8);
    std::vector<std::shared_ptr<SingleScheduleTimer>> timers(8);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < managers.size(); ++t) {
        threads.emplace_back([&, t] {
            managers[t] = graph.lockManager();
            timers[t] = graph.singleScheduleTimer();
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(std::set(managers.begin(), managers.end()).size(), 1u);
    EXPECT_EQ(std::set(timers.begin(), timers.end()).size(), 1u);
}

TEST_F(DIGraphTest, LoggerOverrideReachesServicesBuiltAfterwards) {
    auto recording = std::make_shared<RecordingLogger>();
    graph.override<Logger>(recording);
    EXPECT_EQ(graph.logger(), recording);

    EXPECT_EQ(graph.fileStorage()->get(FileType::queueTask, "missing"), std::nullopt);
    EXPECT_EQ(recording->messages(RecordingLogger::Level::error).size(), 1u);

    // The shared timer is built now, with the override; its lines say so.
    graph.singleScheduleTimer()->cancel();
    std::promise<void> cancelled;
    testEnv.env().runOnMain([&] { cancelled.set_value(); });
    cancelled.get_future().wait();
    const auto lines = recording->messages(RecordingLogger::Level::debug);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with(") timer is being cancelled")) << lines[0];
}

TEST_F(DIGraphTest, OverridesReplaceSharedAndFreshServices) {
    auto locks = std::make_shared<LockManager>();
    graph.override<LockManager>(locks);
    EXPECT_EQ(graph.lockManager(), locks);

    class FixedProfile final : public ProfileStore {
    public:
        std::optional<std::string> identifier() override { return "fixed"; }
        void setIdentifier(std::optional<std::string>) override {}
    };
    auto profile = std::make_shared<FixedProfile>();
    graph.override<ProfileStore>(profile);
    EXPECT_EQ(graph.profileStore(), profile);
    EXPECT_EQ(graph.profileStore(), profile);
}

TEST_F(DIGraphTest, ResetForgetsOverridesAndSharedServices) {
    auto shared = graph.lockManager();
    auto hooks = graph.hooksManager();
    graph.override<Logger>(std::make_shared<RecordingLogger>());
    graph.reset();

    EXPECT_NE(graph.lockManager(), shared);
    EXPECT_NE(graph.hooksManager(), hooks);
    EXPECT_NE(std::dynamic_pointer_cast<ConsoleLogger>(graph.logger()), nullptr);
    EXPECT_EQ(graph.lockManager(), graph.lockManager());
}

TEST_F(DIGraphTest, OverrideOfTheWrongTypeIsIgnored) {
    graph.override(std::any(std::make_shared<int>(7)), DIGraph::typeKey<Logger>());
    EXPECT_NE(std::dynamic_pointer_cast<ConsoleLogger>(graph.logger()), nullptr);

    graph.override(std::any(std::string("not a lock manager")), DIGraph::typeKey<LockManager>());
    auto built = graph.lockManager();
    ASSERT_NE(built, nullptr);
    EXPECT_EQ(graph.lockManager(), built);

    // The same value stored in the right form is used.
    auto recording = std::make_shared<RecordingLogger>();
    graph.override(std::any(std::shared_ptr<Logger>(recording)), DIGraph::typeKey<Logger>());
    EXPECT_EQ(graph.logger(), recording);
}

TEST_F(DIGraphTest, TypeKeysNameTheInterfaces) {
    EXPECT_EQ(DIGraph::typeKey<Logger>(), "tern::Logger");
    EXPECT_EQ(DIGraph::typeKey<LockManager>(), "tern::LockManager");
    EXPECT_NE(DIGraph::typeKey<GlobalDataStore>(), DIGraph::typeKey<ProfileStore>());
}

TEST_F(DIGraphTest, StoresAreForThisSiteAndTheSharedSuite) {
    graph.profileStore()->setIdentifier("person");
    graph.globalDataStore()->setPushDeviceToken("token");
    auto suite = [&](const std::string& name) { return testEnv.env().defaultsSuite(name); };
    EXPECT_EQ(suite("dev.tern.sdk.ios.vontu.site1")->objectForKey("identifiedProfileId"),
              vontu::platform::PlistValue("person"));
    EXPECT_EQ(suite("dev.tern.sdk.ios.vontu.shared")->objectForKey("pushDeviceToken"),
              vontu::platform::PlistValue("token"));
}

}  // namespace
}  // namespace tern
