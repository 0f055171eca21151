#pragma once

#include "extension/ContentHandler.hpp"
#include "platform/AutoMockable.hpp"
#include "platform/Notification.hpp"

namespace vontu::extension {

// Where the extension hands pushes to the push-tracking library.
class PushTrackingBridge : public AutoMockable {
public:
    // True when the library takes the request over and will call the handler itself; false
    // leaves the request, and the handler, to the caller.
    virtual bool didReceiveNotificationRequest(const platform::NotificationRequest& request,
                                               const ContentHandler& contentHandler) = 0;
    // The system's time is nearly up: the library delivers the best content it has.
    virtual void serviceExtensionTimeWillExpire() = 0;
};

}  // namespace vontu::extension
