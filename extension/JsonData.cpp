#include "extension/JsonData.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace vontu::extension {

namespace {

using nlohmann::json;

enum class Encoding { utf8, utf16BigEndian, utf16LittleEndian, utf32BigEndian, utf32LittleEndian };

struct Detected {
    Encoding encoding;
    std::size_t markLength;  // the byte order mark's bytes, skipped
};

bool startsWith(std::span<const std::uint8_t> bytes, std::initializer_list<std::uint8_t> prefix) {
    return bytes.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), bytes.begin());
}

Detected detectEncoding(std::span<const std::uint8_t> bytes) {
    // A mark is looked for only in texts of four bytes or more; UTF-32's marks before UTF-16's,
    // which they begin with.
    if (bytes.size() >= 4) {
        if (startsWith(bytes, {0xEF, 0xBB, 0xBF})) return {Encoding::utf8, 3};
        if (startsWith(bytes, {0x00, 0x00, 0xFE, 0xFF})) return {Encoding::utf32BigEndian, 4};
        if (startsWith(bytes, {0xFF, 0xFE, 0x00, 0x00})) return {Encoding::utf32LittleEndian, 4};
        if (startsWith(bytes, {0xFF, 0xFE})) return {Encoding::utf16LittleEndian, 2};
        if (startsWith(bytes, {0xFE, 0xFF})) return {Encoding::utf16BigEndian, 2};
        const bool zero[] = {bytes[0] == 0, bytes[1] == 0, bytes[2] == 0, bytes[3] == 0};
        if (zero[0] && zero[1] && zero[2]) return {Encoding::utf32BigEndian, 0};
        if (zero[1] && zero[2] && zero[3]) return {Encoding::utf32LittleEndian, 0};
        if (zero[0] && zero[2]) return {Encoding::utf16BigEndian, 0};
        if (zero[1] && zero[3]) return {Encoding::utf16LittleEndian, 0};
    } else if (bytes.size() >= 2) {
        if (bytes[0] == 0) return {Encoding::utf16BigEndian, 0};
        if (bytes[1] == 0) return {Encoding::utf16LittleEndian, 0};
    }
    return {Encoding::utf8, 0};
}

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// The code units of width bytes each, in the byte order given.
char32_t unitAt(std::span<const std::uint8_t> bytes, std::size_t at, std::size_t width, bool bigEndian) {
    char32_t unit = 0;
    for (std::size_t i = 0; i < width; ++i) {
        const std::uint8_t byte = bytes[at + (bigEndian ? i : width - 1 - i)];
        unit = (unit << 8) | byte;
    }
    return unit;
}

bool isHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// UTF-16 or UTF-32 text in UTF-8; absent when it is not valid text (a stray byte at the end, a
// lone surrogate, a value beyond Unicode), which has no characters to read.
std::optional<std::string> toUtf8(std::span<const std::uint8_t> bytes, std::size_t width, bool bigEndian) {
    if (bytes.size() % width != 0) return std::nullopt;
    std::string out;
    out.reserve(bytes.size() / width);  // the size of ASCII text, which JSON mostly is
    for (std::size_t at = 0; at < bytes.size(); at += width) {
        char32_t c = unitAt(bytes, at, width, bigEndian);
        if (width == 2 && isHighSurrogate(c)) {
            if (at + 2 >= bytes.size()) return std::nullopt;
            const char32_t low = unitAt(bytes, at + 2, width, bigEndian);
            if (!isLowSurrogate(low)) return std::nullopt;
            c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
            at += 2;
        } else if (isHighSurrogate(c) || isLowSurrogate(c) || c > 0x10FFFF) {
            return std::nullopt;
        }
        appendUtf8(out, c);
    }
    return out;
}

}  // namespace

std::optional<json> jsonObjectWithData(platform::Bytes data) {
    const std::span<const std::uint8_t> bytes(data.data(), data.size());
    const Detected detected = detectEncoding(bytes);
    const auto text = bytes.subspan(detected.markLength);
    json parsed;
    if (detected.encoding == Encoding::utf8) {
        parsed = json::parse(text.begin(), text.end(), nullptr, false);
    } else {
        const bool bigEndian = detected.encoding == Encoding::utf16BigEndian ||
                               detected.encoding == Encoding::utf32BigEndian;
        const bool utf16 = detected.encoding == Encoding::utf16BigEndian ||
                           detected.encoding == Encoding::utf16LittleEndian;
        auto utf8 = toUtf8(text, utf16 ? 2 : 4, bigEndian);
        platform::Bytes().swap(data);  // the transcoded copy is all that is needed now
        if (!utf8) return std::nullopt;
        parsed = json::parse(std::move(*utf8), nullptr, false);
    }
    if (parsed.is_discarded()) return std::nullopt;
    return parsed;
}

}  // namespace vontu::extension
