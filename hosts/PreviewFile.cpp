#include "hosts/PreviewFile.hpp"

#include "platform/linux/DrawingLoader.hpp"

namespace vontu::hosts {

namespace {

constexpr std::string_view kFileScheme = "file://";

// The first attachment's bytes; a thumbnail that cannot be read is left out.
std::optional<platform::Bytes> firstAttachment(platform::Env& env,
                                               const platform::NotificationContent& content) {
    if (content.attachments.empty()) return std::nullopt;
    std::string_view url = content.attachments.front().url;
    if (!url.starts_with(kFileScheme)) return std::nullopt;
    auto bytes = env.readFile(std::filesystem::path(url.substr(kFileScheme.size())));
    if (!bytes) return std::nullopt;
    return std::move(*bytes);
}

platform::NotificationPreview previewOf(platform::Env& env,
                                        const platform::NotificationContent& content,
                                        platform::PreviewStyle style) {
    platform::NotificationPreview preview;
    preview.title = content.title;
    preview.subtitle = content.subtitle;
    preview.body = content.body;
    if (content.communication && content.communication->sender.image) {
        preview.senderAvatar = content.communication->sender.image->data;
    }
    preview.thumbnail = firstAttachment(env, content);
    preview.style = style;
    return preview;
}

}  // namespace

std::expected<void, std::string> writePreview(platform::Env& env,
                                              const platform::NotificationContent& content,
                                              platform::PreviewStyle style,
                                              const std::string& path) {
    auto png = platform::linux_host::loadAndDrawNotificationPreview(previewOf(env, content, style));
    if (!png) return std::unexpected("the preview could not be drawn (no drawing module)");
    std::error_code error;
    auto absolute = std::filesystem::absolute(path, error);
    if (error) return std::unexpected("the preview path " + path + " is not usable");
    if (auto written = env.writeFile(absolute, *png); !written) {
        return std::unexpected("the preview could not be written to " + path + ": " +
                               written.error().localizedDescription);
    }
    return {};
}

}  // namespace vontu::hosts
