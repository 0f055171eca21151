#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Common/queue/InAppMetric.hpp"
#include "Common/queue/QueueAddResult.hpp"
#include "Common/queue/QueueTaskGroup.hpp"
#include "Common/util/AnyEncodable.hpp"
#include "platform/AutoMockable.hpp"

namespace tern {

// The background queue as the library's modules use it: every request to the tracking service
// is added here as a task, which survives the process and is sent by a later run.
class Queue : public vontu::AutoMockable {
public:
    using Completion = std::function<void()>;

    // Queues an in-app message's delivery event ("trackDeliveryMetric"), stamped now.
    virtual QueueAddResult addTrackInAppDeliveryTask(const std::string& deliveryId,
                                                     InAppMetric event) = 0;
    // Queues a task of the given type whose data is the JSON of data. groupStart is the group
    // this task opens; blockingGroups are the groups whose opening tasks must run first. The
    // queue may start a run at once or schedule one (see TernQueue).
    virtual QueueAddResult addTask(
        const std::string& type, const AnyEncodable& data,
        const std::optional<QueueTaskGroup>& groupStart,
        const std::optional<std::vector<QueueTaskGroup>>& blockingGroups) = 0;
    // Runs the queue now (or joins the run under way); onComplete is called when that run ends.
    virtual void run(Completion onComplete) = 0;
    // Deletes the tasks that have waited too long.
    virtual void deleteExpiredTasks() = 0;

    // addTask without groups, with only the group it opens, or with only the blocking groups.
    QueueAddResult addTask(const std::string& type, const AnyEncodable& data) {
        return addTask(type, data, std::nullopt, std::nullopt);
    }
    QueueAddResult addTask(const std::string& type, const AnyEncodable& data,
                           const QueueTaskGroup& groupStart) {
        return addTask(type, data, groupStart, std::nullopt);
    }
    QueueAddResult addTask(const std::string& type, const AnyEncodable& data,
                           const std::vector<QueueTaskGroup>& blockingGroups) {
        return addTask(type, data, std::nullopt, blockingGroups);
    }
};

}  // namespace tern
