#include "messaging_push/TernParsedPushPayload.hpp"

#include <utility>

#include "Common/queue/RecordDescriptionText.hpp"
#include "messaging_push/RandomString.hpp"

namespace tern {

namespace {

// The user-info key under which a Tern push carries its payload.
constexpr const char* ternPayloadKey = "TERN";
// Letters after the prefix of an attachment identifier: enough that two images of one
// notification never share an identifier.
constexpr std::size_t attachmentIdentifierRandomLength = 10;

}  // namespace

std::shared_ptr<TernParsedPushPayload> TernParsedPushPayload::parse(
    const vontu::platform::NotificationContent& content,
    std::shared_ptr<JsonAdapter> jsonAdapter) {
    if (!jsonAdapter || !content.userInfo.is_object()) return nullptr;
    auto ternEntry = content.userInfo.find(ternPayloadKey);
    if (ternEntry == content.userInfo.end() || !ternEntry->is_object()) return nullptr;

    auto payload = jsonAdapter->fromDictionary<TernPushPayload>(*ternEntry);
    if (!payload) return nullptr;

    return std::make_shared<TernParsedPushPayload>(Passkey{}, std::move(jsonAdapter),
                                                   std::move(*payload), content);
}

TernParsedPushPayload::TernParsedPushPayload(Passkey, std::shared_ptr<JsonAdapter> jsonAdapter,
                                             TernPushPayload payload,
                                             vontu::platform::NotificationContent content)
    : jsonAdapter_(std::move(jsonAdapter)),
      mutableContent_(content),
      content_(std::move(content)),
      payload_(std::move(payload)) {}

std::string TernParsedPushPayload::title() const {
    std::lock_guard guard(mutex_);
    return mutableContent_.title;
}

void TernParsedPushPayload::setTitle(std::string title) {
    std::lock_guard guard(mutex_);
    mutableContent_.title = std::move(title);
}

std::string TernParsedPushPayload::body() const {
    std::lock_guard guard(mutex_);
    return mutableContent_.body;
}

void TernParsedPushPayload::setBody(std::string body) {
    std::lock_guard guard(mutex_);
    mutableContent_.body = std::move(body);
}

std::optional<Url> TernParsedPushPayload::deepLink() const {
    std::lock_guard guard(mutex_);
    if (!payload_.push.link) return std::nullopt;
    return Url::parse(*payload_.push.link);
}

void TernParsedPushPayload::setDeepLink(const std::optional<Url>& deepLink) {
    std::lock_guard guard(mutex_);
    payload_.push.link =
        deepLink ? std::optional(deepLink->absoluteString()) : std::optional<std::string>();
}

std::optional<std::string> TernParsedPushPayload::imageUrlString() const {
    std::lock_guard guard(mutex_);
    return payload_.push.image;
}

std::vector<vontu::platform::NotificationAttachment> TernParsedPushPayload::ternAttachments()
    const {
    std::lock_guard guard(mutex_);
    std::vector<vontu::platform::NotificationAttachment> ours;
    for (const auto& attachment : mutableContent_.attachments) {
        if (attachment.identifier.starts_with(ternAttachmentsPrefix)) ours.push_back(attachment);
    }
    return ours;
}

void TernParsedPushPayload::addImage(const std::filesystem::path& localFilePath) {
    const std::string identifier =
        std::string(ternAttachmentsPrefix) + random(attachmentIdentifierRandomLength);
    auto attachment = vontu::platform::NotificationAttachment::make(identifier, localFilePath);
    if (!attachment) return;

    std::lock_guard guard(mutex_);
    mutableContent_.attachments.push_back(std::move(*attachment));
}

vontu::platform::NotificationContent TernParsedPushPayload::mutableContent() const {
    std::lock_guard guard(mutex_);
    return mutableContent_;
}

std::string TernParsedPushPayload::description() const {
    std::lock_guard guard(mutex_);
    std::vector<std::string> attachmentIdentifiers;
    for (const auto& attachment : mutableContent_.attachments) {
        attachmentIdentifiers.push_back(attachment.identifier);
    }
    return "TernParsedPushPayload(payload: " + payload_.description() +
           ", title: " + quotedDescription(mutableContent_.title) +
           ", body: " + quotedDescription(mutableContent_.body) +
           ", attachments: " + listDescription(attachmentIdentifiers) + ")";
}

}  // namespace tern
