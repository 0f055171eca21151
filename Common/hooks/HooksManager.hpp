#pragma once

#include <memory>
#include <vector>

#include "Common/hooks/HookModule.hpp"
#include "Common/hooks/ModuleHookProvider.hpp"
#include "platform/AutoMockable.hpp"

namespace tern {

// Where modules register their hooks and find each other's, without depending on each other.
class HooksManager : public vontu::AutoMockable {
public:
    // Keeps provider as the module's one provider, replacing any earlier one.
    virtual void add(HookModule key, std::shared_ptr<ModuleHookProvider> provider) = 0;
    // The hooks of that kind that the providers offer now; absent hooks are left out.
    virtual std::vector<std::shared_ptr<ProfileIdentifyHook>> profileIdentifyHooks() = 0;
    virtual std::vector<std::shared_ptr<QueueRunnerHook>> queueRunnerHooks() = 0;
    virtual std::vector<std::shared_ptr<ScreenTrackingHook>> screenViewHooks() = 0;
};

}  // namespace tern
