#include "platform/UrlSession.hpp"

#include <cstddef>
#include <string_view>

#include "platform/FileName.hpp"

namespace vontu::platform {

namespace {

char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (asciiLower(a[i]) != asciiLower(b[i])) return false;
    }
    return true;
}

std::string_view trimmed(std::string_view text) {
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return text;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Decodes %XX escapes; a '%' that does not start a valid escape is kept as it is.
std::string percentDecoded(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            const int high = hexValue(text[i + 1]);
            const int low = hexValue(text[i + 2]);
            if (high >= 0 && low >= 0) {
                out.push_back(static_cast<char>(high * 16 + low));
                i += 2;
                continue;
            }
        }
        out.push_back(text[i]);
    }
    return out;
}

std::string latin1ToUtf8(std::string_view text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            out.push_back(c);
        } else {
            out.push_back(static_cast<char>(0xC0 | (byte >> 6)));
            out.push_back(static_cast<char>(0x80 | (byte & 0x3F)));
        }
    }
    return out;
}

// One "name=value" parameter of a Content-Disposition header, the value unquoted.
struct DispositionParameter {
    std::string name;  // lower case
    std::string value;
};

// Splits the parameters after the disposition type, honouring quoted strings (a ';' inside
// quotes belongs to the value) and their backslash escapes.
std::vector<DispositionParameter> dispositionParameters(std::string_view header) {
    std::vector<DispositionParameter> parameters;
    std::size_t i = header.find(';');
    while (i != std::string_view::npos && i < header.size()) {
        ++i;  // past ';'
        const std::size_t equals = header.find_first_of("=;", i);
        if (equals == std::string_view::npos || header[equals] == ';') {
            i = equals;  // a parameter without a value: skip it
            continue;
        }
        DispositionParameter parameter;
        for (const char c : trimmed(header.substr(i, equals - i))) parameter.name.push_back(asciiLower(c));
        i = equals + 1;
        while (i < header.size() && (header[i] == ' ' || header[i] == '\t')) ++i;
        if (i < header.size() && header[i] == '"') {
            for (++i; i < header.size() && header[i] != '"'; ++i) {
                if (header[i] == '\\' && i + 1 < header.size()) ++i;
                parameter.value.push_back(header[i]);
            }
            i = header.find(';', i);
        } else {
            const std::size_t end = header.find(';', i);
            const std::size_t length = end == std::string_view::npos ? std::string_view::npos : end - i;
            parameter.value = std::string(trimmed(header.substr(i, length)));
            i = end;
        }
        parameters.push_back(std::move(parameter));
    }
    return parameters;
}

// An extended value as "charset'language'percent-encoded"; UTF-8 and ISO-8859-1 are the
// charsets that the standard asks for.
std::optional<std::string> decodedExtendedValue(std::string_view value) {
    const std::size_t firstQuote = value.find('\'');
    if (firstQuote == std::string_view::npos) return std::nullopt;
    const std::size_t secondQuote = value.find('\'', firstQuote + 1);
    if (secondQuote == std::string_view::npos) return std::nullopt;
    const std::string_view charset = value.substr(0, firstQuote);
    const std::string decoded = percentDecoded(value.substr(secondQuote + 1));
    if (equalsIgnoringCase(charset, "utf-8")) return decoded;
    if (equalsIgnoringCase(charset, "iso-8859-1")) return latin1ToUtf8(decoded);
    return std::nullopt;
}

// filename* wins over filename, as a client that understands both must prefer it.
std::optional<std::string> filenameFromDisposition(std::string_view header) {
    std::optional<std::string> plain;
    for (const DispositionParameter& parameter : dispositionParameters(header)) {
        if (parameter.name == "filename*") {
            if (auto extended = decodedExtendedValue(parameter.value); extended && !extended->empty()) return extended;
        } else if (parameter.name == "filename" && !plain && !parameter.value.empty()) {
            plain = parameter.value;
        }
    }
    return plain;
}

// The last non-empty path segment of the URL, percent-decoded; absent when it is no single file
// name (".", "..", or a "/" or NUL that came from an escape).
std::optional<std::string> lastPathComponent(std::string_view url) {
    url = url.substr(0, url.find_first_of("?#"));
    if (const std::size_t schemeEnd = url.find("://"); schemeEnd != std::string_view::npos) {
        const std::size_t pathStart = url.find('/', schemeEnd + 3);
        if (pathStart == std::string_view::npos) return std::nullopt;
        url.remove_prefix(pathStart);
    }
    while (!url.empty() && url.back() == '/') url.remove_suffix(1);
    const std::size_t slash = url.rfind('/');
    const std::string_view segment = slash == std::string_view::npos ? url : url.substr(slash + 1);
    std::string name = percentDecoded(segment);
    if (!isSingleFileName(name)) return std::nullopt;
    return name;
}

}  // namespace

std::optional<std::string> HttpUrlResponse::headerValue(const std::string& name) const {
    for (const auto& [headerName, value] : headers) {
        if (equalsIgnoringCase(headerName, name)) return value;
    }
    return std::nullopt;
}

std::optional<std::string> HttpUrlResponse::suggestedFilename() const {
    if (const auto disposition = headerValue("Content-Disposition")) {
        if (auto name = filenameFromDisposition(*disposition)) return name;
    }
    return lastPathComponent(url);
}

}  // namespace vontu::platform
