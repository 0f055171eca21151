#pragma once

#include <memory>
#include <string>

#include "TernTracking/ModuleTopLevelObject.hpp"
#include "messaging_push/MessagingPushInstance.hpp"

namespace tern {

// The push module's public facade, one per process (MessagingPush::shared()). Every operation
// may be called at any time: once the library is initialised it goes to the module's
// implementation, before that it does nothing useful (see each operation).
class MessagingPush final : public ModuleTopLevelObject<MessagingPushInstance> {
public:
    using ContentHandler = MessagingPushInstance::ContentHandler;
    using ResponseCompletion = MessagingPushInstance::ResponseCompletion;

    // Created on first use and never destroyed: extension work in flight may reach it while
    // the process exits.
    static MessagingPush& shared();
    // Sets the module up in the library when the library is already initialised.
    static void initialize();

    MessagingPush() = default;
    // implementation and sdkInitializedUtil replace the defaults, for tests; either may be empty.
    MessagingPush(std::shared_ptr<MessagingPushInstance> implementation,
                  std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil);

    // Nothing before initialisation.
    void registerDeviceToken(const std::string& deviceToken);
    void deleteDeviceToken();
    void trackMetric(const std::string& deliveryID, Metric event, const std::string& deviceToken);
    // The app could not register for remote notifications: the token that the profile holds
    // is no longer good, so it is removed from the profile.
    void applicationDidFailToRegisterForRemoteNotifications(const std::string& error);

    // Before initialisation the handler is called at once with the content as it arrived, and
    // the answer is false.
    bool didReceive(const vontu::platform::NotificationRequest& request,
                    ContentHandler contentHandler);
    // Nothing before initialisation.
    void serviceExtensionTimeWillExpire();

    // Absent before initialisation.
    std::shared_ptr<TernParsedPushPayload> userNotificationCenter(
        const vontu::platform::NotificationResponse& response);
    // Before initialisation the completion is called at once and the answer is false.
    bool userNotificationCenter(const vontu::platform::NotificationResponse& response,
                                const ResponseCompletion& completionHandler);

protected:
    void inititlizeModule(const std::shared_ptr<DIGraph>& diGraph) override;
    std::shared_ptr<MessagingPushInstance> getImplementationInstance(
        const std::shared_ptr<DIGraph>& diGraph) override;
};

}  // namespace tern
