#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/Notification.hpp"

namespace tern {

// What became of the user's response to a notification, as a command-line host reports it.
struct OpenOutcome {
    // The push module handled the response (a Tern rich push) and completed it.
    bool handled = false;
    // The deep link that was opened, if any.
    std::optional<std::string> opened;
    // "universal-link" when the app took the link as a universal link, "system" when it went to
    // the system; absent when nothing was opened.
    std::optional<std::string> via;

    // {"handled": BOOL, "opened": URL or null, "via": "universal-link" | "system" | null}.
    nlohmann::json toJson() const;
};

// Hands the response to MessagingPush::shared() as the app's notification-centre delegate would,
// and reports what it did: the metric is queued, the push's images are removed and its deep link
// is opened through the app's handlers (HostSettings.openUrl and continueUserActivity on Linux).
// Before the library is initialised nothing is handled.
OpenOutcome handleNotificationOpen(const vontu::platform::NotificationResponse& response);

}  // namespace tern
