#include "TernTracking/TrackingModuleHookProvider.hpp"

#include <utility>

#include "TernTracking/TrackingQueueRunner.hpp"

namespace tern {

TrackingModuleHookProvider::TrackingModuleHookProvider(
    std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil)
    : sdkInitializedUtil_(std::move(sdkInitializedUtil)) {}

std::shared_ptr<ProfileIdentifyHook> TrackingModuleHookProvider::profileIdentifyHook() {
    return nullptr;
}

std::shared_ptr<QueueRunnerHook> TrackingModuleHookProvider::queueRunnerHook() {
    auto initialized = sdkInitializedUtil_->postInitializedData();
    if (!initialized || !initialized->diGraph) return nullptr;
    return std::make_shared<TrackingQueueRunner>(initialized->siteId, *initialized->diGraph);
}

std::shared_ptr<ScreenTrackingHook> TrackingModuleHookProvider::screenTrackingHook() {
    return nullptr;
}

}  // namespace tern
