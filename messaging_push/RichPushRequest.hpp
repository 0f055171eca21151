#pragma once

#include <functional>
#include <memory>

#include "Common/http/HttpClient.hpp"
#include "messaging_push/TernParsedPushPayload.hpp"
#include "platform/Notification.hpp"

namespace tern {

// One rich push being composed: the push's image is downloaded and attached, then the content
// goes to the completion handler.
//
// The completion may run twice: once from finishImmediately() when the system's time runs out,
// and once more from a download that completes anyway. The system keeps the first content it
// is given, so the second call is harmless.
class RichPushRequest final : public std::enable_shared_from_this<RichPushRequest> {
public:
    using CompletionHandler = std::function<void(const vontu::platform::NotificationContent&)>;

    RichPushRequest(CompletionHandler completionHandler,
                    std::shared_ptr<TernParsedPushPayload> pushContent,
                    std::shared_ptr<HttpClient> httpClient);
    RichPushRequest(const RichPushRequest&) = delete;
    RichPushRequest& operator=(const RichPushRequest&) = delete;

    // Downloads the push's image when it has one with a valid URL, else completes at once.
    // The download completion holds this request weakly.
    void start();
    // Stops the download and completes with the content as it is now.
    void finishImmediately();

private:
    void finishWithDownloadedImage(const std::optional<std::filesystem::path>& localFile);
    void complete();

    const CompletionHandler completionHandler_;
    const std::shared_ptr<TernParsedPushPayload> pushContent_;
    const std::shared_ptr<HttpClient> httpClient_;
};

}  // namespace tern
