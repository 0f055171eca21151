#pragma once

#include "extension/PushTrackingBridge.hpp"

namespace vontu::extension {

// The extension's one door to the push-tracking library, created on first use.
//
// Until the library's push handling is built in, the bridge declines every request: the
// extension then handles every push itself.
class QLXPushTern final : public PushTrackingBridge {
public:
    static QLXPushTern& shared();

    bool didReceiveNotificationRequest(const platform::NotificationRequest& request,
                                       const ContentHandler& contentHandler) override;
    void serviceExtensionTimeWillExpire() override;

private:
    QLXPushTern() = default;
};

}  // namespace vontu::extension
