#pragma once

#include <functional>

#include "platform/Notification.hpp"

namespace vontu::extension {

// The system's content handler: takes the content to show. The system accepts the first call
// for a request and ignores later ones; it may be called from any thread.
using ContentHandler = std::function<void(const platform::NotificationContent&)>;

}  // namespace vontu::extension
