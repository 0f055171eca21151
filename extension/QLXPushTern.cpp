#include "extension/QLXPushTern.hpp"

namespace vontu::extension {

QLXPushTern& QLXPushTern::shared() {
    static QLXPushTern bridge;
    return bridge;
}

bool QLXPushTern::didReceiveNotificationRequest(const platform::NotificationRequest&,
                                                const ContentHandler&) {
    return false;
}

void QLXPushTern::serviceExtensionTimeWillExpire() {}

}  // namespace vontu::extension
