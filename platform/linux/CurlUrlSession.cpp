#include "platform/linux/UrlSessionModule.hpp"

#include <curl/curl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <expected>
#include <fstream>
#include <limits>
#include <map>
#include <mutex>
#include <sstream>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vontu::platform::linux_host {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* allowedProtocols = "http,https";
// Where a request that started over TLS may be redirected: never out of TLS, where its
// credentials and body would travel in clear.
constexpr const char* secureRedirectProtocols = "https";
constexpr const char* cancelledDescription = "cancelled";
// Where curl looks for the system's trusted certificates when it was built without a default.
constexpr const char* fallbackSystemCaBundle = "/etc/ssl/certs/ca-certificates.crt";

void initialiseCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

UrlError makeError(UrlError::Code code, std::string description) {
    return UrlError{code, std::move(description)};
}

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

// ---------------------------------------------------------------------------------------------
// One task's transfer. The session thread owns everything below `cancelRequested`; other
// threads only ever set that flag.

struct Transfer {
    enum class Kind { data, download };

    Transfer(Kind transferKind, UrlRequest urlRequest) : kind(transferKind), request(std::move(urlRequest)) {}
    ~Transfer() {
        if (easy != nullptr) curl_easy_cleanup(easy);
        releaseResources();
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    // Gives up the curl handle, for the session to use again.
    CURL* takeEasyHandle() { return std::exchange(easy, nullptr); }

    // Everything but the curl handle.
    void releaseResources() {
        curl_slist_free_all(headerList);
        headerList = nullptr;
        closeFile();
    }

    // Closes the download file. Its last bytes may still be in the file's buffer, so a close
    // that fails is a failed write: false, with the write marked as failed.
    bool closeFile() {
        if (file == nullptr || std::fclose(std::exchange(file, nullptr)) == 0) return true;
        writeFailed = true;
        writeErrno = errno;
        return false;
    }

    void noteActivity() { lastActivity = Clock::now(); }

    const Kind kind;
    const UrlRequest request;
    DataTaskCompletion dataCompletion;
    DownloadTaskCompletion downloadCompletion;

    std::atomic<bool> cancelRequested{false};
    bool refused = false;  // set under the session's lock before the thread sees the transfer
    bool startedSecure = false;  // the request's own URL is https

    CURL* easy = nullptr;
    curl_slist* headerList = nullptr;
    std::array<char, CURL_ERROR_SIZE> errorText{};
    HttpUrlResponse response;
    Bytes body;
    std::size_t maxBytes = 0;
    std::size_t receivedBytes = 0;
    bool tooLarge = false;
    bool writeFailed = false;
    int writeErrno = 0;
    std::FILE* file = nullptr;
    fs::path filePath;
    // Idle time-out: the longest time without any bytes moving either way.
    std::optional<Clock::duration> idleLimit;
    Clock::time_point lastActivity = Clock::now();
    curl_off_t lastDownloaded = 0;
    curl_off_t lastUploaded = 0;
};

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

// ---------------------------------------------------------------------------------------------
// The session's state and thread.

std::string systemCaBundlePath() {
    std::string path = fallbackSystemCaBundle;
    if (CURL* probe = curl_easy_init()) {
        char* builtIn = nullptr;
        if (curl_easy_getinfo(probe, CURLINFO_CAINFO, &builtIn) == CURLE_OK && builtIn != nullptr) path = builtIn;
        curl_easy_cleanup(probe);
    }
    return path;
}

class SessionCore : public std::enable_shared_from_this<SessionCore> {
public:
    SessionCore(const UrlSessionConfiguration& config, const NetworkOptions& network, fs::path downloadDirectory)
        : config_(config), downloadDirectory_(std::move(downloadDirectory)), multi_(curl_multi_init()) {
        if (multi_ == nullptr) setupError_ = makeError(UrlError::Code::other, "cannot create a URL session");
        for (const std::string& entry : network.connectTo) {
            if (curl_slist* grown = curl_slist_append(connectTo_, entry.c_str())) connectTo_ = grown;
        }
        if (!network.extraCaFile.empty()) loadTrustedCertificates(network.extraCaFile);
    }

    ~SessionCore() {
        for (CURL* easy : idleHandles_) curl_easy_cleanup(easy);
        if (multi_ != nullptr) curl_multi_cleanup(multi_);
        curl_slist_free_all(connectTo_);
    }

    SessionCore(const SessionCore&) = delete;
    SessionCore& operator=(const SessionCore&) = delete;

