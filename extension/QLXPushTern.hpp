#pragma once

#include <string>

#include "extension/PushTrackingBridge.hpp"

namespace vontu::extension {

// The extension's one door to the Tern push library. The first use of shared() initialises the
// library for a notification service extension, once per process; both entry points then go to
// the library's push facade, on the caller's thread.
class QLXPushTern final : public PushTrackingBridge {
public:
    static QLXPushTern& shared();

    // True when the push came through Tern: the library then calls the handler itself, once its
    // queued requests have been sent. False leaves the push, and the handler, to the caller.
    bool didReceiveNotificationRequest(const platform::NotificationRequest& request,
                                       const ContentHandler& contentHandler) override;
    // Every rich push in flight delivers the content it has now.
    void serviceExtensionTimeWillExpire() override;

    // The workspace values compiled into the build.
    const std::string kTernSiteId;
    const std::string kTernApiKey;
    // Kept for the in-app messages of the main app; the extension does not pass it on.
    const std::string kTernInAppOrganizationId;
    // The label of the bridge's own serial queue. No operation uses that queue, so no thread is
    // spent on it: only its name is kept.
    const std::string queueLabel;

private:
    QLXPushTern();
};

}  // namespace vontu::extension
