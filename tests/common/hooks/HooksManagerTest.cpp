#include "Common/hooks/TernHooksManager.hpp"

#include <memory>

#include <gtest/gtest.h>

namespace tern {
namespace {

class NoOpProfileIdentifyHook final : public ProfileIdentifyHook {
public:
    void beforeIdentifiedProfileChange(const std::string&, const std::string&) override {}
    void profileIdentified(const std::string&) override {}
    void beforeProfileStoppedBeingIdentified(const std::string&) override {}
};
class DecliningQueueRunnerHook final : public QueueRunnerHook {
public:
    bool runTask(const QueueTask&, Completion) override { return false; }
};
class NoOpScreenTrackingHook final : public ScreenTrackingHook {
public:
    void screenViewed(const std::string&) override {}
};

// Offers whichever hooks a test sets, read anew at every call.
class SettableProvider final : public ModuleHookProvider {
public:
    std::shared_ptr<ProfileIdentifyHook> profileIdentify = std::make_shared<NoOpProfileIdentifyHook>();
    std::shared_ptr<QueueRunnerHook> queueRunner = std::make_shared<DecliningQueueRunnerHook>();
    std::shared_ptr<ScreenTrackingHook> screenTracking = std::make_shared<NoOpScreenTrackingHook>();

    std::shared_ptr<ProfileIdentifyHook> profileIdentifyHook() override { return profileIdentify; }
    std::shared_ptr<QueueRunnerHook> queueRunnerHook() override { return queueRunner; }
    std::shared_ptr<ScreenTrackingHook> screenTrackingHook() override { return screenTracking; }
};

TEST(HooksManagerTest, ListsHoldThePresentHooksOfOneProviderPerModule) {
    TernHooksManager manager;
    auto replaced = std::make_shared<SettableProvider>();
    auto tracking = std::make_shared<SettableProvider>();
    tracking->profileIdentify = nullptr;
    tracking->screenTracking = nullptr;
    auto push = std::make_shared<SettableProvider>();
    auto inApp = std::make_shared<SettableProvider>();
    inApp->profileIdentify = nullptr;
    inApp->queueRunner = nullptr;
    inApp->screenTracking = nullptr;
    manager.add(HookModule::tracking, replaced);
    manager.add(HookModule::tracking, tracking);  // a second provider of a module replaces the first
    manager.add(HookModule::messagingPush, push);
    manager.add(HookModule::messagingInApp, inApp);

    using QueueHooks = std::vector<std::shared_ptr<QueueRunnerHook>>;
    EXPECT_EQ(manager.queueRunnerHooks(), (QueueHooks{tracking->queueRunner, push->queueRunner}));
    EXPECT_EQ(manager.profileIdentifyHooks(),
              std::vector<std::shared_ptr<ProfileIdentifyHook>>{push->profileIdentify});
    EXPECT_EQ(manager.screenViewHooks().size(), 1u);

    // Providers are asked again at every call.
    tracking->screenTracking = std::make_shared<NoOpScreenTrackingHook>();
    push->profileIdentify = nullptr;
    EXPECT_EQ(manager.screenViewHooks().size(), 2u);
    EXPECT_TRUE(manager.profileIdentifyHooks().empty());
}

}  // namespace
}  // namespace tern