    void submit(const std::shared_ptr<Transfer>& transfer) {
        std::thread retired;
        {
            std::lock_guard lock(mutex_);
            transfer->refused = invalidated_;
            incoming_.push_back(transfer);
            if (!threadStarted_) {
                threadStarted_ = true;
                retired = std::move(retired_);
                thread_ = std::thread([self = shared_from_this()] { self->run(); });
            }
        }
        wake();
        // A thread that retired has nothing left to do but return.
        if (retired.joinable()) retired.join();
    }

    void noteCancel() {
        {
            std::lock_guard lock(mutex_);
            cancelNoted_ = true;
        }
        wake();
    }

    void invalidate(bool cancelRunning) {
        {
            std::lock_guard lock(mutex_);
            invalidated_ = true;
            cancelRunning_ = cancelRunning_ || cancelRunning;
        }
        wake();
    }

    // The public session is gone: cancel everything and let the thread end. When that happens
    // on the thread itself (inside a completion), it cannot be joined; it ends on its own as
    // soon as the completion returns, keeping this object alive until then.
    void shutDown() {
        std::thread thread;
        std::thread retired;
        {
            std::lock_guard lock(mutex_);
            invalidated_ = true;
            cancelRunning_ = true;
            shuttingDown_ = true;
            thread = std::move(thread_);
            retired = std::move(retired_);
        }
        wake();
        if (retired.joinable()) retired.join();
        if (!thread.joinable()) return;
        if (thread.get_id() == std::this_thread::get_id()) {
            thread.detach();
        } else {
            thread.join();
        }
    }

private:
    struct Orders {
        std::vector<std::shared_ptr<Transfer>> arrivals;
        bool invalidated = false;
        bool cancelRunning = false;
        bool cancelNoted = false;
        bool shuttingDown = false;
    };

    void wake() {
        // Orders given by the session thread itself, from inside a completion, are taken up
        // as soon as the completion returns: waking the thread would only cost it a round of
        // system calls.
        if (std::this_thread::get_id() == threadId_.load()) {
            ordersFromWithin_ = true;
            return;
        }
        // Under the lock: a retiring thread lets go of the multi handle under it too.
        std::lock_guard lock(mutex_);
        if (multi_ != nullptr) {
            curl_multi_wakeup(multi_);
        } else {
            woken_ = true;
            wakeups_.notify_all();
        }
    }

    Orders takeOrders() {
        std::lock_guard lock(mutex_);
        Orders orders;
        orders.arrivals.swap(incoming_);
        orders.invalidated = invalidated_;
        orders.cancelRunning = cancelRunning_;
        orders.cancelNoted = std::exchange(cancelNoted_, false);
        orders.shuttingDown = shuttingDown_;
        return orders;
    }

    void run() {
        threadId_.store(std::this_thread::get_id());
        for (;;) {
            Orders orders = takeOrders();
            for (const auto& transfer : orders.arrivals) admit(transfer, orders.cancelRunning);
            if (orders.cancelRunning || orders.cancelNoted) cancelRunningTransfers(orders.cancelRunning);
            expireIdleTransfers();
            if (orders.shuttingDown && running_.empty()) return;
            if (orders.invalidated && running_.empty() && retireIfIdle()) return;
            if (multi_ != nullptr) {
                int stillRunning = 0;
                curl_multi_perform(multi_, &stillRunning);
                completeFinishedTransfers();
            }
            waitForWork();
        }
    }

    // An invalidated session that has nothing left to run gives back its thread and its
    // connections at once: its owner may keep it for the rest of the process (the push library
    // keeps every rich push's client). A task given to it later is refused on a new thread.
    // False when a task arrived meanwhile; the thread then goes on and refuses it.
    bool retireIfIdle() {
        std::lock_guard lock(mutex_);
        if (!incoming_.empty()) return false;
        for (CURL* easy : idleHandles_) curl_easy_cleanup(easy);
        idleHandles_.clear();
        if (multi_ != nullptr) curl_multi_cleanup(multi_);  // closes the connections
        multi_ = nullptr;
        // Thread ids are reused: a later thread must not pass for this one in wake().
        threadId_.store(std::thread::id{});
        threadStarted_ = false;
        retired_ = std::move(thread_);
        return true;
    }

