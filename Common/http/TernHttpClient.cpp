#include "Common/http/TernHttpClient.hpp"

#include <string>
#include <utility>

#include "Common/http/ApiErrorMessage.hpp"
#include "Common/util/DoubleDescription.hpp"
#include "platform/Crypto.hpp"
#include "platform/Env.hpp"

namespace tern {

namespace {

using vontu::platform::Bytes;
using vontu::platform::HttpUrlResponse;
using vontu::platform::UrlError;
using vontu::platform::UrlSessionConfiguration;

constexpr int firstUnsuccessfulStatus = 300;

bool isServerError(int statusCode) { return statusCode >= 500 && statusCode <= 599; }

}  // namespace

std::shared_ptr<TernHttpClient> TernHttpClient::make(
    const std::string& siteId, const std::string& apiKey, HttpBaseUrls baseUrls,
    std::shared_ptr<HttpRequestRunner> httpRequestRunner, std::shared_ptr<JsonAdapter> jsonAdapter,
    std::shared_ptr<GlobalDataStore> globalDataStore, std::shared_ptr<Logger> logger,
    std::shared_ptr<SimpleTimer> retryPolicyTimer, std::shared_ptr<HttpRetryPolicy> retryPolicy,
    const std::shared_ptr<UserAgentUtil>& userAgentUtil) {
    return std::make_shared<TernHttpClient>(
        Passkey{}, siteId, apiKey, std::move(baseUrls), std::move(httpRequestRunner),
        std::move(jsonAdapter), std::move(globalDataStore), std::move(logger),
        std::move(retryPolicyTimer), std::move(retryPolicy), userAgentUtil);
}

TernHttpClient::TernHttpClient(Passkey, const std::string& siteId, const std::string& apiKey,
                               HttpBaseUrls baseUrls,
                               std::shared_ptr<HttpRequestRunner> httpRequestRunner,
                               std::shared_ptr<JsonAdapter> jsonAdapter,
                               std::shared_ptr<GlobalDataStore> globalDataStore,
                               std::shared_ptr<Logger> logger,
                               std::shared_ptr<SimpleTimer> retryPolicyTimer,
                               std::shared_ptr<HttpRetryPolicy> retryPolicy,
                               const std::shared_ptr<UserAgentUtil>& userAgentUtil)
    : baseUrls_(std::move(baseUrls)),
      httpRequestRunner_(std::move(httpRequestRunner)),
      jsonAdapter_(std::move(jsonAdapter)),
      globalDataStore_(std::move(globalDataStore)),
      logger_(std::move(logger)),
      retryPolicyTimer_(std::move(retryPolicyTimer)),
      retryPolicy_(std::move(retryPolicy)),
      pause_(globalDataStore_, logger_),
      siteId_(siteId),
      apiKey_(apiKey),
      userAgentUtil_(userAgentUtil) {}

UrlSessionConfiguration TernHttpClient::publicSessionConfiguration() {
    UrlSessionConfiguration configuration;
    configuration.requestTimeout = requestTimeoutSeconds;
    configuration.resourceTimeout = resourceTimeoutSeconds;
    return configuration;
}

UrlSessionConfiguration TernHttpClient::ternApiSessionConfiguration(const std::string& siteId,
                                                                    const std::string& apiKey,
                                                                    const std::string& userAgent) {
    UrlSessionConfiguration configuration = publicSessionConfiguration();
    configuration.additionalHeaders = {
        {"Content-Type", "application/json; charset=utf-8"},
        {"Authorization", "Basic " + vontu::platform::base64Encode(siteId + ":" + apiKey)},
        {"User-Agent", userAgent},
    };
    return configuration;
}

const std::optional<Url>& TernHttpClient::trackingApiUrl() {
    std::call_once(trackingApiUrlChecked_, [this] {
        trackingApiUrl_ = Url::parse(baseUrls_.trackingApi);
        if (!trackingApiUrl_) {
            // A configuration mistake. Stopping the process over it would take the app down
            // with it; sending nothing with credentials is the safe way to live with it.
            logger_->error("The tracking API base URL is not a valid URL: " +
                           baseUrls_.trackingApi);
        }
    });
    return trackingApiUrl_;
}

std::shared_ptr<vontu::platform::UrlSession> TernHttpClient::sessionFor(const Url& url) {
    // Exact comparison, letter case included: a look-alike host gets no credentials.
    const auto& trackingUrl = trackingApiUrl();
    const bool forTrackingApi = trackingUrl && trackingUrl->host() == url.host();

    std::lock_guard guard(sessionsMutex_);
    auto& session = forTrackingApi ? ternApiSession_ : publicSession_;
    if (session) return session;
    auto& env = vontu::platform::Env::current();
    session = forTrackingApi
                  ? env.newUrlSession(ternApiSessionConfiguration(
                        siteId_, apiKey_, userAgentUtil_->getUserAgentHeaderValue()))
                  : env.newUrlSession(publicSessionConfiguration());
    // A session made after the client ended has nothing running: it only refuses new tasks.
    if (cancelled_) session->invalidateAndCancel();
    return session;
}

void TernHttpClient::request(HttpRequestParams params, RequestCompletion onComplete) {
    if (pause_.isInEffect()) {
        logger_->debug("HTTP request ignored because requests are still paused.");
        // Reported as noRequestMade, not requestsPaused: callers treat it as a failed attempt.
        onComplete(std::unexpected(HttpRequestError::noRequestMade(std::nullopt)));
        return;
    }
    const auto session = sessionFor(params.url);
    auto transportCompletion = [weakSelf = weak_from_this(), params,
                                onComplete = std::move(onComplete)](
                                   std::optional<Bytes> body,
                                   std::optional<HttpUrlResponse> response,
                                   std::optional<UrlError> error) {
        const auto self = weakSelf.lock();
        if (!self) return;
        self->handleTransportOutcome(params, onComplete, std::move(body), std::move(response),
                                     std::move(error));
    };
    httpRequestRunner_->request(params, session, std::move(transportCompletion));
}

void TernHttpClient::handleTransportOutcome(const HttpRequestParams& params,
                                            const RequestCompletion& onComplete,
                                            std::optional<Bytes> body,
                                            std::optional<HttpUrlResponse> response,
                                            std::optional<UrlError> error) {
    if (error) {
        onComplete(std::unexpected(HttpRequestError::fromTransportError(std::move(*error))));
        return;
    }
    if (!response) {
        onComplete(std::unexpected(HttpRequestError::noRequestMade(std::nullopt)));
        return;
    }
    const auto statusCode = static_cast<int>(response->statusCode);
    if (statusCode >= firstUnsuccessfulStatus) {
        handleUnsuccessfulStatus(statusCode, body, params, onComplete);
        return;
    }
    if (!body) {
        onComplete(std::unexpected(HttpRequestError::noRequestMade(std::nullopt)));
        return;
    }
    onComplete(std::move(*body));
}

void TernHttpClient::handleUnsuccessfulStatus(int statusCode, const std::optional<Bytes>& body,
                                              const HttpRequestParams& params,
                                              const RequestCompletion& onComplete) {
    const std::string apiMessage = apiErrorMessage(body, *jsonAdapter_);
    const auto unsuccessful = HttpRequestError::unsuccessfulStatusCode(statusCode, apiMessage);

    if (isServerError(statusCode)) {
        if (scheduleRetry(statusCode, params, onComplete)) return;
        pause_.start();
        onComplete(std::unexpected(unsuccessful));
        return;
    }
    if (statusCode == 400) {
        onComplete(std::unexpected(HttpRequestError::badRequest400(apiMessage)));
        return;
    }
    if (statusCode == 401) {
        pause_.start();
        onComplete(std::unexpected(HttpRequestError::unauthorized()));
        return;
    }
    logger_->error(std::to_string(statusCode) + " HTTP status code response.\nProbably a bug? " +
                   unsuccessful.localizedDescription());
    onComplete(std::unexpected(unsuccessful));
}

bool TernHttpClient::scheduleRetry(int statusCode, const HttpRequestParams& params,
                                   const RequestCompletion& onComplete) {
    const auto sleepSeconds = retryPolicy_->nextSleepTime();
    if (!sleepSeconds) return false;
    logger_->debug("Encountered " + std::to_string(statusCode) + " HTTP response.\nSleeping " +
                   doubleDescription(*sleepSeconds) + " seconds and then retrying.");
    // The timer belongs to this client; holding the client weakly keeps the two from holding
    // each other alive.
    retryPolicyTimer_->scheduleAndCancelPrevious(
        *sleepSeconds, [weakSelf = weak_from_this(), params, onComplete] {
            if (const auto self = weakSelf.lock()) self->request(params, onComplete);
        });
    return true;
}

void TernHttpClient::downloadFile(Url url, DownloadFileType fileType,
                                  DownloadCompletion onComplete) {
    httpRequestRunner_->downloadFile(url, fileType, sessionFor(url), std::move(onComplete));
}

void TernHttpClient::cancel(bool finishTasks) {
    std::lock_guard guard(sessionsMutex_);
    cancelled_ = true;
    for (const auto* session : {&ternApiSession_, &publicSession_}) {
        if (!*session) continue;
        if (finishTasks) {
            (*session)->finishTasksAndInvalidate();
        } else {
            (*session)->invalidateAndCancel();
        }
    }
}

}  // namespace tern
