#pragma once

#include <any>
#include <memory>
#include <optional>
#include <string>

#include "messaging_push/MessagingPush.hpp"

namespace tern {

// The push facade for apps that receive their pushes through Firebase Cloud Messaging: the
// device is registered with its FCM registration token instead of an APNs token. Everything
// else is MessagingPush's, reached through MessagingPush::shared().
class MessagingPushFCM final {
public:
    // Created on first use and never destroyed, like MessagingPush::shared().
    static MessagingPushFCM& shared();
    // The module's one-time set-up: the push module's.
    static void initialize();

    // Registers the FCM token with the identified profile; an absent token registers nothing.
    void registerDeviceToken(const std::optional<std::string>& fcmToken);
    // Firebase messaging's delegate call with a new registration token: the same as
    // registerDeviceToken. The messaging object is not used.
    void messaging(const std::any& messaging,
                   const std::optional<std::string>& didReceiveRegistrationToken);

    // MessagingPush's operations of the same names.
    void applicationDidFailToRegisterForRemoteNotifications(const std::string& error);
    void deleteDeviceToken();
    void trackMetric(const std::string& deliveryID, Metric event, const std::string& deviceToken);
    bool didReceive(const vontu::platform::NotificationRequest& request,
                    MessagingPush::ContentHandler contentHandler);
    void serviceExtensionTimeWillExpire();
    std::shared_ptr<TernParsedPushPayload> userNotificationCenter(
        const vontu::platform::NotificationResponse& response);
    bool userNotificationCenter(const vontu::platform::NotificationResponse& response,
                                const MessagingPush::ResponseCompletion& completionHandler);

private:
    MessagingPushFCM() = default;
};

}  // namespace tern
