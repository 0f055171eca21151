#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Common/config/HttpBaseUrls.hpp"
#include "Common/util/Url.hpp"

namespace tern {

// One call of the Tern tracking API. Identifiers and tokens go into the path percent-encoded,
// each as exactly one segment: whatever a profile is called ("user#1", "a/b", "..", "José"),
// its requests reach that profile's resources and no other endpoint.
class TernApiEndpoint {
public:
    enum class Kind {
        identifyCustomer,
        registerDevice,
        deleteDevice,
        trackCustomerEvent,
        findAccountRegion,
        pushMetrics,
        trackDeliveryMetrics,
    };

    static TernApiEndpoint identifyCustomer(std::string identifier);
    static TernApiEndpoint registerDevice(std::string identifier);
    static TernApiEndpoint deleteDevice(std::string identifier, std::string deviceToken);
    static TernApiEndpoint trackCustomerEvent(std::string identifier);
    static TernApiEndpoint findAccountRegion();
    static TernApiEndpoint pushMetrics();
    static TernApiEndpoint trackDeliveryMetrics();

    Kind kind() const { return kind_; }
    // Empty for the cases without an identifier.
    const std::string& identifier() const { return identifier_; }
    // Empty except for deleteDevice.
    const std::string& deviceToken() const { return deviceToken_; }

    // "PUT", "DELETE", "POST" or "GET".
    std::string_view method() const;
    // "/api/v1/customers/<identifier>" and so on, identifier and token percent-encoded.
    std::string path() const;

    // The base URL with at most one trailing "/" removed, then the path; "" for an empty base.
    std::string getUrlString(const HttpBaseUrls& baseUrls) const;
    // getUrlString() parsed as a URL; absent when it does not parse (the empty string included).
    std::optional<Url> getUrl(const HttpBaseUrls& baseUrls) const;

    // "identifyCustomer(identifier: \"abc\")", "findAccountRegion".
    std::string description() const;
    bool operator==(const TernApiEndpoint&) const = default;

private:
    TernApiEndpoint(Kind kind, std::string identifier, std::string deviceToken);

    Kind kind_;
    std::string identifier_;
    std::string deviceToken_;
};

}  // namespace tern
