#pragma once

#include <map>
#include <optional>
#include <string>

#include "Common/config/HttpBaseUrls.hpp"
#include "Common/config/TernApiEndpoint.hpp"
#include "Common/util/Url.hpp"
#include "platform/Bytes.hpp"

namespace tern {

// Everything the HTTP client needs to send one request.
struct HttpRequestParams {
    using Headers = std::map<std::string, std::string>;

    HttpRequestParams(std::string requestMethod, Url requestUrl,
                      std::optional<Headers> requestHeaders,
                      std::optional<vontu::platform::Bytes> requestBody);

    // The request for an API endpoint: its method, and its path resolved against the base URL.
    // Absent when that URL does not parse (an empty base URL, or an identifier that is not
    // URL-safe).
    static std::optional<HttpRequestParams> make(const TernApiEndpoint& endpoint,
                                                 const HttpBaseUrls& baseUrls,
                                                 std::optional<Headers> headers,
                                                 std::optional<vontu::platform::Bytes> body);

    std::string method;
    Url url;
    // Sent on top of the session's own headers.
    std::optional<Headers> headers;
    std::optional<vontu::platform::Bytes> body;
};

}  // namespace tern
