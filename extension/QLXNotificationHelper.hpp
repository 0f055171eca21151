#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/Bytes.hpp"
#include "platform/Communication.hpp"
#include "platform/ImageCanvas.hpp"
#include "platform/Notification.hpp"

namespace vontu::extension {

// Turns a new-mail notification into a communication notification, which the system shows
// with the sender's picture: the avatar that the main app cached in the app group's
// container, or else a round badge with the sender's initials in a colour taken from the
// sender's name. It has no state. Nothing here reports or logs errors: whatever fails leaves
// the notification as plain as it came.
class QLXNotificationHelper {
public:
    QLXNotificationHelper() = delete;

    // The app group's container; absent when it cannot be created.
    static std::optional<std::filesystem::path> sharedDirectoryPath();
    // Where the main app caches the avatar of a sender address (taken exactly as given);
    // absent without an address or a container.
    static std::optional<std::filesystem::path> imagePathForSender(
        const std::optional<std::string>& sender);
    // MD5 of the text's UTF-8 bytes (up to a zero byte) as 32 upper-case hex digits; an
    // absent text reads as empty.
    static std::string MD5String(const std::optional<std::string>& string);

    // Address entries have the form `Display Name <address>`. Nothing is trimmed: the name
    // keeps the blank before "<".
    static std::optional<std::string> nameFromString(const std::optional<std::string>& entry);
    static std::optional<std::string> emailFromString(const std::optional<std::string>& entry);
    // A person for each comma-separated entry that has a display name, in order.
    static std::vector<platform::Person> recipientsForMail(
        const std::optional<std::string>& participants);

    // The sender as a person with a picture; absent without name, address or picture.
    static std::optional<platform::Person> createPerson(const std::optional<std::string>& name,
                                                        const std::optional<std::string>& email);
    // PNG of a 96 x 96 round badge with up to two initials; absent when there is no initial.
    static std::optional<platform::Bytes> initialForSenderName(
        const std::optional<std::string>& name, const std::optional<std::string>& mailbox);
    static platform::Rgba colorForSender(const std::optional<std::string>& sender);

    // The content with the sender as its communication context and the subtitle put in front
    // of the body. Unchanged before iOS 15 or without a sender person; absent when the system
    // refuses the update. The recipients are accepted but not used.
    static std::optional<platform::NotificationContent>
    modifyNotificationContentForCommunicationNotification(
        const platform::NotificationContent& content,
        const std::optional<std::string>& senderName,
        const std::optional<std::string>& senderEmail,
        const std::vector<platform::Person>& recipients);
};

}  // namespace vontu::extension
