#include "platform/linux/UrlSessionModule.hpp"

#include "platform/linux/CurlTransfer.hpp"

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

using namespace curl;

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
