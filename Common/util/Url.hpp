#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tern {

// A URL as the library passes it around: the text exactly as given, plus its parts.
//
// Parsing follows Foundation's URL(string:): an empty text, a text holding a blank, a control
// character, a non-ASCII byte, a character that may not appear in a URL (such as '"', '<' or
// '\\') or a broken percent escape does not parse. Relative references ("a/b") and URLs without
// an authority ("mailto:someone@example.com") do parse. A URL with an authority ("scheme://...")
// is checked by the platform's URL parser as well.
//
// Nothing is normalised: the scheme and the host keep their letter case, so comparing hosts is
// exact and case-sensitive.
class Url {
public:
    static std::optional<Url> parse(std::string_view text);

    // The text the URL was parsed from.
    const std::string& absoluteString() const { return text_; }
    // "https", "mailto"; absent for a relative reference.
    const std::optional<std::string>& scheme() const { return scheme_; }
    // The host as written; absent when the URL has no authority.
    const std::optional<std::string>& host() const { return host_; }
    // The path with percent escapes decoded ("" when there is none).
    const std::string& path() const { return path_; }
    // The text after "?" (without the "#" part); absent when there is no "?".
    const std::optional<std::string>& query() const { return query_; }

    bool operator==(const Url& other) const { return text_ == other.text_; }

private:
    Url() = default;

    std::string text_;
    std::optional<std::string> scheme_;
    std::optional<std::string> host_;
    std::string path_;
    std::optional<std::string> query_;
};

// text as one segment of a URL path: every byte but the characters a segment may hold as they
// are (letters, digits, "-._~!$&'()*+,;=:@") is percent-encoded, so "/", "?", "#", "%", blanks
// and non-ASCII bytes never end the segment or change what it names; "." and ".." become
// "%2E" and "%2E%2E", which no URL parser takes for a step up or sideways.
std::string percentEncodedPathSegment(std::string_view text);

}  // namespace tern
