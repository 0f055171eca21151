#pragma once

#include <optional>
#include <string>

namespace vontu::extension {

// The letters on a sender's badge: the upper-cased first letters of the first two words of
// the name (split at blanks) that start with a letter. When the name gives none, the
// address's first character as it stands, if the address has at least two characters.
// Empty when there is nothing to show.
std::string senderInitials(const std::optional<std::string>& name,
                           const std::optional<std::string>& mailbox);

}  // namespace vontu::extension
