#include "platform/linux/CurlTransfer.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>
#include <system_error>

namespace vontu::platform::linux_host::curl {

// ---------------------------------------------------------------------------------------------
// Small text helpers.

char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b, [](char x, char y) { return asciiLower(x) == asciiLower(y); });
}

std::string_view trimmed(std::string_view text) {
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return text;
}

// RFC 9110 token characters: what a method or header name may consist of.
bool isToken(std::string_view text) {
    constexpr std::string_view punctuation = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::ranges::all_of(text, [&](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               punctuation.find(c) != std::string_view::npos;
    });
}

// A header value must not break out of its line.
bool isSafeHeaderValue(std::string_view value) {
    return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

std::optional<std::string> readWholeFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad()) return std::nullopt;
    return std::move(content).str();
}

// Creates the directory and its missing parents, each readable by the owner only.
bool ensurePrivateDirectory(const fs::path& directory) {
    std::error_code error;
    if (fs::is_directory(directory, error)) return true;
    fs::path partial;
    for (const fs::path& part : directory) {
        partial /= part;
        if (::mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST) return false;
    }
    return fs::is_directory(directory, error);
}


// curl's callbacks. They run on the session thread, inside curl_multi_perform.

std::size_t onHeaderLine(char* data, std::size_t size, std::size_t count, void* user) {
    auto& transfer = *static_cast<Transfer*>(user);
    const std::size_t length = size * count;
    transfer.noteActivity();
    std::string_view line(data, length);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    auto& headers = transfer.response.headers;
    if (line.starts_with("HTTP/")) {
        // A new response begins (after a redirect or an interim 1xx): only the last one counts.
        headers.clear();
    } else if (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
        if (!headers.empty()) headers.back().second += " " + std::string(trimmed(line));
    } else if (const std::size_t colon = line.find(':'); colon != std::string_view::npos) {
        headers.emplace_back(std::string(trimmed(line.substr(0, colon))), std::string(trimmed(line.substr(colon + 1))));
    }
    return length;
}

// Room for the whole body at once, when its length is announced and it comes as it is sent
// (not compressed): a buffer that grows step by step would copy itself on the way and, at its
// last step, take twice the body's size.
void reserveAnnouncedLength(Transfer& transfer) {
    const auto announced = transfer.response.headerValue("Content-Length");
    if (!announced || transfer.response.headerValue("Content-Encoding")) return;
    std::size_t length = 0;
    const char* end = announced->data() + announced->size();
    const auto [parsedTo, problem] = std::from_chars(announced->data(), end, length);
    // A body above the limit is refused at its first bytes: no room for it.
    if (problem != std::errc() || parsedTo != end || length > transfer.maxBytes) return;
    transfer.body.reserve(length);
}

// Returning less than was handed over makes curl stop the transfer with a write error; the
// flags tell why.
std::size_t onBodyBytes(char* data, std::size_t size, std::size_t count, void* user) {
    auto& transfer = *static_cast<Transfer*>(user);
    const std::size_t length = size * count;
    transfer.noteActivity();
    if (transfer.file == nullptr && transfer.body.capacity() == 0) reserveAnnouncedLength(transfer);
    if (length > transfer.maxBytes - transfer.receivedBytes) {
        transfer.tooLarge = true;
        return 0;
    }
    transfer.receivedBytes += length;
    if (transfer.file != nullptr) {
        if (std::fwrite(data, 1, length, transfer.file) != length) {
            transfer.writeFailed = true;
            transfer.writeErrno = errno;
            return 0;
        }
    } else {
        transfer.body.insert(transfer.body.end(), data, data + length);
    }
    return length;
}

int onProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
    auto& transfer = *static_cast<Transfer*>(user);
    if (downloaded != transfer.lastDownloaded || uploaded != transfer.lastUploaded) {
        transfer.lastDownloaded = downloaded;
        transfer.lastUploaded = uploaded;
        transfer.noteActivity();
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Turning a request into curl options.

// Whether the URL is https (else it is http); a problem when it is neither or no URL at all.
std::expected<bool, UrlError> checkUrl(const std::string& url) {
    CURLU* parsed = curl_url();
    if (parsed == nullptr) return std::unexpected(makeError(UrlError::Code::other, "out of memory"));
    std::expected<bool, UrlError> secure;
    char* scheme = nullptr;
    if (curl_url_set(parsed, CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK ||
        curl_url_get(parsed, CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK) {
        secure = std::unexpected(makeError(UrlError::Code::badUrl, "bad URL: " + url));
    } else if (equalsIgnoringCase(scheme, "http") || equalsIgnoringCase(scheme, "https")) {
        secure = equalsIgnoringCase(scheme, "https");
    } else {
        secure = std::unexpected(makeError(UrlError::Code::badUrl, "unsupported URL: " + url));
    }
    curl_free(scheme);
    curl_url_cleanup(parsed);
    return secure;
}

// Appends to a curl header list; on failure the whole list is freed.
bool appendLine(curl_slist*& list, const std::string& line) {
    curl_slist* grown = curl_slist_append(list, line.c_str());
    if (grown == nullptr) {
        curl_slist_free_all(list);
        list = nullptr;
        return false;
    }
    list = grown;
    return true;
}

bool requestHasHeader(const UrlRequest& request, std::string_view name) {
    return std::ranges::any_of(request.headers, [&](const auto& header) { return equalsIgnoringCase(header.first, name); });
}

// The session's headers that the request does not replace, then the request's own, in order.
// Content-Length is left to curl, which computes it from the body it actually sends.
std::expected<curl_slist*, UrlError> headerListFor(const UrlRequest& request,
                                                   const std::map<std::string, std::string>& sessionHeaders) {
    std::vector<std::pair<std::string_view, std::string_view>> fields;
    for (const auto& [name, value] : sessionHeaders) {
        if (!requestHasHeader(request, name)) fields.emplace_back(name, value);
    }
    for (const auto& [name, value] : request.headers) fields.emplace_back(name, value);
    curl_slist* list = nullptr;
    for (const auto& [name, value] : fields) {
        if (!isToken(name) || !isSafeHeaderValue(value)) {
            curl_slist_free_all(list);
            return std::unexpected(makeError(UrlError::Code::other, "invalid header field: " + std::string(name)));
        }
        if (equalsIgnoringCase(name, "Content-Length")) continue;
        // "Name;" is curl's way to send a header with an empty value; "Name:" would remove it.
        const std::string line = value.empty() ? std::string(name) + ";" : std::string(name) + ": " + std::string(value);
        if (!appendLine(list, line)) return std::unexpected(makeError(UrlError::Code::other, "out of memory"));
    }
    // curl would otherwise hold back large bodies until the server answers "100 Continue".
    if (!requestHasHeader(request, "Expect") && !appendLine(list, "Expect:")) {
        return std::unexpected(makeError(UrlError::Code::other, "out of memory"));
    }
    return list;
}

void setMethodAndBody(CURL* easy, const UrlRequest& request) {
    static constexpr char emptyBody[] = "";
    const std::string& method = request.method.empty() ? std::string("GET") : request.method;
    // Methods that carry a body always send one, if only an empty one, so that the request says
    // Content-Length: 0 and no server waits for bytes that never come.
    const bool carriesBody = method == "POST" || method == "PUT" || method == "PATCH";
    if (request.body || carriesBody) {
        const bool hasBytes = request.body && !request.body->empty();
        const char* bytes = hasBytes ? reinterpret_cast<const char*>(request.body->data()) : emptyBody;
        const auto size = static_cast<curl_off_t>(hasBytes ? request.body->size() : 0);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, size);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, bytes);
        if (method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    } else if (method == "GET") {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    }
}

// Seconds as whole milliseconds; absent for "no limit" (absent, zero, negative or not finite).
std::optional<long> positiveMilliseconds(std::optional<double> seconds) {
    if (!seconds || !std::isfinite(*seconds) || *seconds <= 0) return std::nullopt;
    constexpr double longest = 1e12;  // ~31 years: beyond any real wait, and well within long
    return static_cast<long>(std::ceil(std::min(*seconds * 1000.0, longest)));
}

void setTimeouts(Transfer& transfer, const UrlSessionConfiguration& config) {
    const auto idle = positiveMilliseconds(transfer.request.timeoutInterval ? transfer.request.timeoutInterval
                                                                            : config.requestTimeout);
    if (idle) {
        // The idle limit is checked by the session loop against the last byte seen: curl's own
        // low-speed check averages over several seconds and so fires late on short limits.
        transfer.idleLimit = std::chrono::milliseconds(*idle);
        curl_easy_setopt(transfer.easy, CURLOPT_CONNECTTIMEOUT_MS, *idle);
    }
    if (const auto whole = positiveMilliseconds(config.resourceTimeout)) {
        curl_easy_setopt(transfer.easy, CURLOPT_TIMEOUT_MS, *whole);
    }
}

// ---------------------------------------------------------------------------------------------
// Mapping curl's results to the session's errors.

UrlError::Code codeForCurlResult(CURLcode result) {
    switch (result) {
        case CURLE_OPERATION_TIMEDOUT:
            return UrlError::Code::timedOut;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return UrlError::Code::cannotFindHost;
        case CURLE_COULDNT_CONNECT:
            return UrlError::Code::cannotConnect;
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_HTTP2_STREAM:
            return UrlError::Code::networkConnectionLost;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_SHUTDOWN_FAILED:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
        case CURLE_USE_SSL_FAILED:
            return UrlError::Code::secureConnectionFailed;
        case CURLE_URL_MALFORMAT:
        case CURLE_UNSUPPORTED_PROTOCOL:
            return UrlError::Code::badUrl;
        case CURLE_TOO_MANY_REDIRECTS:
            return UrlError::Code::tooManyRedirects;
        case CURLE_FILESIZE_EXCEEDED:
            return UrlError::Code::responseTooLarge;
        default:
            return UrlError::Code::other;
    }
}

UrlError errorForCurlResult(const Transfer& transfer, CURLcode result) {
    if (transfer.tooLarge) {
        return makeError(UrlError::Code::responseTooLarge,
                         "the response is larger than " + std::to_string(transfer.maxBytes) + " bytes");
    }
    if (transfer.writeFailed) {
        return makeError(UrlError::Code::cannotWriteFile,
                         "cannot write the download to " + transfer.filePath.string() + ": " + std::strerror(transfer.writeErrno));
    }
    const std::string detail = transfer.errorText[0] != '\0' ? transfer.errorText.data() : curl_easy_strerror(result);
    // The request's own URL was checked to be https, so only a redirect can have left TLS. It
    // fails as the network's fault: the server may well send it somewhere secure next time,
    // and callers keep what they sent for that.
    if (transfer.startedSecure && result == CURLE_UNSUPPORTED_PROTOCOL) {
        return makeError(UrlError::Code::networkConnectionLost, "a redirect out of https was refused: " + detail);
    }
    return makeError(codeForCurlResult(result), detail);
}

}  // namespace vontu::platform::linux_host::curl
