#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "extension/ContentHandler.hpp"
#include "extension/PushTrackingBridge.hpp"
#include "platform/DefaultsSuite.hpp"
#include "platform/PlistValue.hpp"
#include "platform/Notification.hpp"
#include "platform/UrlSession.hpp"

namespace vontu::extension {

// The notification service extension: the system hands it each mutable push with a content
// handler. It serves one request; the system makes a new one for the next push.
//
// Three kinds of push, in this order: pushes the push-tracking library takes over (on system
// 13.0 and later), read receipts (category "ReadNotif") answered from the shared defaults, and
// new mail, which gets its account's sound and its sender and is delivered once the message
// source has been fetched from the relay server and stored for the main app.
class NotificationService : public std::enable_shared_from_this<NotificationService> {
public:
    // Called with the relay's answer: its first key and that key's value, either may be absent.
    using FetchCompletion =
        std::function<void(std::optional<std::string> key, std::optional<nlohmann::json> value)>;

    // relayBaseUrl: scheme and host of the mail relay server, without a port.
    // bridge: the push-tracking bridge, asked for only on systems that support it.
    NotificationService(std::string relayBaseUrl,
                        std::function<PushTrackingBridge&()> bridge = defaultBridge);

    static PushTrackingBridge& defaultBridge();

    // Both entry points are called on the system's extension queue.
    void didReceiveNotificationRequest(const platform::NotificationRequest& request,
                                       ContentHandler contentHandler);
    void serviceExtensionTimeWillExpire();

    // Asks the relay server for a message's source. The completion runs at most once, on the
    // URL session's thread; with uid, account or token absent it runs at once with nothing.
    void fetchEMLForUid(const std::optional<std::string>& uid,
                        const std::optional<std::string>& account,
                        const std::optional<std::string>& token, FetchCompletion completion);
    // POSTs the body as JSON to url on the shared session. A body that JSON cannot carry
    // (dates, data) is logged and sent empty.
    void post(const platform::PlistDictionary& body, const std::string& url,
              platform::DataTaskCompletion completion);

private:
    void answerReadReceipt(const nlohmann::json& aps, platform::DefaultsSuite* defaults);
    void prepareNewMail(const nlohmann::json& aps);
    void storeFetchedMessage(const nlohmann::json& aps, const std::optional<std::string>& session,
                             const std::optional<std::string>& key,
                             std::optional<nlohmann::json> value);
    // Stores the record, trying again while the expiry warning has not come; false when it
    // could not be stored.
    bool storeUntilExpiry(const platform::PlistDictionary& record, const std::string& key);
    void deliverBestAttempt();

    std::string relayBaseUrl_;
    std::function<PushTrackingBridge&()> bridge_;
    std::optional<ContentHandler> contentHandler_;
    // Absent only when the communication update failed; the original content is then shown.
    std::optional<platform::NotificationContent> bestAttemptContent_;
    platform::NotificationContent originalContent_;
    bool didHandle_ = false;
    // Set by the expiry warning, which ends the fetched message's attempts to be stored.
    std::mutex expiryMutex_;
    std::condition_variable expiryWarning_;
    bool expiryWarned_ = false;
};

}  // namespace vontu::extension
