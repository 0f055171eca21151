#include "extension/QLXPushTern.hpp"

#include <mutex>

#include "Common/config/NotificationServiceExtensionSdkConfig.hpp"
#include "Common/config/Region.hpp"
#include "TernTracking/Tern.hpp"
#include "messaging_push/MessagingPush.hpp"

namespace vontu::extension {

QLXPushTern& QLXPushTern::shared() {
    // Never destroyed: the library may still deliver from its own threads while the process
    // exits.
    static QLXPushTern* bridge = nullptr;
    static std::once_flag created;
    std::call_once(created, [] { bridge = new QLXPushTern(); });
    return *bridge;
}

QLXPushTern::QLXPushTern()
    : kTernSiteId(TERN_SITE_ID),
      kTernApiKey(TERN_API_KEY),
      kTernInAppOrganizationId(TERN_INAPP_ORGANIZATION_ID),
      queueLabel("ios.vontu.NotificationService.QLXPushTern") {
    tern::Tern::initialize(kTernSiteId, kTernApiKey, tern::Region::US,
                           [](tern::NotificationServiceExtensionSdkConfig& config) {
                               config.autoTrackPushEvents = true;
                           });
}

bool QLXPushTern::didReceiveNotificationRequest(const platform::NotificationRequest& request,
                                                const ContentHandler& contentHandler) {
    return tern::MessagingPush::shared().didReceive(
        request, [contentHandler](const platform::NotificationContent& content) {
            contentHandler(content);
        });
}

void QLXPushTern::serviceExtensionTimeWillExpire() {
    tern::MessagingPush::shared().serviceExtensionTimeWillExpire();
}

}  // namespace vontu::extension
