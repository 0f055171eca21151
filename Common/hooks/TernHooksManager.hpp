#pragma once

#include <map>
#include <mutex>

#include "Common/hooks/HooksManager.hpp"

namespace tern {

// HooksManager with one provider per module. Safe from any thread: providers are registered at
// initialisation while other threads may already build hook lists.
class TernHooksManager final : public HooksManager {
public:
    void add(HookModule key, std::shared_ptr<ModuleHookProvider> provider) override;
    std::vector<std::shared_ptr<ProfileIdentifyHook>> profileIdentifyHooks() override;
    std::vector<std::shared_ptr<QueueRunnerHook>> queueRunnerHooks() override;
    std::vector<std::shared_ptr<ScreenTrackingHook>> screenViewHooks() override;

private:
    // A copy of the providers, so that they are asked for their hooks outside the mutex (a
    // provider may well call back into the library).
    std::vector<std::shared_ptr<ModuleHookProvider>> providers();

    template <typename Hook>
    std::vector<std::shared_ptr<Hook>> collect(
        std::shared_ptr<Hook> (ModuleHookProvider::*hookOf)());

    std::mutex mutex_;
    std::map<HookModule, std::shared_ptr<ModuleHookProvider>> hookProviders_;
};

}  // namespace tern
