#include "Common/config/TernApiEndpoint.hpp"

namespace tern {

TernApiEndpoint::TernApiEndpoint(Kind kind, std::string identifier, std::string deviceToken)
    : kind_(kind), identifier_(std::move(identifier)), deviceToken_(std::move(deviceToken)) {}

TernApiEndpoint TernApiEndpoint::identifyCustomer(std::string identifier) {
    return TernApiEndpoint(Kind::identifyCustomer, std::move(identifier), "");
}

TernApiEndpoint TernApiEndpoint::registerDevice(std::string identifier) {
    return TernApiEndpoint(Kind::registerDevice, std::move(identifier), "");
}

TernApiEndpoint TernApiEndpoint::deleteDevice(std::string identifier, std::string deviceToken) {
    return TernApiEndpoint(Kind::deleteDevice, std::move(identifier), std::move(deviceToken));
}

TernApiEndpoint TernApiEndpoint::trackCustomerEvent(std::string identifier) {
    return TernApiEndpoint(Kind::trackCustomerEvent, std::move(identifier), "");
}

TernApiEndpoint TernApiEndpoint::findAccountRegion() {
    return TernApiEndpoint(Kind::findAccountRegion, "", "");
}

TernApiEndpoint TernApiEndpoint::pushMetrics() { return TernApiEndpoint(Kind::pushMetrics, "", ""); }

TernApiEndpoint TernApiEndpoint::trackDeliveryMetrics() {
    return TernApiEndpoint(Kind::trackDeliveryMetrics, "", "");
}

std::string_view TernApiEndpoint::method() const {
    switch (kind_) {
        case Kind::identifyCustomer:
        case Kind::registerDevice: return "PUT";
        case Kind::deleteDevice: return "DELETE";
        case Kind::trackCustomerEvent:
        case Kind::pushMetrics:
        case Kind::trackDeliveryMetrics: return "POST";
        case Kind::findAccountRegion: return "GET";
    }
    return "GET";
}

std::string TernApiEndpoint::path() const {
    const std::string customer = "/api/v1/customers/" + percentEncodedPathSegment(identifier_);
    switch (kind_) {
        case Kind::identifyCustomer: return customer;
        case Kind::registerDevice: return customer + "/devices";
        case Kind::deleteDevice:
            return customer + "/devices/" + percentEncodedPathSegment(deviceToken_);
        case Kind::trackCustomerEvent: return customer + "/events";
        case Kind::findAccountRegion: return "/api/v1/accounts/region";
        case Kind::pushMetrics: return "/push/events";
        case Kind::trackDeliveryMetrics: return "/api/v1/tern_deliveries/events";
    }
    return "";
}

std::string TernApiEndpoint::getUrlString(const HttpBaseUrls& baseUrls) const {
    std::string base = baseUrls.trackingApi;
    if (base.empty()) return "";
    // Only one slash: a base that ends in two keeps one before the path.
    if (base.back() == '/') base.pop_back();
    return base + path();
}

std::optional<Url> TernApiEndpoint::getUrl(const HttpBaseUrls& baseUrls) const {
    return Url::parse(getUrlString(baseUrls));
}

std::string TernApiEndpoint::description() const {
    switch (kind_) {
        case Kind::identifyCustomer:
            return "identifyCustomer(identifier: \"" + identifier_ + "\")";
        case Kind::registerDevice: return "registerDevice(identifier: \"" + identifier_ + "\")";
        case Kind::deleteDevice:
            return "deleteDevice(identifier: \"" + identifier_ + "\", deviceToken: \"" +
                   deviceToken_ + "\")";
        case Kind::trackCustomerEvent:
            return "trackCustomerEvent(identifier: \"" + identifier_ + "\")";
        case Kind::findAccountRegion: return "findAccountRegion";
        case Kind::pushMetrics: return "pushMetrics";
        case Kind::trackDeliveryMetrics: return "trackDeliveryMetrics";
    }
    return "";
}

}  // namespace tern
