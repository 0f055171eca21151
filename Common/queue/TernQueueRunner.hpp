#pragma once

#include <memory>
#include <string>

#include "Common/config/SdkConfig.hpp"
#include "Common/hooks/HooksManager.hpp"
#include "Common/hooks/QueueRunnerHook.hpp"
#include "Common/http/HttpClient.hpp"
#include "Common/queue/ApiSyncQueueRunner.hpp"
#include "Common/queue/QueueRunner.hpp"
#include "Common/util/Atomic.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "Common/util/Logger.hpp"

namespace tern {

// The queue's runner. It sends the queue's own delivery-metric tasks itself and offers every
// other task to the modules' runner hooks, which know their own task types.
class TernQueueRunner final : public ApiSyncQueueRunner, public QueueRunner {
public:
    TernQueueRunner(std::string siteId, std::shared_ptr<JsonAdapter> jsonAdapter,
                    std::shared_ptr<Logger> logger, std::shared_ptr<HttpClient> httpClient,
                    const SdkConfig& sdkConfig, std::shared_ptr<HooksManager> hooks);

    void runTask(const QueueTask& task, QueueRunner::Completion onComplete) override;

    // The hook that took the task now running; empty between tasks.
    std::shared_ptr<QueueRunnerHook> currentlyRunningHook() const;

private:
    using RunningHook = Atomic<std::shared_ptr<QueueRunnerHook>>;

    void runDeliveryMetricTask(const QueueTask& task, QueueRunner::Completion onComplete);
    // Offers the task to every hook in the manager's order. False when none takes it.
    bool offerToHooks(const QueueTask& task, const QueueRunner::Completion& onComplete);

    const std::shared_ptr<HooksManager> hooks_;
    // Shared with the hooks' completions, which may arrive after this runner is gone. A hook
    // may answer on another thread before runTask has even returned, so each access is
    // exclusive.
    const std::shared_ptr<RunningHook> currentlyRunningHook_ =
        std::make_shared<RunningHook>(nullptr);
};

}  // namespace tern
