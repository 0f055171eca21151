#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vontu::extension {

// Every piece between separators, empty ones included: "a,,b" gives "a", "", "b" and ""
// gives one empty piece, as Foundation's componentsSeparatedByString: does.
inline std::vector<std::string> componentsSeparatedBy(std::string_view text, char separator) {
    std::vector<std::string> pieces;
    std::size_t start = 0;
    for (std::size_t found; (found = text.find(separator, start)) != std::string_view::npos;
         start = found + 1) {
        pieces.emplace_back(text.substr(start, found - start));
    }
    pieces.emplace_back(text.substr(start));
    return pieces;
}

// The text less every occurrence of any of the characters.
inline std::string removingCharacters(std::string text, std::string_view characters) {
    std::erase_if(text, [&](char c) { return characters.find(c) != std::string_view::npos; });
    return text;
}

}  // namespace vontu::extension
