#include "extension/UnicodeText.hpp"

#include <locale.h>
#include <wctype.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

namespace vontu::extension::unicode {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool isSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }

// Decodes one character at `at`, advancing it; malformed input yields U+FFFD and skips one byte.
char32_t decodeUtf8(std::string_view text, std::size_t& at) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(at);
    if (lead < 0x80) {
        ++at;
        return lead;
    }
    std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
    if (length == 0 || lead > 0xF4 || at + length > text.size()) {
        ++at;
        return kReplacement;
    }
    char32_t c = lead & (0x7F >> length);
    for (std::size_t i = 1; i < length; ++i) {
        unsigned char next = byte(at + i);
        if ((next & 0xC0) != 0x80) {
            ++at;
            return kReplacement;
        }
        c = (c << 6) | (next & 0x3F);
    }
    constexpr std::array<char32_t, 5> smallest{0, 0, 0x80, 0x800, 0x10000};
    if (c < smallest[length] || c > 0x10FFFF || isSurrogate(c)) {
        ++at;
        return kReplacement;
    }
    at += length;
    return c;
}

void appendUtf16(std::u16string& out, char32_t c) {
    if (c < 0x10000) {
        out.push_back(static_cast<char16_t>(c));
    } else {
        c -= 0x10000;
        out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
    }
}

void appendUtf8(std::string& out, char32_t c) {
    auto put = [&](char32_t bits) { out.push_back(static_cast<char>(bits)); };
    if (c < 0x80) {
        put(c);
    } else if (c < 0x800) {
        put(0xC0 | (c >> 6));
        put(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        put(0xE0 | (c >> 12));
        put(0x80 | ((c >> 6) & 0x3F));
        put(0x80 | (c & 0x3F));
    } else {
        put(0xF0 | (c >> 18));
        put(0x80 | ((c >> 12) & 0x3F));
        put(0x80 | ((c >> 6) & 0x3F));
        put(0x80 | (c & 0x3F));
    }
}

// glibc's C.UTF-8 locale carries the Unicode character classes and simple case mappings.
// Created once and never changed, so any thread may use it.
struct Classes {
    locale_t locale = nullptr;
    wctype_t combining = 0;

    Classes() {
        locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        if (locale != nullptr) combining = wctype_l("combining", locale);
    }
};

const Classes& classes() {
    static const Classes instance;
    return instance;
}

// glibc counts decimal digits of other scripts, letter-like numerals and circled letters as
// alphabetic; none of them is a letter.
constexpr std::array<std::pair<char16_t, char16_t>, 44> kAlphabeticNonLetters{{
    {0x0660, 0x0669}, {0x06F0, 0x06F9}, {0x07C0, 0x07C9}, {0x0966, 0x096F}, {0x09E6, 0x09EF},
    {0x0A66, 0x0A6F}, {0x0AE6, 0x0AEF}, {0x0B66, 0x0B6F}, {0x0BE6, 0x0BEF}, {0x0C66, 0x0C6F},
    {0x0CE6, 0x0CEF}, {0x0D66, 0x0D6F}, {0x0DE6, 0x0DEF}, {0x0E50, 0x0E59}, {0x0ED0, 0x0ED9},
    {0x0F20, 0x0F29}, {0x1040, 0x1049}, {0x1090, 0x1099}, {0x16EE, 0x16F0}, {0x17E0, 0x17E9},
    {0x1810, 0x1819}, {0x1946, 0x194F}, {0x19D0, 0x19D9}, {0x1A80, 0x1A89}, {0x1A90, 0x1A99},
    {0x1B50, 0x1B59}, {0x1BB0, 0x1BB9}, {0x1C40, 0x1C49}, {0x1C50, 0x1C59}, {0x2160, 0x2182},
    {0x2185, 0x2188}, {0x24B6, 0x24E9}, {0x3007, 0x3007}, {0x3021, 0x3029}, {0x3038, 0x303A},
    {0xA620, 0xA629}, {0xA6E6, 0xA6EF}, {0xA8D0, 0xA8D9}, {0xA900, 0xA909}, {0xA9D0, 0xA9D9},
    {0xA9F0, 0xA9F9}, {0xAA50, 0xAA59}, {0xABF0, 0xABF9}, {0xFF10, 0xFF19},
}};

bool isAlphabeticNonLetter(char16_t unit) {
    auto range = std::upper_bound(
        kAlphabeticNonLetters.begin(), kAlphabeticNonLetters.end(), unit,
        [](char16_t u, const std::pair<char16_t, char16_t>& r) { return u < r.first; });
    return range != kAlphabeticNonLetters.begin() && unit <= std::prev(range)->second;
}

// Letters whose upper case is more than one character; the simple mapping leaves them as
// they are. (The Greek letters with a subscript iota are left to the simple mapping.)
struct FullUppercase {
    char16_t letter;
    const char16_t* upper;
};
constexpr std::array<FullUppercase, 39> kFullUppercase{{
    {0x00DF, u"SS"}, {0x0149, u"\u02BCN"}, {0x01F0, u"J\u030C"}, {0x0587, u"\u0535\u0552"},
    {0x0390, u"\u0399\u0308\u0301"}, {0x03B0, u"\u03A5\u0308\u0301"},
    {0x1E96, u"H\u0331"}, {0x1E97, u"T\u0308"}, {0x1E98, u"W\u030A"}, {0x1E99, u"Y\u030A"},
    {0x1E9A, u"A\u02BE"}, {0x1F50, u"\u03A5\u0313"}, {0x1F52, u"\u03A5\u0313\u0300"},
    {0x1F54, u"\u03A5\u0313\u0301"}, {0x1F56, u"\u03A5\u0313\u0342"},
    {0x1FB6, u"\u0391\u0342"}, {0x1FC6, u"\u0397\u0342"}, {0x1FD2, u"\u0399\u0308\u0300"},
    {0x1FD3, u"\u0399\u0308\u0301"}, {0x1FD6, u"\u0399\u0342"},
    {0x1FD7, u"\u0399\u0308\u0342"}, {0x1FE2, u"\u03A5\u0308\u0300"},
    {0x1FE3, u"\u03A5\u0308\u0301"}, {0x1FE4, u"\u03A1\u0313"}, {0x1FE6, u"\u03A5\u0342"},
    {0x1FE7, u"\u03A5\u0308\u0342"}, {0x1FF6, u"\u03A9\u0342"},
    {0xFB00, u"FF"}, {0xFB01, u"FI"}, {0xFB02, u"FL"}, {0xFB03, u"FFI"}, {0xFB04, u"FFL"},
    {0xFB05, u"ST"}, {0xFB06, u"ST"}, {0xFB13, u"\u0544\u0546"}, {0xFB14, u"\u0544\u0535"},
    {0xFB15, u"\u0544\u053B"}, {0xFB16, u"\u054E\u0546"}, {0xFB17, u"\u0544\u053D"},
}};

char32_t simpleLower(char32_t c) {
    const Classes& cls = classes();
    if (cls.locale != nullptr) {
        return static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), cls.locale));
    }
    return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c;
}

}  // namespace