    void waitForWork() {
        if (std::exchange(ordersFromWithin_, false)) return;
        const int timeoutMs = msUntilNextIdleDeadline();
        if (multi_ != nullptr) {
            curl_multi_poll(multi_, nullptr, 0, timeoutMs, nullptr);
        } else {
            std::unique_lock lock(mutex_);
            wakeups_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return woken_; });
            woken_ = false;
        }
    }

    int msUntilNextIdleDeadline() const {
        auto wait = std::chrono::milliseconds(60'000);
        const auto now = Clock::now();
        for (const auto& [easy, transfer] : running_) {
            if (!transfer->idleLimit) continue;
            const auto remaining = transfer->lastActivity + *transfer->idleLimit - now;
            wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(remaining));
        }
        return static_cast<int>(std::max<std::chrono::milliseconds::rep>(wait.count(), 0));
    }

    void admit(const std::shared_ptr<Transfer>& transfer, bool cancelEverything) {
        if (transfer->refused || cancelEverything || transfer->cancelRequested) {
            complete(*transfer, makeError(UrlError::Code::cancelled, cancelledDescription));
            return;
        }
        if (auto problem = start(*transfer)) {
            complete(*transfer, std::move(*problem));
            return;
        }
        running_.emplace(transfer->easy, transfer);
    }

    // Sets the transfer up and hands it to curl; a problem is returned instead when it cannot be.
    std::optional<UrlError> start(Transfer& transfer) {
        if (setupError_) return setupError_;
        const auto secure = checkUrl(transfer.request.url);
        if (!secure) return secure.error();
        transfer.startedSecure = *secure;
        const std::string& method = transfer.request.method;
        if (!method.empty() && !isToken(method)) return makeError(UrlError::Code::other, "invalid HTTP method: " + method);
        auto headers = headerListFor(transfer.request, config_.additionalHeaders);
        if (!headers) return headers.error();
        transfer.headerList = *headers;
        transfer.easy = idleHandle();
        if (transfer.easy == nullptr) return makeError(UrlError::Code::other, "cannot create a transfer");
        if (transfer.kind == Transfer::Kind::download) {
            if (auto problem = openDownloadFile(transfer)) return problem;
        }
        configure(transfer);
        if (curl_multi_add_handle(multi_, transfer.easy) != CURLM_OK) {
            return makeError(UrlError::Code::other, "cannot start the transfer");
        }
        return std::nullopt;
    }

    void configure(Transfer& transfer) {
        CURL* easy = transfer.easy;
        curl_easy_setopt(easy, CURLOPT_URL, transfer.request.url.c_str());
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorText.data());
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        // A transfer given up while its name lookup is pending neither waits for the lookup
        // (which may take the resolver's whole time-out) nor holds up the process's exit.
        curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, allowedProtocols);
        curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR,
                         transfer.startedSecure ? secureRedirectProtocols : allowedProtocols);
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(easy, CURLOPT_MAXREDIRS, std::max(config_.maxRedirects, 0L));
        // Certificates and host names are always checked; 2 is curl's "verify the host name".
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
        if (!trustedCertificates_.empty()) {
            curl_blob blob{trustedCertificates_.data(), trustedCertificates_.size(), CURL_BLOB_NOCOPY};
            curl_easy_setopt(easy, CURLOPT_CAINFO_BLOB, &blob);
        }
        if (connectTo_ != nullptr) curl_easy_setopt(easy, CURLOPT_CONNECT_TO, connectTo_);
        // Accept what curl can decode, and decode it, as other platforms' URL loading does.
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headerList);
        setMethodAndBody(easy, transfer.request);
        setTimeouts(transfer, config_);

        // Counted on the bytes of the body delivered. Not CURLOPT_MAXFILESIZE: curl applies it
        // to the announced length of every response, also a redirect's or a HEAD's, whose body
        // nobody reads.
        transfer.maxBytes = transfer.request.maxResponseBytes.value_or(config_.maxResponseBytes);
        curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeaderLine);
        curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onBodyBytes);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
        curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, onProgress);
        curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &transfer);
        transfer.noteActivity();
    }

    std::optional<UrlError> openDownloadFile(Transfer& transfer) {
        const auto failure = [&] {
            return makeError(UrlError::Code::cannotWriteFile,
                             "cannot create a download file in " + downloadDirectory_.string() + ": " +
                                 std::strerror(errno));
        };
        if (!ensurePrivateDirectory(downloadDirectory_)) return failure();
        std::string pattern = (downloadDirectory_ / "download-XXXXXX.tmp").string();
        const int descriptor = ::mkstemps(pattern.data(), 4);  // mode 0600
        if (descriptor < 0) return failure();
        transfer.filePath = pattern;
        transfer.file = ::fdopen(descriptor, "wb");
        if (transfer.file == nullptr) {
            ::close(descriptor);
            return failure();
        }
        return std::nullopt;
    }

    void completeFinishedTransfers() {
        std::vector<std::pair<CURL*, CURLcode>> finished;
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
            if (message->msg == CURLMSG_DONE) finished.emplace_back(message->easy_handle, message->data.result);
        }
        for (const auto& [easy, result] : finished) {
            const std::shared_ptr<Transfer> transfer = detach(easy);
            if (!transfer) continue;
            collectResponse(*transfer);
            if (result == CURLE_OK && transfer->closeFile()) {
                complete(*transfer, std::nullopt);
            } else {
                complete(*transfer, errorForCurlResult(*transfer, result));
            }
        }
    }

    void cancelRunningTransfers(bool everything) {
        std::vector<CURL*> doomed;
        for (const auto& [easy, transfer] : running_) {
            if (everything || transfer->cancelRequested) doomed.push_back(easy);
        }
        for (CURL* easy : doomed) {
            if (const auto transfer = detach(easy)) {
                complete(*transfer, makeError(UrlError::Code::cancelled, cancelledDescription));
            }
        }
    }

    void expireIdleTransfers() {
        const auto now = Clock::now();
        std::vector<CURL*> expired;
        for (const auto& [easy, transfer] : running_) {
            if (transfer->idleLimit && now - transfer->lastActivity >= *transfer->idleLimit) expired.push_back(easy);
        }
        for (CURL* easy : expired) {
            if (const auto transfer = detach(easy)) {
                collectResponse(*transfer);
                complete(*transfer, makeError(UrlError::Code::timedOut, "The request timed out."));
            }
        }
    }

    // Takes a transfer out of curl's hands and out of the running set.
    std::shared_ptr<Transfer> detach(CURL* easy) {
        const auto found = running_.find(easy);
        if (found == running_.end()) return nullptr;
        std::shared_ptr<Transfer> transfer = std::move(found->second);
        running_.erase(found);
        curl_multi_remove_handle(multi_, easy);
        return transfer;
    }

    static void collectResponse(Transfer& transfer) {
        long status = 0;
        curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
        transfer.response.statusCode = status;
        char* effectiveUrl = nullptr;
        curl_easy_getinfo(transfer.easy, CURLINFO_EFFECTIVE_URL, &effectiveUrl);
        transfer.response.url = effectiveUrl != nullptr ? effectiveUrl : transfer.request.url;
    }

    // A curl handle with default options: one that an earlier transfer left, or a new one.
    // Making a handle is a large share of a short request's own cost.
    CURL* idleHandle() {
        if (idleHandles_.empty()) return curl_easy_init();
        CURL* easy = idleHandles_.back();
        idleHandles_.pop_back();
        return easy;
    }

    void keepIdleHandle(CURL* easy) {
        if (easy == nullptr) return;
        // A few suffice: tasks of one session mostly run one or two at a time.
        constexpr std::size_t mostIdleHandles = 4;
        if (idleHandles_.size() >= mostIdleHandles) {
            curl_easy_cleanup(easy);
            return;
        }
        // Forgets the options; the session's connections stay with the multi handle.
        curl_easy_reset(easy);
        idleHandles_.push_back(easy);
    }

    // Calls the task's completion, once, with no lock held: it may start tasks on this very
    // session, cancel, invalidate, or drop the last reference to the session.
    void complete(Transfer& transfer, std::optional<UrlError> error) {
        const bool cancelled = error && error->code == UrlError::Code::cancelled;
        std::optional<HttpUrlResponse> response;
        if (!cancelled && transfer.response.statusCode > 0) response = std::move(transfer.response);
        keepIdleHandle(transfer.takeEasyHandle());
        transfer.releaseResources();  // closes the download file too
        if (transfer.kind == Transfer::Kind::data) {
            DataTaskCompletion completion = std::move(transfer.dataCompletion);
            transfer.dataCompletion = nullptr;
            std::optional<Bytes> data;
            if (!error) data = std::move(transfer.body);
            if (completion) completion(std::move(data), std::move(response), std::move(error));
            return;
        }
        DownloadTaskCompletion completion = std::move(transfer.downloadCompletion);
        transfer.downloadCompletion = nullptr;
        std::optional<fs::path> location;
        if (!error && !transfer.filePath.empty()) location = transfer.filePath;
        if (completion) completion(std::move(location), std::move(response), std::move(error));
        // Whatever the completion did not move away is the session's to delete.
        if (!transfer.filePath.empty()) {
            std::error_code ignored;
            fs::remove(transfer.filePath, ignored);
        }
    }

    // The system's trusted certificates plus the extra one, as a single PEM bundle: curl takes
    // either its default bundle or a given one, never both.
    void loadTrustedCertificates(const fs::path& extraCaFile) {
        const auto extra = readWholeFile(extraCaFile);
        if (!extra) {
            setupError_ = makeError(UrlError::Code::other, "cannot read the trusted CA file " + extraCaFile.string());
            return;
        }
        trustedCertificates_ = readWholeFile(systemCaBundlePath()).value_or("");
        if (!trustedCertificates_.empty() && trustedCertificates_.back() != '\n') trustedCertificates_ += '\n';
        trustedCertificates_ += *extra;
    }

    const UrlSessionConfiguration config_;
    const fs::path downloadDirectory_;
    // Written only by the session thread, under the mutex (when it retires); read by other
    // threads only under the mutex.
    CURLM* multi_;
    curl_slist* connectTo_ = nullptr;
    std::string trustedCertificates_;
    std::optional<UrlError> setupError_;

    std::mutex mutex_;
    // Only when there is no multi handle to wake (curl could not make one): every task then
    // fails at once, and the thread merely waits for more.
    std::condition_variable wakeups_;
    bool woken_ = false;
    std::vector<std::shared_ptr<Transfer>> incoming_;
    bool invalidated_ = false;
    bool cancelRunning_ = false;
    bool cancelNoted_ = false;
    bool shuttingDown_ = false;
    bool threadStarted_ = false;
    std::thread thread_;
    // A thread that retired, until a new one starts or the session shuts down and joins it.
    std::thread retired_;

    std::atomic<std::thread::id> threadId_{};

    // The session thread's own.
    bool ordersFromWithin_ = false;
    std::unordered_map<CURL*, std::shared_ptr<Transfer>> running_;
    std::vector<CURL*> idleHandles_;
};

