#include "Common/util/Url.hpp"

#include <cctype>
#include <memory>

#include "platform/Env.hpp"

namespace tern {

namespace {

bool isHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    return std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
}

// The characters that may stand in a URL as they are: RFC 3986's unreserved and reserved
// characters. Anything else (blanks, controls, non-ASCII bytes, '"', '<', '>', '\\', '^', '`',
// '{', '|', '}') must be percent-encoded.
bool isUrlCharacter(char c) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) return true;
    static constexpr std::string_view allowed = "-._~:/?#[]@!$&'()*+,;=%";
    return allowed.find(c) != std::string_view::npos;
}

// Every character allowed, every '%' starting an escape of two hex digits, and at most one '#'.
bool hasValidCharacters(std::string_view text) {
    bool seenFragment = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (!isUrlCharacter(c)) return false;
        if (c == '%' && (i + 2 >= text.size() || !isHexDigit(text[i + 1]) ||
                         !isHexDigit(text[i + 2]))) {
            return false;
        }
        if (c == '#') {
            if (seenFragment) return false;
            seenFragment = true;
        }
    }
    return true;
}

// The scheme: a letter, then letters, digits, '+', '-' or '.', ended by ':'. Absent for a
// relative reference.
std::optional<std::string> schemeOf(std::string_view text) {
    if (text.empty() || std::isalpha(static_cast<unsigned char>(text.front())) == 0) {
        return std::nullopt;
    }
    for (std::size_t i = 1; i < text.size(); ++i) {
        char c = text[i];
        if (c == ':') return std::string(text.substr(0, i));
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '+' && c != '-' &&
            c != '.') {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

std::string percentDecoded(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && isHexDigit(text[i + 1]) &&
            isHexDigit(text[i + 2])) {
            decoded.push_back(static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2])));
            i += 2;
        } else {
            decoded.push_back(text[i]);
        }
    }
    return decoded;
}

// The host as it stands in the authority "//[userinfo@]host[:port]", letter case kept; the
// platform has already confirmed the authority is well formed.
std::string hostAsWritten(std::string_view authority) {
    if (auto at = authority.rfind('@'); at != std::string_view::npos) {
        authority.remove_prefix(at + 1);
    }
    if (!authority.empty() && authority.front() == '[') {
        auto close = authority.find(']');
        return std::string(authority.substr(0, close == std::string_view::npos ? authority.size()
                                                                               : close + 1));
    }
    return std::string(authority.substr(0, authority.find(':')));
}

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
    if (text.empty() || !hasValidCharacters(text)) return std::nullopt;

    Url url;
    url.text_ = std::string(text);
    url.scheme_ = schemeOf(text);

    std::string_view rest = text;
    if (url.scheme_) rest.remove_prefix(url.scheme_->size() + 1);

    // Drop the fragment, then split off the query.
    rest = rest.substr(0, rest.find('#'));
    if (auto question = rest.find('?'); question != std::string_view::npos) {
        url.query_ = std::string(rest.substr(question + 1));
        rest = rest.substr(0, question);
    }

    if (rest.starts_with("//")) {
        rest.remove_prefix(2);
        auto pathStart = rest.find('/');
        std::string_view authority = rest.substr(0, pathStart);
        if (url.scheme_) {
            if (!vontu::platform::Env::current().isWellFormedUrl(url.text_)) return std::nullopt;
        }
        url.host_ = hostAsWritten(authority);
        rest = pathStart == std::string_view::npos ? std::string_view() : rest.substr(pathStart);
    }
    url.path_ = percentDecoded(rest);
    return url;
}

std::string percentEncodedPathSegment(std::string_view text) {
    static constexpr std::string_view keptAsIs = "-._~!$&'()*+,;=:@";
    static constexpr char hex[] = "0123456789ABCDEF";
    auto escape = [](std::string& out, unsigned char byte) {
        out += '%';
        out += hex[byte >> 4];
        out += hex[byte & 0x0F];
    };
    std::string encoded;
    encoded.reserve(text.size());
    const bool dotSegment = text == "." || text == "..";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool alphanumeric = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                                  (byte >= '0' && byte <= '9');
        if ((alphanumeric || keptAsIs.find(c) != std::string_view::npos) && !dotSegment) {
            encoded += c;
        } else {
            escape(encoded, byte);
        }
    }
    return encoded;
}

}  // namespace tern
