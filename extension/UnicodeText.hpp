#pragma once

#include <string>
#include <string_view>

namespace vontu::extension::unicode {

// The few Unicode text operations that sender names and addresses need, with the answers
// Foundation's strings give: lengths and positions count UTF-16 units, a letter is any
// character of the general categories L* and M*, and case mappings are the full ones. Text
// comes in as UTF-8; bytes that are not valid UTF-8 read as U+FFFD.

std::u16string toUtf16(std::string_view utf8);
// A lone surrogate, which has no UTF-8 form, becomes U+FFFD.
std::string toUtf8(std::u16string_view utf16);

// True when the UTF-16 unit is a letter or a mark. A surrogate (half of an emoji or of any
// other character beyond the basic plane) is not.
bool isLetter(char16_t unit);

// The upper-case form of one unit of the basic plane, in full: ß gives "SS".
std::u16string uppercased(char16_t unit);

// The text in lower case, in full: İ gives "i" followed by a combining dot above.
std::u16string lowercased(std::string_view utf8);

// The first character of the text as it stands: its first UTF-16 unit, or both units of a
// surrogate pair so that the result is still valid text. Empty text gives empty text.
std::string firstCharacter(std::string_view utf8);

}  // namespace vontu::extension::unicode
