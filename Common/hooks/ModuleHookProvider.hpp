#pragma once

#include <memory>

#include "Common/hooks/ProfileIdentifyHook.hpp"
#include "Common/hooks/QueueRunnerHook.hpp"
#include "Common/hooks/ScreenTrackingHook.hpp"
#include "platform/AutoMockable.hpp"

namespace tern {

// What one module offers the others: any of the three kinds of hook, or none. The hooks are
// asked for every time a list is built, so a provider may answer differently over time (for
// example once the library is initialised).
class ModuleHookProvider : public vontu::AutoMockable {
public:
    virtual std::shared_ptr<ProfileIdentifyHook> profileIdentifyHook() = 0;
    virtual std::shared_ptr<QueueRunnerHook> queueRunnerHook() = 0;
    virtual std::shared_ptr<ScreenTrackingHook> screenTrackingHook() = 0;
};

}  // namespace tern
