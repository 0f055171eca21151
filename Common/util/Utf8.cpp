#include "Common/util/Utf8.hpp"

#include <cstdint>

namespace tern {

namespace {

// The length of the well-formed UTF-8 sequence at text[position], or 0 when it is ill-formed
// (the table of well-formed byte sequences in the Unicode standard, chapter 3).
std::size_t wellFormedLength(std::string_view text, std::size_t position) {
    auto byte = [&](std::size_t offset) -> std::uint8_t {
        return static_cast<std::uint8_t>(text[position + offset]);
    };
    auto continuation = [&](std::size_t offset, std::uint8_t low = 0x80, std::uint8_t high = 0xBF) {
        return position + offset < text.size() && byte(offset) >= low && byte(offset) <= high;
    };
    std::uint8_t lead = byte(0);
    if (lead <= 0x7F) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return continuation(1) ? 2 : 0;
    if (lead >= 0xE0 && lead <= 0xEF) {
        std::uint8_t low = lead == 0xE0 ? 0xA0 : 0x80;
        std::uint8_t high = lead == 0xED ? 0x9F : 0xBF;
        return continuation(1, low, high) && continuation(2) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        std::uint8_t low = lead == 0xF0 ? 0x90 : 0x80;
        std::uint8_t high = lead == 0xF4 ? 0x8F : 0xBF;
        return continuation(1, low, high) && continuation(2) && continuation(3) ? 4 : 0;
    }
    return 0;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
    for (std::size_t position = 0; position < text.size();) {
        std::size_t length = wellFormedLength(text, position);
        if (length == 0) return false;
        position += length;
    }
    return true;
}

std::string repairedUtf8(std::string_view text) {
    std::string repaired;
    repaired.reserve(text.size());
    for (std::size_t position = 0; position < text.size();) {
        std::size_t length = wellFormedLength(text, position);
        if (length == 0) {
            repaired += "\uFFFD";
            ++position;
        } else {
            repaired.append(text.substr(position, length));
            position += length;
        }
    }
    return repaired;
}

}  // namespace tern
