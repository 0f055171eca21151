#include "TernTracking/TernError.hpp"

namespace tern {

TernError TernError::http(HttpRequestError error) {
    return TernError(Kind::http, std::move(error));
}

TernError TernError::notInitialized() { return TernError(Kind::notInitialized); }

TernError TernError::noCustomerIdentified() { return TernError(Kind::noCustomerIdentified); }

std::string TernError::description() const {
    switch (kind_) {
        case Kind::http:
            return httpError_ ? httpError_->description() : std::string();
        case Kind::notInitialized:
            return "SDK has not been initialized yet. Check the docs about initializing the SDK.";
        case Kind::noCustomerIdentified:
            return "Customer has not yet been identified.";
    }
    return {};
}

}  // namespace tern
