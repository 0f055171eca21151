#include "Common/queue/ApiSyncQueueRunner.hpp"

#include <utility>

#include "Common/queue/RecordDescriptionText.hpp"
#include "Common/util/Utf8.hpp"

namespace tern {

namespace {

using vontu::platform::Bytes;

std::string describeBaseUrls(const HttpBaseUrls& baseUrls) {
    return "HttpBaseUrls(trackingApi: " + quotedDescription(baseUrls.trackingApi) + ")";
}

}  // namespace

ApiSyncQueueRunner::ApiSyncQueueRunner(std::string siteId,
                                       std::shared_ptr<JsonAdapter> jsonAdapter,
                                       std::shared_ptr<Logger> logger,
                                       std::shared_ptr<HttpClient> httpClient,
                                       const SdkConfig& sdkConfig)
    : jsonAdapter_(std::move(jsonAdapter)), siteId_(std::move(siteId)),
      logger_(std::move(logger)), httpClient_(std::move(httpClient)),
      baseHttpUrls_(HttpBaseUrls{sdkConfig.trackingApiUrl}),
      failureIfDontDecodeTaskData_(HttpRequestError::noRequestMade(std::nullopt)) {}

void ApiSyncQueueRunner::performHttpRequest(const TernApiEndpoint& endpoint,
                                            std::optional<Bytes> requestBody,
                                            Completion onComplete) {
    auto params = HttpRequestParams::make(endpoint, baseHttpUrls_, std::nullopt,
                                          std::move(requestBody));
    if (!params) {
        logger_->error("Error constructing HTTP request. Endpoint: " + endpoint.description() +
                       ", baseUrls: " + describeBaseUrls(baseHttpUrls_));
        onComplete(std::unexpected(HttpRequestError::noRequestMade(std::nullopt)));
        return;
    }
    // The client reports nothing once it is gone, and the queue waits for every answer: the
    // completion keeps the client alive until it has answered, even if this runner goes first.
    httpClient_->request(std::move(*params),
                         [client = httpClient_, onComplete = std::move(onComplete)](
                             HttpRequestResult result) {
                             if (result) {
                                 onComplete({});
                             } else {
                                 onComplete(std::unexpected(std::move(result.error())));
                             }
                         });
}

std::string ApiSyncQueueRunner::unqualifiedTypeName(const std::type_info& type) {
    std::string name = demangledTypeName(type);
    if (name.find('<') != std::string::npos) return name;
    auto separator = name.rfind("::");
    return separator == std::string::npos ? name : name.substr(separator + 2);
}

void ApiSyncQueueRunner::logDecodingFailure(const Bytes& data, const std::string& typeName) const {
    std::string text(data.begin(), data.end());
    if (!isValidUtf8(text)) text = "()";
    logger_->error("Failure decoding: " + text + " to " + typeName);
}

}  // namespace tern
