#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/util/JsonAdapter.hpp"
#include "Common/util/Url.hpp"
#include "messaging_push/TernPushPayload.hpp"
#include "platform/Notification.hpp"

namespace tern {

// A notification recognised as a Tern rich push: its decoded "TERN" payload together with the
// content that will be shown. Rich push processing edits that content (title, body, a
// downloaded image) and finally delivers it; the content as it arrived is kept unchanged beside
// it.
//
// Only parse() creates one. The object is shared between the request that composes the content
// and whoever delivers it, possibly on different threads (a download completing while the
// system's time runs out), so every read and edit of the changing state takes its lock.
class TernParsedPushPayload {
    struct Passkey {};

public:
    // Identifiers of the attachments that this library adds start with this, so that they can be
    // told from attachments the sender's app added itself.
    static constexpr std::string_view ternAttachmentsPrefix = "tern_sdk_";

    // The payload of a notification whose user info holds a "TERN" object that decodes as
    // TernPushPayload; absent for any other notification (a simple push). A "TERN" object that
    // does not decode is logged by the adapter.
    static std::shared_ptr<TernParsedPushPayload> parse(
        const vontu::platform::NotificationContent& content,
        std::shared_ptr<JsonAdapter> jsonAdapter);

    TernParsedPushPayload(Passkey, std::shared_ptr<JsonAdapter> jsonAdapter,
                          TernPushPayload payload, vontu::platform::NotificationContent content);
    TernParsedPushPayload(const TernParsedPushPayload&) = delete;
    TernParsedPushPayload& operator=(const TernParsedPushPayload&) = delete;

    std::string title() const;
    void setTitle(std::string title);
    std::string body() const;
    void setBody(std::string body);

    // The push's "link" as a URL; absent when there is none or it does not parse as one.
    std::optional<Url> deepLink() const;
    // Changes the link of the decoded payload (not the notification's user info).
    void setDeepLink(const std::optional<Url>& deepLink);
    // The push's "image" exactly as sent; whether it is a URL is for the downloader to check.
    std::optional<std::string> imageUrlString() const;

    // The attachments this library added, in the content's order.
    std::vector<vontu::platform::NotificationAttachment> ternAttachments() const;
    // Attaches the downloaded image file under a fresh "tern_sdk_" identifier, after the
    // attachments already there. A file that cannot be attached (missing, not a PNG, JPEG or
    // GIF, larger than the system allows) leaves the content as it was.
    void addImage(const std::filesystem::path& localFilePath);

    // The content with every edit so far: what gets delivered.
    vontu::platform::NotificationContent mutableContent() const;
    // The content as the notification arrived.
    const vontu::platform::NotificationContent& originalContent() const { return content_; }

    // "TernParsedPushPayload(payload: TernPushPayload(...), title: \"...\", body: \"...\",
    //  attachments: [\"tern_sdk_...\"])".
    std::string description() const;

private:
    // The adapter the payload was parsed with.
    std::shared_ptr<JsonAdapter> jsonAdapter_;
    mutable std::mutex mutex_;
    vontu::platform::NotificationContent mutableContent_;
    const vontu::platform::NotificationContent content_;
    TernPushPayload payload_;
};

}  // namespace tern
