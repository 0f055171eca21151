#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Common/DIGraph.hpp"
#include "Common/queue/QueueTaskGroup.hpp"
#include "TernTracking/TernCleanupRepository.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern::testing {
namespace {

using vontu::platform::Date;
using vontu::platform::toBytes;

class SettableClock final : public DateUtil {
public:
    explicit SettableClock(double seconds) : seconds_(seconds) {}
    Date now() const override { return Date{seconds_.load()}; }
    void set(double seconds) { seconds_.store(seconds); }

private:
    std::atomic<double> seconds_;
};

std::vector<std::string> queuedTypes(DIGraph& graph) {
    std::vector<std::string> types;
    for (const auto& entry : graph.queueStorage()->getInventory()) types.push_back(entry.taskType);
    return types;
}

TEST(TernCleanupRepositoryTest, DropsTheTasksOlderThanTheConfiguredExpiry) {
    vontu::testing::TestEnv env;
    SdkConfig config;
    config.backgroundQueueExpiredSeconds = 3600;
    DIGraph graph("cleanup-site", "key", config);
    const double start = 1'700'000'000;
    auto clock = std::make_shared<SettableClock>(start);
    graph.override<DateUtil>(clock);

    auto storage = graph.queueStorage();
    storage->create("trackEvent", toBytes("{}"), std::nullopt, std::nullopt);
    // A task that opens a group stays: the tasks of its group wait for it.
    storage->create("identifyProfile", toBytes("{}"), QueueTaskGroup::identifiedProfile("a"),
                    std::nullopt);
    clock->set(start + 1800);
    storage->create("trackPushMetric", toBytes("{}"), std::nullopt, std::nullopt);

    clock->set(start + 3600 + 1);
    TernCleanupRepository(graph).cleanup();
    EXPECT_EQ(queuedTypes(graph), (std::vector<std::string>{"identifyProfile", "trackPushMetric"}));

    // Nothing that is young enough goes, however often the clean-up runs.
    TernCleanupRepository(graph.queue()).cleanup();
    EXPECT_EQ(queuedTypes(graph), (std::vector<std::string>{"identifyProfile", "trackPushMetric"}));
}

}  // namespace
}  // namespace tern::testing
