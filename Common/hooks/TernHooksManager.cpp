#include "Common/hooks/TernHooksManager.hpp"

#include <utility>

namespace tern {

void TernHooksManager::add(HookModule key, std::shared_ptr<ModuleHookProvider> provider) {
    std::lock_guard guard(mutex_);
    hookProviders_[key] = std::move(provider);
}

std::vector<std::shared_ptr<ModuleHookProvider>> TernHooksManager::providers() {
    std::lock_guard guard(mutex_);
    std::vector<std::shared_ptr<ModuleHookProvider>> copy;
    copy.reserve(hookProviders_.size());
    for (const auto& [module, provider] : hookProviders_) {
        if (provider) copy.push_back(provider);
    }
    return copy;
}

template <typename Hook>
std::vector<std::shared_ptr<Hook>> TernHooksManager::collect(
    std::shared_ptr<Hook> (ModuleHookProvider::*hookOf)()) {
    std::vector<std::shared_ptr<Hook>> hooks;
    for (const auto& provider : providers()) {
        if (auto hook = ((*provider).*hookOf)()) hooks.push_back(std::move(hook));
    }
    return hooks;
}

std::vector<std::shared_ptr<ProfileIdentifyHook>> TernHooksManager::profileIdentifyHooks() {
    return collect(&ModuleHookProvider::profileIdentifyHook);
}

std::vector<std::shared_ptr<QueueRunnerHook>> TernHooksManager::queueRunnerHooks() {
    return collect(&ModuleHookProvider::queueRunnerHook);
}

std::vector<std::shared_ptr<ScreenTrackingHook>> TernHooksManager::screenViewHooks() {
    return collect(&ModuleHookProvider::screenTrackingHook);
}

}  // namespace tern
