#include "platform/Notification.hpp"

#include <array>
#include <cctype>
#include <fstream>
#include <system_error>

namespace vontu::platform {

std::optional<NotificationSound> NotificationSound::soundNamed(const std::string& file) {
    if (file.empty()) return std::nullopt;
    return NotificationSound{file};
}

namespace {

// The uniform type of an image file, told by its leading bytes; absent for other files.
std::optional<std::string> imageTypeOf(const std::array<unsigned char, 8>& head, std::size_t n) {
    static constexpr unsigned char png[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (n >= 8 && std::equal(head.begin(), head.end(), png)) return "public.png";
    if (n >= 3 && head[0] == 0xFF && head[1] == 0xD8 && head[2] == 0xFF) return "public.jpeg";
    if (n >= 6 && head[0] == 'G' && head[1] == 'I' && head[2] == 'F' && head[3] == '8' &&
        (head[4] == '7' || head[4] == '9') && head[5] == 'a') {
        return "com.compuserve.gif";
    }
    return std::nullopt;
}

std::string extensionOf(const std::string& type) {
    if (type == "public.png") return ".png";
    if (type == "public.jpeg") return ".jpg";
    return ".gif";
}

// The file moved to a name made of the attachment's identifier, or where it was when that name
// is taken (a hard link never replaces a file) or the move fails.
std::filesystem::path takenOver(const std::filesystem::path& file, const std::string& identifier,
                                const std::string& type) {
    std::string name = identifier;
    for (char& c : name) {
        const bool kept = std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
        if (!kept) c = '_';
    }
    const auto target = file.parent_path() / (name + extensionOf(type));
    std::error_code ec;
    if (std::filesystem::equivalent(file, target, ec)) return file;
    std::filesystem::create_hard_link(file, target, ec);
    if (ec) return file;
    std::filesystem::remove(file, ec);
    return target;
}

}  // namespace

std::expected<NotificationAttachment, std::string> NotificationAttachment::make(
    const std::string& identifier, const std::filesystem::path& file) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(file, ec)) {
        return std::unexpected("attachment file does not exist: " + file.string());
    }
    const auto size = std::filesystem::file_size(file, ec);
    if (ec) return std::unexpected("attachment file cannot be read: " + file.string());
    if (size > kMaxAttachmentBytes) {
        return std::unexpected("attachment file is larger than 10 MB: " + file.string());
    }
    std::ifstream in(file, std::ios::binary);
    std::array<unsigned char, 8> head{};
    in.read(reinterpret_cast<char*>(head.data()), head.size());
    auto type = imageTypeOf(head, static_cast<std::size_t>(in.gcount()));
    if (!type) return std::unexpected("attachment file is not a PNG, JPEG or GIF: " + file.string());
    std::error_code absoluteError;
    auto absolute = std::filesystem::absolute(takenOver(file, identifier, *type), absoluteError);
    return NotificationAttachment{identifier, "file://" + absolute.string(), *type};
}

std::expected<NotificationContent, std::string> contentByUpdatingWithIntent(
    const NotificationContent& content, const SendMessageIntent& intent) {
    if (!intent.sender) return std::unexpected("the intent has no sender");
    NotificationContent updated = content;
    updated.communication = CommunicationContext{*intent.sender};
    return updated;
}

}  // namespace vontu::platform
