#pragma once

#include <optional>
#include <string>

#include "platform/Bytes.hpp"

namespace vontu::platform {

// The Intents framework's person records, as far as a communication notification uses them.

enum class PersonHandleType { unknown = 0, emailAddress = 1, phoneNumber = 2 };

struct PersonHandle {
    std::string value;
    PersonHandleType type = PersonHandleType::emailAddress;
    bool operator==(const PersonHandle&) const = default;
};

struct Image {
    Bytes data;  // encoded image bytes (PNG, JPEG, ...) as the caller gave them
    bool operator==(const Image&) const = default;
};

struct Person {
    PersonHandle handle;
    std::optional<std::string> nickname;  // the name components' nickname
    std::optional<std::string> displayName;
    std::optional<Image> image;
    std::optional<std::string> contactIdentifier;
    std::optional<std::string> customIdentifier;
    bool operator==(const Person&) const = default;
};

enum class OutgoingMessageType { unknown = 0, outgoingMessageText = 1, outgoingMessageAudio = 2 };

// A send-message intent: what a communication notification is "about". Only the sender is
// carried into the notification content.
struct SendMessageIntent {
    std::optional<std::vector<Person>> recipients;
    OutgoingMessageType outgoingMessageType = OutgoingMessageType::unknown;
    std::optional<std::string> content;
    std::optional<std::string> speakableGroupName;
    std::optional<std::string> conversationIdentifier;
    std::optional<std::string> serviceName;
    std::optional<Person> sender;
};

// The communication context that a content gets from an intent.
struct CommunicationContext {
    Person sender;
    bool operator==(const CommunicationContext&) const = default;
};

}  // namespace vontu::platform
