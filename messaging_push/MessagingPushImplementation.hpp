#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Common/config/SdkConfig.hpp"
#include "Common/queue/Queue.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "Common/util/Logger.hpp"
#include "TernTracking/SdkInitializedUtil.hpp"
#include "TernTracking/TernInstance.hpp"
#include "messaging_push/MessagingPushInstance.hpp"
#include "messaging_push/PendingPushDeliveries.hpp"
#include "messaging_push/RichPushRequestHandler.hpp"

namespace tern {

class DIGraph;

// The push module's work once the library is initialised.
//
// Inside a notification service extension it recognises Tern pushes by their delivery id and
// token, records the "delivered" metric, has the push's image attached, and hands the content to
// the system only after the background queue has sent everything it holds: the system may end
// the extension as soon as it has the content. In the app it records what the user did with a
// notification, removes the images that were attached to it and opens its deep link.
class MessagingPushImplementation final : public MessagingPushInstance {
public:
    // The services of diGraph; the registries are the process's.
    MessagingPushImplementation(DIGraph& diGraph,
                                std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil);
    MessagingPushImplementation(std::string siteId, std::shared_ptr<Logger> logger,
                                std::shared_ptr<JsonAdapter> jsonAdapter, SdkConfig sdkConfig,
                                std::shared_ptr<Queue> backgroundQueue,
                                std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil,
                                RichPushRequestHandler& richPushRequestHandler,
                                PendingPushDeliveries& pendingDeliveries);

    void registerDeviceToken(const std::string& deviceToken) override;
    void deleteDeviceToken() override;
    void trackMetric(const std::string& deliveryID, Metric event,
                     const std::string& deviceToken) override;

    bool didReceive(const vontu::platform::NotificationRequest& request,
                    ContentHandler contentHandler) override;
    void serviceExtensionTimeWillExpire() override;

    std::shared_ptr<TernParsedPushPayload> userNotificationCenter(
        const vontu::platform::NotificationResponse& response) override;
    bool userNotificationCenter(const vontu::platform::NotificationResponse& response,
                                const ResponseCompletion& completionHandler) override;

private:
    // The tracking module's implementation, or absent when the library is not initialised.
    std::shared_ptr<TernInstance> trackingImplementation() const;
    // Tracks the metric of the push behind a response, when it carries its delivery keys.
    void trackResponseMetric(const vontu::platform::NotificationResponse& response);
    void openDeepLink(const TernParsedPushPayload& payload);

    const std::string siteId_;
    const std::shared_ptr<Logger> logger_;
    const std::shared_ptr<JsonAdapter> jsonAdapter_;
    const SdkConfig sdkConfig_;
    const std::shared_ptr<Queue> backgroundQueue_;
    const std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil_;
    RichPushRequestHandler& richPushRequestHandler_;
    PendingPushDeliveries& pendingDeliveries_;
};

}  // namespace tern
