#include "Common/queue/TernQueueRunner.hpp"

#include <utility>

#include "Common/queue/TrackDeliveryEventRequestBody.hpp"

namespace tern {

TernQueueRunner::TernQueueRunner(std::string siteId, std::shared_ptr<JsonAdapter> jsonAdapter,
                                 std::shared_ptr<Logger> logger,
                                 std::shared_ptr<HttpClient> httpClient,
                                 const SdkConfig& sdkConfig, std::shared_ptr<HooksManager> hooks)
    : ApiSyncQueueRunner(std::move(siteId), std::move(jsonAdapter), std::move(logger),
                         std::move(httpClient), sdkConfig),
      hooks_(std::move(hooks)) {}

void TernQueueRunner::runTask(const QueueTask& task, QueueRunner::Completion onComplete) {
    if (task.type == TrackDeliveryEventRequestBody::queueTaskType) {
        runDeliveryMetricTask(task, std::move(onComplete));
        return;
    }
    if (offerToHooks(task, onComplete)) return;
    logger_->error("task " + task.type + " not handled by any module");
    onComplete(std::unexpected(HttpRequestError::noRequestMade(std::nullopt)));
}

std::shared_ptr<QueueRunnerHook> TernQueueRunner::currentlyRunningHook() const {
    return currentlyRunningHook_->wrappedValue();
}

void TernQueueRunner::runDeliveryMetricTask(const QueueTask& task,
                                            QueueRunner::Completion onComplete) {
    auto body = getTaskData<TrackDeliveryEventRequestBody>(task);
    if (!body) {
        onComplete(std::unexpected(failureIfDontDecodeTaskData()));
        return;
    }
    // The body goes out as this library writes it, whatever spelling the task file has.
    auto encoded = jsonAdapter_->toJson(*body);
    // A body that decoded but does not encode again is never sendable: answered as a task that
    // cannot be read, so that the run goes on. Only a timestamp beyond the range of whole
    // seconds gets here; the adapter has logged it.
    if (!encoded) {
        onComplete(std::unexpected(failureIfDontDecodeTaskData()));
        return;
    }
    performHttpRequest(TernApiEndpoint::trackDeliveryMetrics(), std::move(*encoded),
                       std::move(onComplete));
}

bool TernQueueRunner::offerToHooks(const QueueTask& task,
                                   const QueueRunner::Completion& onComplete) {
    // Every hook is offered the task, even after one has taken it; a later taker becomes the
    // running hook. Should two take it, the run request heeds the first answer only.
    bool taken = false;
    for (const auto& hook : hooks_->queueRunnerHooks()) {
        auto hookCompletion = [runningHook = currentlyRunningHook_,
                               onComplete](std::expected<void, HttpRequestError> result) {
            runningHook->setWrappedValue(nullptr);
            onComplete(std::move(result));
        };
        if (hook->runTask(task, std::move(hookCompletion))) {
            currentlyRunningHook_->setWrappedValue(hook);
            taken = true;
        }
    }
    return taken;
}

}  // namespace tern
