#include "messaging_push_fcm/MessagingPushFCM.hpp"

#include <utility>

namespace tern {

MessagingPushFCM& MessagingPushFCM::shared() {
    static auto* messagingPushFCM = new MessagingPushFCM();
    return *messagingPushFCM;
}

void MessagingPushFCM::initialize() { MessagingPush::initialize(); }

void MessagingPushFCM::registerDeviceToken(const std::optional<std::string>& fcmToken) {
    if (!fcmToken) return;
    MessagingPush::shared().registerDeviceToken(*fcmToken);
}

void MessagingPushFCM::messaging(const std::any& /*messaging*/,
                                 const std::optional<std::string>& didReceiveRegistrationToken) {
    registerDeviceToken(didReceiveRegistrationToken);
}

void MessagingPushFCM::applicationDidFailToRegisterForRemoteNotifications(
    const std::string& error) {
    MessagingPush::shared().applicationDidFailToRegisterForRemoteNotifications(error);
}

void MessagingPushFCM::deleteDeviceToken() { MessagingPush::shared().deleteDeviceToken(); }

void MessagingPushFCM::trackMetric(const std::string& deliveryID, Metric event,
                                   const std::string& deviceToken) {
    MessagingPush::shared().trackMetric(deliveryID, event, deviceToken);
}

bool MessagingPushFCM::didReceive(const vontu::platform::NotificationRequest& request,
                                  MessagingPush::ContentHandler contentHandler) {
    return MessagingPush::shared().didReceive(request, std::move(contentHandler));
}

void MessagingPushFCM::serviceExtensionTimeWillExpire() {
    MessagingPush::shared().serviceExtensionTimeWillExpire();
}

std::shared_ptr<TernParsedPushPayload> MessagingPushFCM::userNotificationCenter(
    const vontu::platform::NotificationResponse& response) {
    return MessagingPush::shared().userNotificationCenter(response);
}

bool MessagingPushFCM::userNotificationCenter(
    const vontu::platform::NotificationResponse& response,
    const MessagingPush::ResponseCompletion& completionHandler) {
    return MessagingPush::shared().userNotificationCenter(response, completionHandler);
}

}  // namespace tern
