#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Common/config/SdkConfig.hpp"
#include "Common/queue/Queue.hpp"
#include "Common/queue/QueueRunRequest.hpp"
#include "Common/queue/QueueStatus.hpp"
#include "Common/queue/QueueStorage.hpp"
#include "Common/util/DateUtil.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "Common/util/Logger.hpp"
#include "Common/util/SingleScheduleTimer.hpp"

namespace tern {

// The queue facade. Adding a task stores it and then decides when the queue runs: at once when
// the queue holds at least backgroundQueueMinNumberOfTasks tasks, otherwise after
// backgroundQueueSecondsDelay through the process's one single-schedule timer, whose first
// schedule stands until it fires or is cancelled (later additions do not push it back).
//
// Holds no state of its own: the pending run is the shared timer's, the running state the
// request manager's. Add operations run on the caller's thread; runs never do, and the timer's
// run starts on the main thread.
class TernQueue final : public Queue {
public:
    TernQueue(std::shared_ptr<QueueStorage> storage, std::string siteId,
              std::shared_ptr<QueueRunRequest> runRequest,
              std::shared_ptr<JsonAdapter> jsonAdapter, std::shared_ptr<Logger> logger,
              SdkConfig sdkConfig, std::shared_ptr<SingleScheduleTimer> queueTimer,
              std::shared_ptr<DateUtil> dateUtil);

    using Queue::addTask;

    QueueAddResult addTrackInAppDeliveryTask(const std::string& deliveryId,
                                             InAppMetric event) override;
    QueueAddResult addTask(
        const std::string& type, const AnyEncodable& data,
        const std::optional<QueueTaskGroup>& groupStart,
        const std::optional<std::vector<QueueTaskGroup>>& blockingGroups) override;
    void run(Completion onComplete) override;
    void deleteExpiredTasks() override;

private:
    // Starts a run now when the queue is big enough, else makes sure that one is scheduled.
    void processQueueStatus(const QueueStatus& status);
    void scheduleRun();
    void runNow();

    const std::shared_ptr<QueueStorage> storage_;
    const std::string siteId_;
    const std::shared_ptr<QueueRunRequest> runRequest_;
    const std::shared_ptr<JsonAdapter> jsonAdapter_;
    const std::shared_ptr<Logger> logger_;
    const SdkConfig sdkConfig_;
    const std::shared_ptr<SingleScheduleTimer> queueTimer_;
    const std::shared_ptr<DateUtil> dateUtil_;
};

}  // namespace tern
