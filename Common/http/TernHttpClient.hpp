#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Common/config/HttpBaseUrls.hpp"
#include "Common/http/HttpClient.hpp"
#include "Common/http/HttpRequestRunner.hpp"
#include "Common/http/HttpRequestsPause.hpp"
#include "Common/http/HttpRetryPolicy.hpp"
#include "Common/storage/GlobalDataStore.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "Common/util/Logger.hpp"
#include "Common/util/SimpleTimer.hpp"
#include "Common/util/UserAgentUtil.hpp"
#include "platform/UrlSession.hpp"

namespace tern {

// HttpClient over two URL sessions: one that carries the API's credentials and headers, used
// only for the configured tracking host, and a plain one for everything else (images on other
// hosts). Requests honour the global pause, retry server errors with the retry policy, and
// pause all requests after a 401 or when the retries are used up.
//
// Always owned by a std::shared_ptr (create it with make()): transport completions and retries
// hold the client weakly, and a client that is gone when they arrive reports nothing.
// Completions run on the sessions' threads, retried requests start on the main thread.
//
// Nothing of the network is touched before the first request: the sessions are made, and the
// tracking URL is checked, when a request first needs them. Every queue holds a client, and a
// process that never sends anything (an extension answering a push that is not Tern's) must
// not pay for loading the network stack.
class TernHttpClient final : public HttpClient,
                             public std::enable_shared_from_this<TernHttpClient> {
    struct Passkey {};

public:
    // Both sessions: the longest wait for the next bytes, and for a whole request. The resource
    // limit is deliberately the shorter one.
    static constexpr double requestTimeoutSeconds = 60.0;
    static constexpr double resourceTimeoutSeconds = 30.0;

    static std::shared_ptr<TernHttpClient> make(
        const std::string& siteId, const std::string& apiKey, HttpBaseUrls baseUrls,
        std::shared_ptr<HttpRequestRunner> httpRequestRunner,
        std::shared_ptr<JsonAdapter> jsonAdapter, std::shared_ptr<GlobalDataStore> globalDataStore,
        std::shared_ptr<Logger> logger, std::shared_ptr<SimpleTimer> retryPolicyTimer,
        std::shared_ptr<HttpRetryPolicy> retryPolicy,
        const std::shared_ptr<UserAgentUtil>& userAgentUtil);

    TernHttpClient(Passkey, const std::string& siteId, const std::string& apiKey,
                   HttpBaseUrls baseUrls, std::shared_ptr<HttpRequestRunner> httpRequestRunner,
                   std::shared_ptr<JsonAdapter> jsonAdapter,
                   std::shared_ptr<GlobalDataStore> globalDataStore,
                   std::shared_ptr<Logger> logger, std::shared_ptr<SimpleTimer> retryPolicyTimer,
                   std::shared_ptr<HttpRetryPolicy> retryPolicy,
                   const std::shared_ptr<UserAgentUtil>& userAgentUtil);
    TernHttpClient(const TernHttpClient&) = delete;
    TernHttpClient& operator=(const TernHttpClient&) = delete;

    void request(HttpRequestParams params, RequestCompletion onComplete) override;
    void downloadFile(Url url, DownloadFileType fileType, DownloadCompletion onComplete) override;
    void cancel(bool finishTasks) override;

    // The sessions' configurations, as they are made at construction.
    static vontu::platform::UrlSessionConfiguration publicSessionConfiguration();
    static vontu::platform::UrlSessionConfiguration ternApiSessionConfiguration(
        const std::string& siteId, const std::string& apiKey, const std::string& userAgent);

private:
    // The API session for the tracking host only: credentials never go anywhere else.
    std::shared_ptr<vontu::platform::UrlSession> sessionFor(const Url& url);
    // The tracking API's base URL, checked on first use; absent when it does not parse.
    const std::optional<Url>& trackingApiUrl();

    void handleTransportOutcome(const HttpRequestParams& params,
                                const RequestCompletion& onComplete,
                                std::optional<vontu::platform::Bytes> body,
                                std::optional<vontu::platform::HttpUrlResponse> response,
                                std::optional<vontu::platform::UrlError> error);
    void handleUnsuccessfulStatus(int statusCode, const std::optional<vontu::platform::Bytes>& body,
                                  const HttpRequestParams& params,
                                  const RequestCompletion& onComplete);
    // Runs the same request again after the delay; false when no retries are left.
    bool scheduleRetry(int statusCode, const HttpRequestParams& params,
                       const RequestCompletion& onComplete);

    HttpBaseUrls baseUrls_;
    std::shared_ptr<HttpRequestRunner> httpRequestRunner_;
    std::shared_ptr<JsonAdapter> jsonAdapter_;
    std::shared_ptr<GlobalDataStore> globalDataStore_;
    std::shared_ptr<Logger> logger_;
    std::shared_ptr<SimpleTimer> retryPolicyTimer_;
    std::shared_ptr<HttpRetryPolicy> retryPolicy_;
    HttpRequestsPause pause_;
    // What the API session is made with.
    const std::string siteId_;
    const std::string apiKey_;
    const std::shared_ptr<UserAgentUtil> userAgentUtil_;

    std::once_flag trackingApiUrlChecked_;
    // Absent when the configured base URL does not parse: then no request gets credentials.
    std::optional<Url> trackingApiUrl_;

    // The sessions, each made on first use, and whether the client has been ended.
    std::mutex sessionsMutex_;
    std::shared_ptr<vontu::platform::UrlSession> ternApiSession_;
    std::shared_ptr<vontu::platform::UrlSession> publicSession_;
    bool cancelled_ = false;
};

}  // namespace tern
