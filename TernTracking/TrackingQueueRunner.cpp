#include "TernTracking/TrackingQueueRunner.hpp"

#include <utility>

#include "Common/DIGraph.hpp"
#include "TernTracking/DeletePushNotificationQueueTaskData.hpp"
#include "TernTracking/IdentifyProfileQueueTaskData.hpp"
#include "TernTracking/MetricRequest.hpp"
#include "TernTracking/RegisterPushNotificationQueueTaskData.hpp"
#include "TernTracking/TrackEventQueueTaskData.hpp"
#include "TernTracking/TrackingTaskType.hpp"

namespace tern {

namespace {

using vontu::platform::Bytes;

// The JSON text that a task carries is sent as it is.
std::optional<Bytes> utf8Body(const std::optional<std::string>& text) {
    if (!text) return std::nullopt;
    return vontu::platform::toBytes(*text);
}

}  // namespace

TrackingQueueRunner::TrackingQueueRunner(std::string siteId, DIGraph& diGraph)
    : ApiSyncQueueRunner(std::move(siteId), diGraph.jsonAdapter(), diGraph.logger(),
                         diGraph.httpClient(), diGraph.sdkConfig()) {}

bool TrackingQueueRunner::runTask(const QueueTask& task, QueueRunnerHook::Completion onComplete) {
    const std::string& type = task.type;
    if (type == TrackingTaskType::identifyProfile) {
        send<IdentifyProfileQueueTaskData>(task, std::move(onComplete), [](const auto& data) {
            return std::optional<Request>({TernApiEndpoint::identifyCustomer(data.identifier),
                                           utf8Body(data.attributesJsonString)});
        });
    } else if (type == TrackingTaskType::trackEvent) {
        send<TrackEventQueueTaskData>(task, std::move(onComplete), [](const auto& data) {
            return std::optional<Request>({TernApiEndpoint::trackCustomerEvent(data.identifier),
                                           utf8Body(data.attributesJsonString)});
        });
    } else if (type == TrackingTaskType::registerPushToken) {
        send<RegisterPushNotificationQueueTaskData>(
            task, std::move(onComplete), [](const auto& data) {
                return std::optional<Request>(
                    {TernApiEndpoint::registerDevice(data.profileIdentifier),
                     utf8Body(data.attributesJsonString)});
            });
    } else if (type == TrackingTaskType::deletePushToken) {
        send<DeletePushNotificationQueueTaskData>(
            task, std::move(onComplete), [](const auto& data) {
                return std::optional<Request>(
                    {TernApiEndpoint::deleteDevice(data.profileIdentifier, data.deviceToken),
                     std::nullopt});
            });
    } else if (type == TrackingTaskType::trackPushMetric) {
        send<MetricRequest>(task, std::move(onComplete), [this](const MetricRequest& metric) {
            return pushMetricRequest(metric);
        });
    } else {
        return false;
    }
    return true;
}

template <class Record>
void TrackingQueueRunner::send(
    const QueueTask& task, QueueRunnerHook::Completion onComplete,
    const std::function<std::optional<Request>(const Record&)>& requestFor) {
    auto data = getTaskData<Record>(task);
    if (!data) {
        onComplete(std::unexpected(failureIfDontDecodeTaskData()));
        return;
    }
    auto request = requestFor(*data);
    if (!request) {
        // Never sendable: answered as a task that cannot be read, so that the run goes on.
        onComplete(std::unexpected(failureIfDontDecodeTaskData()));
        return;
    }
    performHttpRequest(request->endpoint, std::move(request->body), std::move(onComplete));
}

std::optional<TrackingQueueRunner::Request> TrackingQueueRunner::pushMetricRequest(
    const MetricRequest& metric) const {
    // A metric that decoded but does not encode again (a timestamp beyond whole seconds) is not
    // sent; the adapter has logged why.
    auto body = jsonAdapter_->toJson(metric);
    if (!body) return std::nullopt;
    return Request{TernApiEndpoint::pushMetrics(), std::move(*body)};
}

}  // namespace tern
