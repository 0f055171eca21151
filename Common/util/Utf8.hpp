#pragma once

#include <string>
#include <string_view>

namespace tern {

// True when text is well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool isValidUtf8(std::string_view text);

// text with every ill-formed sequence replaced by U+FFFD, for showing bad text in a log line.
std::string repairedUtf8(std::string_view text);

}  // namespace tern
