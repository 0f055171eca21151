#pragma once

#include <optional>
#include <string>

#include "TernTracking/ViewHierarchy.hpp"

namespace tern {

// The name an automatic screen view of viewController gets: its class name with every
// "ViewController" taken out ("InboxViewController" is "Inbox"). When nothing is left, its
// title; absent when it has no title either (or an empty one).
std::optional<std::string> screenViewName(ViewController& viewController);

}  // namespace tern
