#include <atomic>
#include <memory>

#include <gtest/gtest.h>

#include "Common/hooks/TernHooksManager.hpp"

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
    std::shared_ptr<ProfileIdentifyHook> profileIdentify;
    std::shared_ptr<QueueRunnerHook> queueRunner;
    std::shared_ptr<ScreenTrackingHook> screenTracking;

    std::shared_ptr<ProfileIdentifyHook> profileIdentifyHook() override { return profileIdentify; }
    std::shared_ptr<QueueRunnerHook> queueRunnerHook() override { return queueRunner; }
    std::shared_ptr<ScreenTrackingHook> screenTrackingHook() override { return screenTracking; }
};

std::shared_ptr<SettableProvider> providerWithAllHooks() {
    auto provider = std::make_shared<SettableProvider>();
    provider->profileIdentify = std::make_shared<NoOpProfileIdentifyHook>();
    provider->queueRunner = std::make_shared<DecliningQueueRunnerHook>();
    provider->screenTracking = std::make_shared<NoOpScreenTrackingHook>();
    return provider;
}

TEST(HooksManagerTest, WithoutProvidersEveryListIsEmpty) {
    TernHooksManager manager;
    EXPECT_TRUE(manager.profileIdentifyHooks().empty());
    EXPECT_TRUE(manager.queueRunnerHooks().empty());
    EXPECT_TRUE(manager.screenViewHooks().empty());
}

TEST(HooksManagerTest, SecondProviderOfAModuleReplacesTheFirst) {
    TernHooksManager manager;
    auto first = providerWithAllHooks();
    auto second = providerWithAllHooks();
    manager.add(HookModule::tracking, first);
    manager.add(HookModule::tracking, second);

    ASSERT_EQ(manager.queueRunnerHooks().size(), 1u);
    EXPECT_EQ(manager.queueRunnerHooks()[0], second->queueRunner);
    EXPECT_EQ(manager.profileIdentifyHooks(),
              std::vector<std::shared_ptr<ProfileIdentifyHook>>{second->profileIdentify});
}

TEST(HooksManagerTest, ListsHoldThePresentHooksOfEveryModule) {
    TernHooksManager manager;
    auto tracking = std::make_shared<SettableProvider>();
    tracking->queueRunner = std::make_shared<DecliningQueueRunnerHook>();
    auto push = providerWithAllHooks();
    manager.add(HookModule::tracking, tracking);
    manager.add(HookModule::messagingPush, push);
    manager.add(HookModule::messagingInApp, std::make_shared<SettableProvider>());

    EXPECT_EQ(manager.queueRunnerHooks().size(), 2u);
    EXPECT_EQ(manager.profileIdentifyHooks().size(), 1u);
    EXPECT_EQ(manager.screenViewHooks().size(), 1u);

    // Providers are asked again at every call.
    tracking->screenTracking = std::make_shared<NoOpScreenTrackingHook>();
    push->profileIdentify = nullptr;
    EXPECT_EQ(manager.screenViewHooks().size(), 2u);
    EXPECT_TRUE(manager.profileIdentifyHooks().empty());
}

TEST(HookModuleTest, RawValues) {
    struct Case {
        const char* text;
        std::optional<HookModule> module;
    };
    const Case cases[] = {
        {"tracking", HookModule::tracking},
        {"messagingPush", HookModule::messagingPush},
        {"messagingInApp", HookModule::messagingInApp},
        {"push", std::nullopt},
        {"Tracking", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(fromRawValue<HookModule>(c.text), c.module) << c.text;
        if (c.module) {
            EXPECT_EQ(rawValue(*c.module), c.text);
        }
    }
}

}  // namespace
}  // namespace tern
