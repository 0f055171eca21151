// Names and addresses of senders, in any script, as the extension turns them into initials and
// draws them into the badge.
#include "fuzz/FuzzSupport.hpp"
#include "extension/QLXNotificationHelper.hpp"
#include "extension/SenderInitials.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vontu::fuzz::linuxEnv();
    const auto input = vontu::fuzz::text(data, size);
    const auto split = input.find('\n');
    const std::string name(input.substr(0, split));
    const std::string email(split == std::string_view::npos ? "" : input.substr(split + 1));
    (void)vontu::extension::senderInitials(name, email);
    // Drawing costs milliseconds: only short names, which is what people have.
    if (size < 64) (void)vontu::extension::QLXNotificationHelper::initialForSenderName(name, email);
    return 0;
}
