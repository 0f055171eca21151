#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Common/queue/Metric.hpp"
#include "messaging_push/TernParsedPushPayload.hpp"
#include "platform/AutoMockable.hpp"
#include "platform/Notification.hpp"

namespace tern {

// What the push module offers once the library is initialised: device tokens and metrics (done
// by the tracking module), the notification service extension's two entry points, and the
// handling of the user's response to a notification.
class MessagingPushInstance : public vontu::AutoMockable {
public:
    // The system's content handler: takes the content to show. The system keeps the first call
    // for a request and ignores later ones.
    using ContentHandler = std::function<void(const vontu::platform::NotificationContent&)>;
    // Tells the system that the app has finished with a notification response.
    using ResponseCompletion = std::function<void()>;

    virtual void registerDeviceToken(const std::string& deviceToken) = 0;
    virtual void deleteDeviceToken() = 0;
    virtual void trackMetric(const std::string& deliveryID, Metric event,
                             const std::string& deviceToken) = 0;

    // True when the request is a Tern push: it is then handled here and contentHandler is called
    // later, from another thread. False leaves the request, and the handler, to the caller.
    virtual bool didReceive(const vontu::platform::NotificationRequest& request,
                            ContentHandler contentHandler) = 0;
    // The extension's time is nearly up: every rich push in flight delivers what it has.
    virtual void serviceExtensionTimeWillExpire() = 0;

    // Records the response's metric and removes the images this library attached; the parsed
    // push, or absent for a notification that is not a Tern rich push.
    virtual std::shared_ptr<TernParsedPushPayload> userNotificationCenter(
        const vontu::platform::NotificationResponse& response) = 0;
    // The same, then opens the push's deep link when the user tapped the notification itself.
    // True when the response was a Tern push and completionHandler has been called; false
    // leaves the completion to the caller.
    virtual bool userNotificationCenter(const vontu::platform::NotificationResponse& response,
                                        const ResponseCompletion& completionHandler) = 0;
};

}  // namespace tern