// ---------------------------------------------------------------------------------------------
// What callers hold.

class CurlUrlSessionTask final : public UrlSessionTask {
public:
    CurlUrlSessionTask(std::shared_ptr<Transfer> transfer, std::weak_ptr<SessionCore> core)
        : transfer_(std::move(transfer)), core_(std::move(core)) {}

    void cancel() override {
        transfer_->cancelRequested = true;
        if (const auto core = core_.lock()) core->noteCancel();
    }

private:
    const std::shared_ptr<Transfer> transfer_;
    const std::weak_ptr<SessionCore> core_;
};

class CurlUrlSession final : public UrlSession {
public:
    explicit CurlUrlSession(std::shared_ptr<SessionCore> core) : core_(std::move(core)) {}
    ~CurlUrlSession() override { core_->shutDown(); }
    CurlUrlSession(const CurlUrlSession&) = delete;
    CurlUrlSession& operator=(const CurlUrlSession&) = delete;

    std::shared_ptr<UrlSessionTask> dataTask(UrlRequest request, DataTaskCompletion completion) override {
        auto transfer = std::make_shared<Transfer>(Transfer::Kind::data, std::move(request));
        transfer->dataCompletion = std::move(completion);
        return launch(std::move(transfer));
    }

    std::shared_ptr<UrlSessionTask> downloadTask(UrlRequest request, DownloadTaskCompletion completion) override {
        auto transfer = std::make_shared<Transfer>(Transfer::Kind::download, std::move(request));
        transfer->downloadCompletion = std::move(completion);
        return launch(std::move(transfer));
    }

