#pragma once

#include <expected>
#include <string>

#include "platform/Env.hpp"
#include "platform/Notification.hpp"
#include "platform/NotificationPreview.hpp"

namespace vontu::hosts {

// Draws the delivered content as the lock screen shows it, through the drawing module (loaded
// here, on the first preview), and writes the PNG to the path; the error says what failed.
std::expected<void, std::string> writePreview(platform::Env& env,
                                              const platform::NotificationContent& content,
                                              platform::PreviewStyle style,
                                              const std::string& path);

}  // namespace vontu::hosts
