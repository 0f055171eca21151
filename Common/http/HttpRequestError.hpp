#pragma once

#include <optional>
#include <string>

#include "platform/UrlSession.hpp"

namespace tern {

// Why a request to the Tern API did not succeed. Every failed request ends in exactly one of
// these; description() is the text that callers log.
class HttpRequestError {
public:
    enum class Kind {
        urlConstruction,
        unsuccessfulStatusCode,
        noOrBadNetwork,
        noRequestMade,
        badRequest400,
        unauthorized,
        // Offered to callers; the HTTP client itself reports a pause as noRequestMade.
        requestsPaused,
        cancelled,
    };

    static HttpRequestError urlConstruction(std::string url);
    static HttpRequestError unsuccessfulStatusCode(int statusCode, std::string apiMessage);
    static HttpRequestError noOrBadNetwork(vontu::platform::UrlError error);
    static HttpRequestError noRequestMade(std::optional<vontu::platform::UrlError> error);
    static HttpRequestError badRequest400(std::string apiMessage);
    static HttpRequestError unauthorized();
    static HttpRequestError requestsPaused();
    static HttpRequestError cancelled();

    // The error for a transport failure: the network's own troubles are noOrBadNetwork, a
    // cancelled task is cancelled, anything else means the request never got through.
    static HttpRequestError fromTransportError(vontu::platform::UrlError error);

    Kind kind() const { return kind_; }
    // urlConstruction only; empty otherwise.
    const std::string& url() const { return url_; }
    // unsuccessfulStatusCode only; 0 otherwise.
    int statusCode() const { return statusCode_; }
    // unsuccessfulStatusCode and badRequest400 only; empty otherwise.
    const std::string& apiMessage() const { return apiMessage_; }
    // noOrBadNetwork (always present) and noRequestMade (maybe present).
    const std::optional<vontu::platform::UrlError>& underlyingError() const {
        return underlyingError_;
    }

    std::string description() const;
    std::string localizedDescription() const { return description(); }

    bool operator==(const HttpRequestError& other) const;

private:
    explicit HttpRequestError(Kind kind) : kind_(kind) {}

    Kind kind_;
    std::string url_;
    int statusCode_ = 0;
    std::string apiMessage_;
    std::optional<vontu::platform::UrlError> underlyingError_;
};

}  // namespace tern
