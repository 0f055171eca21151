#include "Common/queue/TernQueue.hpp"

#include <cstdint>
#include <utility>

#include "Common/queue/TrackDeliveryEventRequestBody.hpp"
#include "Common/util/DoubleDescription.hpp"
#include "Common/util/Utf8.hpp"

namespace tern {

TernQueue::TernQueue(std::shared_ptr<QueueStorage> storage, std::string siteId,
                     std::shared_ptr<QueueRunRequest> runRequest,
                     std::shared_ptr<JsonAdapter> jsonAdapter, std::shared_ptr<Logger> logger,
                     SdkConfig sdkConfig, std::shared_ptr<SingleScheduleTimer> queueTimer,
                     std::shared_ptr<DateUtil> dateUtil)
    : storage_(std::move(storage)), siteId_(std::move(siteId)),
      runRequest_(std::move(runRequest)), jsonAdapter_(std::move(jsonAdapter)),
      logger_(std::move(logger)), sdkConfig_(std::move(sdkConfig)),
      queueTimer_(std::move(queueTimer)), dateUtil_(std::move(dateUtil)) {}

QueueAddResult TernQueue::addTrackInAppDeliveryTask(const std::string& deliveryId,
                                                    InAppMetric event) {
    auto body = TrackDeliveryEventRequestBody::inApp(deliveryId, event, dateUtil_->now());
    return addTask(TrackDeliveryEventRequestBody::queueTaskType, AnyEncodable(std::move(body)),
                   std::nullopt, std::nullopt);
}

QueueAddResult TernQueue::addTask(
    const std::string& type, const AnyEncodable& data,
    const std::optional<QueueTaskGroup>& groupStart,
    const std::optional<std::vector<QueueTaskGroup>>& blockingGroups) {
    logger_->info("adding queue task " + type);

    auto encoded = jsonAdapter_->toJson(data);
    if (!encoded) {
        logger_->error("fail adding queue task, json encoding fail.");
        const auto count = static_cast<std::int64_t>(storage_->getInventory().size());
        return {false, QueueStatus{siteId_, count}};
    }
    std::string text(encoded->begin(), encoded->end());
    logger_->debug("added queue task data " + (isValidUtf8(text) ? text : std::string()));

    auto created = storage_->create(type, *encoded, groupStart, blockingGroups);
    // Even a failed create reports the queue's size, and a queue that is big enough runs.
    processQueueStatus(created.queueStatus);
    return {created.success, created.queueStatus};
}

void TernQueue::run(Completion onComplete) {
    logger_->info("queue run request sent");
    runRequest_->start(std::move(onComplete));
}

void TernQueue::deleteExpiredTasks() { storage_->deleteExpired(); }

void TernQueue::processQueueStatus(const QueueStatus& status) {
    logger_->debug("processing queue status " + status.description() + ".");
    if (status.numTasksInQueue < sdkConfig_.backgroundQueueMinNumberOfTasks) {
        scheduleRun();
    } else {
        runNow();
    }
}

// A pending schedule keeps its time; the timer logs the skipped request itself.
void TernQueue::scheduleRun() {
    const double delay = sdkConfig_.backgroundQueueSecondsDelay;
    // The job may fire after this facade is gone (the graph builds one per use), so it holds
    // what it needs itself.
    auto timerJob = [runRequest = runRequest_, logger = logger_] {
        logger->info("queue timer: now running queue");
        logger->info("queue run request sent");
        runRequest->start([logger] { logger->info("queue timer: queue done running"); });
    };
    if (queueTimer_->scheduleIfNotAlready(delay, std::move(timerJob))) {
        logger_->info("queue timer: scheduled to run queue in " + doubleDescription(delay) +
                      " seconds");
    }
}

void TernQueue::runNow() {
    logger_->info("queue met criteria to run automatically");
    queueTimer_->cancel();
    runRequest_->start([logger = logger_] { logger->info("queue completed all tasks"); });
}

}  // namespace tern
