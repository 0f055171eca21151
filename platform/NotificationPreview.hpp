#pragma once

#include <optional>
#include <string>

#include "platform/Bytes.hpp"

namespace vontu::platform {

enum class PreviewStyle { light, dark };

// What a lock-screen banner shows of a delivered notification, ready to draw: the texts, the
// sender's avatar for a communication notification (else the app icon stands alone), and the
// first image attachment. Images are encoded bytes; the drawing decodes what it can (PNG) and
// shows a placeholder for the rest.
struct NotificationPreview {
    std::string title;
    std::string subtitle;
    std::string body;
    std::string relativeTime = "now";
    std::optional<Bytes> senderAvatar;
    std::optional<Bytes> thumbnail;
    PreviewStyle style = PreviewStyle::light;
};

// The banner's geometry in points; the picture is drawn at kScale pixels a point.
struct PreviewLayout {
    static constexpr double kScale = 2;
    static constexpr double kWidth = 360;
    static constexpr double kPadding = 14;
    static constexpr double kIconSize = 38;
    static constexpr double kCornerIconSize = 16;
    static constexpr double kThumbnailSize = 38;
    static constexpr int kMaxBodyLines = 4;
};

}  // namespace vontu::platform
