#include "Common/DIGraph.hpp"

#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/util/ConsoleLogger.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using testing::RecordingLogger;

bool isConsoleLogger(const std::shared_ptr<Logger>& logger) {
    return std::dynamic_pointer_cast<ConsoleLogger>(logger) != nullptr;
}

class DIGraphTest : public ::testing::Test {
protected:
    vontu::testing::TestEnv testEnv;
    DIGraph graph{"site1", "key1", SdkConfig{}};
};

TEST_F(DIGraphTest, SharedServicesAreKeptEvenAcrossThreads) {
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
    EXPECT_EQ(graph.hooksManager(), graph.hooksManager());
}

TEST_F(DIGraphTest, LoggerOverrideReachesServicesBuiltAfterwards) {
    auto recording = std::make_shared<RecordingLogger>();
    graph.override<Logger>(recording);
    EXPECT_EQ(graph.logger(), recording);
    EXPECT_EQ(graph.fileStorage()->get(FileType::queueTask, "missing"), std::nullopt);
    EXPECT_EQ(recording->messages(RecordingLogger::Level::error).size(), 1u);

    // The shared timer is built now, with the override; its lines say so. Its cancel goes
    // through the main thread.
    graph.singleScheduleTimer()->cancel();
    testEnv.onMainAndWait([] {});
    const auto lines = recording->messages(RecordingLogger::Level::debug);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with(") timer is being cancelled")) << lines[0];
}

TEST_F(DIGraphTest, OverridesReplaceSharedAndFreshServicesUntilReset) {
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
    // An override stored as another type is ignored, and the service built as usual.
    graph.override(std::any(std::make_shared<int>(7)), DIGraph::typeKey<Logger>());
    EXPECT_TRUE(isConsoleLogger(graph.logger()));
    graph.override(std::any(std::string("not a lock manager")), DIGraph::typeKey<LockManager>());
    const auto built = graph.lockManager();
    ASSERT_NE(built, nullptr);
    EXPECT_EQ(graph.lockManager(), built);

    auto hooks = graph.hooksManager();
    graph.override<Logger>(std::make_shared<RecordingLogger>());
    graph.reset();
    EXPECT_NE(graph.lockManager(), built);
    EXPECT_EQ(graph.lockManager(), graph.lockManager());
    EXPECT_NE(graph.hooksManager(), hooks);
    EXPECT_NE(graph.profileStore(), profile);
    EXPECT_TRUE(isConsoleLogger(graph.logger()));
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
