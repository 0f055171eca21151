#include "messaging_push/MessagingPush.hpp"

#include <utility>

#include "messaging_push/MessagingPushImplementation.hpp"

namespace tern {

MessagingPush& MessagingPush::shared() {
    static auto* messagingPush = new MessagingPush();
    return *messagingPush;
}

void MessagingPush::initialize() { shared().initializeModuleIfSdkInitialized(); }

MessagingPush::MessagingPush(std::shared_ptr<MessagingPushInstance> implementation,
                             std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil)
    : ModuleTopLevelObject(std::move(implementation), std::move(sdkInitializedUtil)) {}

void MessagingPush::inititlizeModule(const std::shared_ptr<DIGraph>& /*diGraph*/) {
    // The module keeps nothing in the graph: its implementation builds what it needs from the
    // graph's own services, and it offers no hooks to the other modules.
}

std::shared_ptr<MessagingPushInstance> MessagingPush::getImplementationInstance(
    const std::shared_ptr<DIGraph>& diGraph) {
    return std::make_shared<MessagingPushImplementation>(*diGraph, sdkInitializedUtil());
}

void MessagingPush::registerDeviceToken(const std::string& deviceToken) {
    if (const auto instance = implementation()) instance->registerDeviceToken(deviceToken);
}

void MessagingPush::deleteDeviceToken() {
    if (const auto instance = implementation()) instance->deleteDeviceToken();
}

void MessagingPush::trackMetric(const std::string& deliveryID, Metric event,
                                const std::string& deviceToken) {
    if (const auto instance = implementation()) {
        instance->trackMetric(deliveryID, event, deviceToken);
    }
}

void MessagingPush::applicationDidFailToRegisterForRemoteNotifications(
    const std::string& /*error*/) {
    deleteDeviceToken();
}

bool MessagingPush::didReceive(const vontu::platform::NotificationRequest& request,
                               ContentHandler contentHandler) {
    const auto instance = implementation();
    if (!instance) {
        contentHandler(request.content);
        return false;
    }
    return instance->didReceive(request, std::move(contentHandler));
}

void MessagingPush::serviceExtensionTimeWillExpire() {
    if (const auto instance = implementation()) instance->serviceExtensionTimeWillExpire();
}

std::shared_ptr<TernParsedPushPayload> MessagingPush::userNotificationCenter(
    const vontu::platform::NotificationResponse& response) {
    const auto instance = implementation();
    return instance ? instance->userNotificationCenter(response) : nullptr;
}

bool MessagingPush::userNotificationCenter(const vontu::platform::NotificationResponse& response,
                                           const ResponseCompletion& completionHandler) {
    const auto instance = implementation();
    if (!instance) {
        completionHandler();
        return false;
    }
    return instance->userNotificationCenter(response, completionHandler);
}

}  // namespace tern
