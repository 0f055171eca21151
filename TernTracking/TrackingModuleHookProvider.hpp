#pragma once

#include <memory>

#include "Common/hooks/ModuleHookProvider.hpp"
#include "TernTracking/SdkInitializedUtil.hpp"

namespace tern {

// What the tracking module offers the other modules: only a runner for its queue tasks, and
// only once the library is initialised (the runner needs the graph).
class TrackingModuleHookProvider final : public ModuleHookProvider {
public:
    explicit TrackingModuleHookProvider(std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil);

    // Always absent.
    std::shared_ptr<ProfileIdentifyHook> profileIdentifyHook() override;
    // A new TrackingQueueRunner for the initialised site at every call; absent before
    // initialisation.
    std::shared_ptr<QueueRunnerHook> queueRunnerHook() override;
    // Always absent.
    std::shared_ptr<ScreenTrackingHook> screenTrackingHook() override;

private:
    std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil_;
};

}  // namespace tern