    void finishTasksAndInvalidate() override { core_->invalidate(false); }
    void invalidateAndCancel() override { core_->invalidate(true); }

private:
    std::shared_ptr<UrlSessionTask> launch(std::shared_ptr<Transfer> transfer) {
        core_->submit(transfer);
        return std::make_shared<CurlUrlSessionTask>(std::move(transfer), core_);
    }

    const std::shared_ptr<SessionCore> core_;
};

}  // namespace

}  // namespace vontu::platform::linux_host

// The module's exports (see UrlSessionModule.hpp).
extern "C" __attribute__((visibility("default"))) void vontu_urlsession_make(
    const vontu::platform::UrlSessionConfiguration* config,
    const vontu::platform::linux_host::NetworkOptions* network,
    const std::filesystem::path* downloadDirectory,
    std::shared_ptr<vontu::platform::UrlSession>* session) {
    using namespace vontu::platform::linux_host;
    initialiseCurlOnce();
    *session = std::make_shared<CurlUrlSession>(
        std::make_shared<SessionCore>(*config, *network, *downloadDirectory));
}

extern "C" __attribute__((visibility("default"))) bool vontu_urlsession_accepts_url(
    const char* url) {
    CURLU* handle = curl_url();
    if (handle == nullptr) return false;
    const bool accepted = curl_url_set(handle, CURLUPART_URL, url, CURLU_NON_SUPPORT_SCHEME) ==
                          CURLUE_OK;
    curl_url_cleanup(handle);
    return accepted;
}
