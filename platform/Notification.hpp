#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/Communication.hpp"

namespace vontu::platform {

// Value types of the notification framework. They copy on assignment: a "mutable copy" of a
// content is simply a copy.

inline constexpr const char* kNotificationDefaultActionIdentifier =
    "com.apple.UNNotificationDefaultActionIdentifier";

// The largest file a notification may carry as an attachment.
inline constexpr std::uintmax_t kMaxAttachmentBytes = 10u * 1024u * 1024u;

struct NotificationSound {
    // Empty for the system's default sound, else the name of a sound file of the app.
    std::string named;

    static NotificationSound defaultSound() { return {}; }
    // The sound of the app's file of that name; absent for an empty name.
    static std::optional<NotificationSound> soundNamed(const std::string& file);
    bool isDefault() const { return named.empty(); }
    bool operator==(const NotificationSound&) const = default;
};

struct NotificationAttachment {
    std::string identifier;
    std::string url;   // a file URL: "file://" + absolute path
    std::string type;  // "public.png", "public.jpeg" or "com.compuserve.gif"

    // Checks that the file exists, is a PNG, JPEG or GIF (by its leading bytes) and is at most
    // kMaxAttachmentBytes; the error text says which check failed. As the system does, a made
    // attachment takes its file over: the file moves to a name of the attachment's own in the
    // same directory (the url says where), so its old name is free for later files. When that
    // name is taken, the file stays where it is.
    static std::expected<NotificationAttachment, std::string> make(
        const std::string& identifier, const std::filesystem::path& file);
    bool operator==(const NotificationAttachment&) const = default;
};

struct NotificationContent {
    std::string title;
    std::string subtitle;
    std::string body;
    std::string categoryIdentifier;
    std::string threadIdentifier;
    nlohmann::json userInfo = nlohmann::json::object();
    std::optional<NotificationSound> sound;
    std::vector<NotificationAttachment> attachments;
    std::optional<CommunicationContext> communication;

    bool operator==(const NotificationContent&) const = default;
};

// Updating a content with an intent gives a copy that carries the intent's sender as its
// communication context. It fails when the intent has no sender.
std::expected<NotificationContent, std::string> contentByUpdatingWithIntent(
    const NotificationContent& content, const SendMessageIntent& intent);

struct NotificationRequest {
    std::string identifier;
    NotificationContent content;
};

struct NotificationResponse {
    std::string actionIdentifier = kNotificationDefaultActionIdentifier;
    NotificationRequest notification;
};

}  // namespace vontu::platform
