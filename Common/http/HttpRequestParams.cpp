#include "Common/http/HttpRequestParams.hpp"

#include <utility>

namespace tern {

HttpRequestParams::HttpRequestParams(std::string requestMethod, Url requestUrl,
                                     std::optional<Headers> requestHeaders,
                                     std::optional<vontu::platform::Bytes> requestBody)
    : method(std::move(requestMethod)), url(std::move(requestUrl)),
      headers(std::move(requestHeaders)), body(std::move(requestBody)) {}

std::optional<HttpRequestParams> HttpRequestParams::make(
    const TernApiEndpoint& endpoint, const HttpBaseUrls& baseUrls,
    std::optional<Headers> headers, std::optional<vontu::platform::Bytes> body) {
    auto url = endpoint.getUrl(baseUrls);
    if (!url) return std::nullopt;
    return HttpRequestParams(std::string(endpoint.method()), std::move(*url), std::move(headers),
                             std::move(body));
}

}  // namespace tern
