#pragma once

#include <optional>
#include <string>

#include "Common/http/HttpRequestError.hpp"

namespace tern {

// Why a tracking request could not be made or did not succeed.
class TernError {
public:
    enum class Kind { http, notInitialized, noCustomerIdentified };

    static TernError http(HttpRequestError error);
    static TernError notInitialized();
    static TernError noCustomerIdentified();

    Kind kind() const { return kind_; }
    // The HTTP failure of an http error; absent for the other kinds.
    const std::optional<HttpRequestError>& httpError() const { return httpError_; }

    // The HTTP error's own description, or the fixed text of the kind.
    std::string description() const;
    std::string localizedDescription() const { return description(); }

    bool operator==(const TernError&) const = default;

private:
    explicit TernError(Kind kind, std::optional<HttpRequestError> httpError = std::nullopt)
        : kind_(kind), httpError_(std::move(httpError)) {}

    Kind kind_;
    std::optional<HttpRequestError> httpError_;
};

}  // namespace tern
