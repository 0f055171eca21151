// A push's user info as the library's push module parses it, and everything it reads from it.
#include "fuzz/FuzzSupport.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "messaging_push/TernParsedPushPayload.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vontu::fuzz::linuxEnv();
    static const auto adapter =
        std::make_shared<tern::JsonAdapter>(std::make_shared<vontu::fuzz::QuietLogger>());
    auto userInfo = vontu::fuzz::jsonOf(data, size);
    if (userInfo.is_discarded()) return 0;
    vontu::platform::NotificationContent content;
    content.userInfo = std::move(userInfo);
    auto payload = tern::TernParsedPushPayload::parse(content, adapter);
    if (!payload) return 0;
    (void)payload->imageUrlString();
    (void)payload->deepLink();
    (void)payload->ternAttachments();
    (void)payload->description();
    (void)payload->mutableContent();
    return 0;
}
