#include "extension/QLXNotificationHelper.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "extension/SenderInitials.hpp"
#include "extension/TextPieces.hpp"
#include "extension/UnicodeText.hpp"
#include "platform/Crypto.hpp"
#include "platform/Env.hpp"

namespace vontu::extension {

using platform::Bytes;
using platform::Env;
using platform::Person;
using platform::Rgba;

namespace {

constexpr const char* kAppGroupIdentifier = "group.ios.vontu";

constexpr std::array<Rgba, 10> kPalette{{
    {0.498, 0.859, 1.0, 1.0},
    {0.0, 0.478, 1.0, 1.0},
    {0.18, 0.8, 0.251, 1.0},
    {0.239, 0.6, 0.439, 1.0},
    {1.0, 0.863, 0.0, 1.0},
    {1.0, 0.522, 0.106, 1.0},
    {1.0, 0.255, 0.212, 1.0},
    {0.941, 0.071, 0.745, 1.0},
    {0.694, 0.051, 0.788, 1.0},
    {0.522, 0.078, 0.294, 1.0},
}};

// The badge: a circle of 96 points, the initials centred in the square inscribed in it
// (96/√2 on a side).
constexpr int kBadgeSide = 96;
constexpr double kBadgeRadius = 48;
constexpr double kTextLeft = 14.058874503045715;
constexpr double kTextSide = 67.88225099390857;
constexpr platform::Font kInitialsFont{28, platform::FontWeight::medium};
constexpr Rgba kWhite{1, 1, 1, 1};

std::optional<Bytes> drawBadge(const std::string& initials, const Rgba& color) {
    auto canvas = Env::current().newImageCanvas(kBadgeSide, kBadgeSide);
    if (!canvas) return std::nullopt;
    const platform::Rect whole{0, 0, kBadgeSide, kBadgeSide};
    canvas->clipToRoundedRect(whole, kBadgeRadius);
    canvas->fillRect(whole, color);
    double top = (kBadgeSide - canvas->lineHeight(kInitialsFont)) * 0.5;
    canvas->drawText(initials, {kTextLeft, top, kTextSide, kTextSide}, kInitialsFont, kWhite,
                     platform::TextAlignment::center);
    return canvas->pngRepresentation();
}

// The cached avatar's bytes as they are, else the drawn badge. A file there that cannot be read
// (a directory, a FIFO, no permission) counts as no file: the sender still gets a picture, and
// the read never waits on a FIFO.
std::optional<Bytes> pictureOfSender(const std::string& name, const std::string& email) {
    if (auto cached = QLXNotificationHelper::imagePathForSender(email)) {
        if (auto contents = Env::current().readFile(*cached)) return std::move(*contents);
    }
    return QLXNotificationHelper::initialForSenderName(name, email);
}

}  // namespace

std::optional<std::filesystem::path> QLXNotificationHelper::sharedDirectoryPath() {
    return Env::current().appGroupContainer(kAppGroupIdentifier);
}

std::optional<std::filesystem::path> QLXNotificationHelper::imagePathForSender(
    const std::optional<std::string>& sender) {
    if (!sender) return std::nullopt;
    auto container = sharedDirectoryPath();
    if (!container) return std::nullopt;
    return *container / "Avatars" / (MD5String(*sender + "_Images") + ".png");
}

std::string QLXNotificationHelper::MD5String(const std::optional<std::string>& string) {
    std::string_view bytes = string ? std::string_view(*string) : std::string_view();
    bytes = bytes.substr(0, bytes.find('\0'));
    std::string hex;
    hex.reserve(32);
    for (std::uint8_t byte : platform::md5(bytes)) {
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02X", byte);
        hex += digits.data();
    }
    return hex;
}

std::optional<std::string> QLXNotificationHelper::nameFromString(
    const std::optional<std::string>& entry) {
    if (!entry) return std::nullopt;
    auto pieces = componentsSeparatedBy(*entry, '<');
    if (pieces.size() < 2) return std::nullopt;
    return pieces.front();
}

std::optional<std::string> QLXNotificationHelper::emailFromString(
    const std::optional<std::string>& entry) {
    if (!entry) return std::nullopt;
    return removingCharacters(componentsSeparatedBy(*entry, '<').back(), ">");
}

std::vector<Person> QLXNotificationHelper::recipientsForMail(
    const std::optional<std::string>& participants) {
    std::vector<Person> persons;
    if (!participants) return persons;
    std::string oneLine = removingCharacters(*participants, "\n\r");
    for (const auto& entry : componentsSeparatedBy(oneLine, ',')) {
        if (auto person = createPerson(nameFromString(entry), emailFromString(entry))) {
            persons.push_back(std::move(*person));
        }
    }
    return persons;
}

std::optional<Person> QLXNotificationHelper::createPerson(const std::optional<std::string>& name,
                                                          const std::optional<std::string>& email) {
    if (!name || !email) return std::nullopt;
    auto picture = pictureOfSender(*name, *email);
    if (!picture) return std::nullopt;
    Person person;
    person.handle = {*email, platform::PersonHandleType::emailAddress};
    person.nickname = *name;
    person.displayName = *name;
    person.image = platform::Image{std::move(*picture)};
    person.contactIdentifier = std::nullopt;
    person.customIdentifier = MD5String(*email);
    return person;
}

std::optional<Bytes> QLXNotificationHelper::initialForSenderName(
    const std::optional<std::string>& name, const std::optional<std::string>& mailbox) {
    std::string initials = senderInitials(name, mailbox);
    if (initials.empty()) return std::nullopt;
    return drawBadge(initials, colorForSender(name));
}

Rgba QLXNotificationHelper::colorForSender(const std::optional<std::string>& sender) {
    std::u16string lower = unicode::lowercased(sender.value_or(""));
    std::size_t counted = std::min<std::size_t>(lower.size(), 10);
    int index = 0;
    for (std::size_t i = 0; i < counted; ++i) {
        char16_t c = lower[i];
        if (c >= u'a' && c <= u'z') index = (index + (c - u'a')) % 10;
    }
    return kPalette[static_cast<std::size_t>(index)];
}

std::optional<platform::NotificationContent>
QLXNotificationHelper::modifyNotificationContentForCommunicationNotification(
    const platform::NotificationContent& content, const std::optional<std::string>& senderName,
    const std::optional<std::string>& senderEmail,
    [[maybe_unused]] const std::vector<Person>& recipients) {
    // Communication notifications exist from iOS 15 on.
    if (!Env::current().systemVersionAtLeast(15, 0)) return content;
    auto sender = createPerson(senderName, senderEmail);
    if (!sender) return content;

    // Recipients are deliberately not passed: the notification presents one message from one
    // sender, not a conversation.
    platform::SendMessageIntent intent;
    intent.outgoingMessageType = platform::OutgoingMessageType::outgoingMessageText;
    intent.sender = std::move(sender);
    auto updated = platform::contentByUpdatingWithIntent(content, intent);
    if (!updated) return std::nullopt;

    // A content always has a subtitle, an empty one included, so the body always gets the
    // subtitle and a bullet in front.
    platform::NotificationContent result = std::move(*updated);
    result.body = result.subtitle + " \u2022 " + result.body;
    return result;
}

}  // namespace vontu::extension
