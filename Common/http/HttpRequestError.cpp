#include "Common/http/HttpRequestError.hpp"

#include <utility>

namespace tern {

using vontu::platform::UrlError;

HttpRequestError HttpRequestError::urlConstruction(std::string url) {
    HttpRequestError error(Kind::urlConstruction);
    error.url_ = std::move(url);
    return error;
}

HttpRequestError HttpRequestError::unsuccessfulStatusCode(int statusCode, std::string apiMessage) {
    HttpRequestError error(Kind::unsuccessfulStatusCode);
    error.statusCode_ = statusCode;
    error.apiMessage_ = std::move(apiMessage);
    return error;
}

HttpRequestError HttpRequestError::noOrBadNetwork(UrlError underlying) {
    HttpRequestError error(Kind::noOrBadNetwork);
    error.underlyingError_ = std::move(underlying);
    return error;
}

HttpRequestError HttpRequestError::noRequestMade(std::optional<UrlError> underlying) {
    HttpRequestError error(Kind::noRequestMade);
    error.underlyingError_ = std::move(underlying);
    return error;
}

HttpRequestError HttpRequestError::badRequest400(std::string apiMessage) {
    HttpRequestError error(Kind::badRequest400);
    error.apiMessage_ = std::move(apiMessage);
    return error;
}

HttpRequestError HttpRequestError::unauthorized() { return HttpRequestError(Kind::unauthorized); }

HttpRequestError HttpRequestError::requestsPaused() {
    return HttpRequestError(Kind::requestsPaused);
}

HttpRequestError HttpRequestError::cancelled() { return HttpRequestError(Kind::cancelled); }

HttpRequestError HttpRequestError::fromTransportError(UrlError error) {
    switch (error.code) {
        case UrlError::Code::notConnectedToInternet:
        case UrlError::Code::networkConnectionLost:
        case UrlError::Code::timedOut:
            return noOrBadNetwork(std::move(error));
        case UrlError::Code::cancelled:
            return cancelled();
        default:
            return noRequestMade(std::move(error));
    }
}

std::string HttpRequestError::description() const {
    switch (kind_) {
        case Kind::urlConstruction:
            return "HTTP URL not a valid URL: " + url_;
        case Kind::unsuccessfulStatusCode:
            return "Response received, but status code = " + std::to_string(statusCode_) + ". " +
                   apiMessage_;
        case Kind::noOrBadNetwork:
            return "No Internet connection or bad network connection.";
        case Kind::noRequestMade:
            return underlyingError_ ? underlyingError_->localizedDescription
                                    : "No request was able to be made to server.";
        case Kind::badRequest400:
            return "HTTP request responded with 400 - " + apiMessage_;
        case Kind::unauthorized:
            return "HTTP request responded with 401. Configure the SDK with valid credentials.";
        case Kind::requestsPaused:
            return "HTTP request skipped. All HTTP requests are paused for the time being.";
        case Kind::cancelled:
            return "Request was cancelled";
    }
    return {};
}

bool HttpRequestError::operator==(const HttpRequestError& other) const {
    const auto sameUnderlying = [&] {
        if (underlyingError_.has_value() != other.underlyingError_.has_value()) return false;
        return !underlyingError_ ||
               (underlyingError_->code == other.underlyingError_->code &&
                underlyingError_->localizedDescription ==
                    other.underlyingError_->localizedDescription);
    };
    return kind_ == other.kind_ && url_ == other.url_ && statusCode_ == other.statusCode_ &&
           apiMessage_ == other.apiMessage_ && sameUnderlying();
}

}  // namespace tern
