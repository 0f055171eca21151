#include "messaging_push/TernPushPayload.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

namespace {

std::string describeOptionalText(const std::optional<std::string>& text) {
    return optionalDescription(text ? std::optional(quotedDescription(*text)) : std::nullopt);
}

}  // namespace

std::expected<TernPushPayload::Push, DecodingError> TernPushPayload::Push::decode(
    const JsonDecoder& decoder) {
    JsonRecordReader reader(decoder);
    auto link = reader.decodeIfPresent<std::string>("link");
    auto image = reader.decodeIfPresent<std::string>("image");
    if (!reader.ok()) return reader.failure();
    return Push{std::move(link), std::move(image)};
}

void TernPushPayload::Push::encode(JsonEncoder& encoder) const {
    encoder.encodeIfPresent("link", link);
    encoder.encodeIfPresent("image", image);
}

std::string TernPushPayload::Push::description() const {
    return "Push(link: " + describeOptionalText(link) + ", image: " + describeOptionalText(image) +
           ")";
}

std::expected<TernPushPayload, DecodingError> TernPushPayload::decode(const JsonDecoder& decoder) {
    JsonRecordReader reader(decoder);
    auto push = reader.decode<Push>("push");
    if (!reader.ok()) return reader.failure();
    return TernPushPayload{std::move(push)};
}

void TernPushPayload::encode(JsonEncoder& encoder) const { encoder.encode("push", push); }

std::string TernPushPayload::description() const {
    return "TernPushPayload(push: " + push.description() + ")";
}

}  // namespace tern
