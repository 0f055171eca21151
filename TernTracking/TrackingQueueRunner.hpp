#pragma once

#include <functional>
#include <optional>
#include <string>

#include "Common/config/TernApiEndpoint.hpp"
#include "Common/hooks/QueueRunnerHook.hpp"
#include "Common/queue/ApiSyncQueueRunner.hpp"
#include "Common/queue/QueueTask.hpp"
#include "platform/Bytes.hpp"

namespace tern {

class DIGraph;
struct MetricRequest;

// Sends the tracking module's queue tasks, one request each:
//
//   "identifyProfile"    IdentifyProfileQueueTaskData: identifyCustomer(identifier), the
//                        attributes text as the body (no body when it is absent)
//   "trackEvent"         TrackEventQueueTaskData: trackCustomerEvent(identifier), the
//                        attributes text
//   "registerPushToken"  RegisterPushNotificationQueueTaskData:
//                        registerDevice(profileIdentifier), the attributes text (no body when
//                        it is absent)
//   "deletePushToken"    DeletePushNotificationQueueTaskData:
//                        deleteDevice(profileIdentifier, deviceToken), no body
//   "trackPushMetric"    MetricRequest: pushMetrics, the record written again as JSON
//
// The queue offers it every task it does not send itself (it is the tracking module's runner
// hook); tasks of other types are left to other runners.
class TrackingQueueRunner final : public ApiSyncQueueRunner, public QueueRunnerHook {
public:
    // With the JSON adapter, logger, HTTP client and configuration of the graph.
    TrackingQueueRunner(std::string siteId, DIGraph& diGraph);

    // False, without calling onComplete, for a type that is not the tracking module's. True
    // otherwise: the task's request is on its way and onComplete follows with its outcome, or
    // at once with the undecodable-data failure when the task's data is not its record. The one
    // exception: a push metric that decodes but cannot be encoded again is not sent and
    // onComplete is never called.
    bool runTask(const QueueTask& task, QueueRunnerHook::Completion onComplete) override;

private:
    struct Request {
        TernApiEndpoint endpoint;
        std::optional<vontu::platform::Bytes> body;
    };

    // Decodes the task's data as Record and sends the request that requestFor makes of it;
    // requestFor gives absent when nothing is to be sent.
    template <class Record>
    void send(const QueueTask& task, QueueRunnerHook::Completion onComplete,
              const std::function<std::optional<Request>(const Record&)>& requestFor);

    // The push metric's body: the record as the JSON adapter writes it.
    std::optional<Request> pushMetricRequest(const MetricRequest& metric) const;
};

}  // namespace tern