std::u16string toUtf16(std::string_view utf8) {
    std::u16string out;
    out.reserve(utf8.size());
    for (std::size_t at = 0; at < utf8.size();) appendUtf16(out, decodeUtf8(utf8, at));
    return out;
}

std::string toUtf8(std::u16string_view utf16) {
    std::string out;
    out.reserve(utf16.size());
    for (std::size_t i = 0; i < utf16.size(); ++i) {
        char32_t c = utf16[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < utf16.size() && utf16[i + 1] >= 0xDC00 &&
            utf16[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (utf16[++i] - 0xDC00);
        } else if (isSurrogate(c)) {
            c = kReplacement;
        }
        appendUtf8(out, c);
    }
    return out;
}

bool isLetter(char16_t unit) {
    if (isSurrogate(unit)) return false;
    const Classes& cls = classes();
    if (cls.locale == nullptr) return (unit | 0x20) >= 'a' && (unit | 0x20) <= 'z';
    auto c = static_cast<wint_t>(unit);
    bool letterOrMark = iswalpha_l(c, cls.locale) != 0 ||
                        (cls.combining != 0 && iswctype_l(c, cls.combining, cls.locale) != 0);
    return letterOrMark && !isAlphabeticNonLetter(unit);
}

std::u16string uppercased(char16_t unit) {
    for (const auto& entry : kFullUppercase) {
        if (entry.letter == unit) return entry.upper;
    }
    const Classes& cls = classes();
    if (cls.locale != nullptr && !isSurrogate(unit)) {
        return std::u16string(1, static_cast<char16_t>(towupper_l(unit, cls.locale)));
    }
    bool asciiLower = unit >= u'a' && unit <= u'z';
    return std::u16string(1, asciiLower ? static_cast<char16_t>(unit - u'a' + u'A') : unit);
}

std::u16string lowercased(std::string_view utf8) {
    std::u16string out;
    out.reserve(utf8.size());
    for (std::size_t at = 0; at < utf8.size();) {
        char32_t c = decodeUtf8(utf8, at);
        if (c == 0x0130) {
            // The one character whose lower case is longer: "i" and a combining dot above.
            out += u"i\u0307";
        } else {
            appendUtf16(out, simpleLower(c));
        }
    }
    return out;
}

std::string firstCharacter(std::string_view utf8) {
    if (utf8.empty()) return {};
    std::size_t at = 0;
    char32_t first = decodeUtf8(utf8, at);
    std::string out;
    appendUtf8(out, first);
    return out;
}

}  // namespace vontu::extension::unicode
