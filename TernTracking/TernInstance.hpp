#pragma once

#include <concepts>
#include <optional>
#include <string>
#include <type_traits>

#include <nlohmann/json.hpp>

#include "Common/http/EmptyRequestBody.hpp"
#include "Common/queue/Metric.hpp"
#include "Common/util/AnyEncodable.hpp"
#include "Common/util/JsonCoding.hpp"
#include "platform/AutoMockable.hpp"

namespace tern {

// A record the app encodes itself (its own struct with encode()), as opposed to a dictionary of
// JSON values. Values that nlohmann::json takes as they are go to the dictionary forms, so each
// call has exactly one form that fits.
template <class Body>
concept EncodableBody = JsonEncodable<Body> && !std::same_as<Body, AnyEncodable> &&
                        !std::convertible_to<const Body&, nlohmann::json>;

// The tracking interface that an app uses: profiles, events, screen views, device tokens and
// push metrics. Implemented by the Tern facade, which forwards every call once the library is
// initialised, and by TernImplementation, which does the work.
//
// Dictionaries are nlohmann::json objects of any values; see StringAnyEncodable for how values
// without a JSON form are treated. None of the operations fails: each either queues its request
// or logs why it did not.
class TernInstance : public vontu::AutoMockable {
public:
    // The site id of the initialised library; absent from the facade before initialisation.
    virtual std::optional<std::string> siteId() = 0;

    // Identifies the device's profile, with body as the profile's attributes.
    virtual void identify(const std::string& identifier, const AnyEncodable& body) = 0;
    // The same with a dictionary of attributes.
    virtual void identify(const std::string& identifier, const nlohmann::json& body) = 0;
    void identify(const std::string& identifier) {
        identify(identifier, AnyEncodable(EmptyRequestBody{}));
    }
    template <class Body>
    requires EncodableBody<Body>
    void identify(const std::string& identifier, const Body& body) {
        identify(identifier, AnyEncodable(body));
    }

    // Forgets the identified profile.
    virtual void clearIdentify() = 0;

    // Tracks the event name of the identified profile; absent data sends an empty object.
    virtual void track(const std::string& name, const std::optional<AnyEncodable>& data) = 0;
    virtual void track(const std::string& name, const nlohmann::json& data) = 0;
    void track(const std::string& name) { track(name, AnyEncodable(EmptyRequestBody{})); }
    template <class Body>
    requires EncodableBody<Body>
    void track(const std::string& name, const Body& data) {
        track(name, std::optional<AnyEncodable>(AnyEncodable(data)));
    }

    // Tracks a view of the screen name.
    virtual void screen(const std::string& name, const AnyEncodable& data) = 0;
    virtual void screen(const std::string& name, const nlohmann::json& data) = 0;
    void screen(const std::string& name) { screen(name, AnyEncodable(EmptyRequestBody{})); }
    template <class Body>
    requires EncodableBody<Body>
    void screen(const std::string& name, const Body& data) { screen(name, AnyEncodable(data)); }

    // Write-only in effect: reading yields an empty object; writing sends the attributes to the
    // identified profile.
    virtual nlohmann::json profileAttributes() = 0;
    virtual void setProfileAttributes(const nlohmann::json& attributes) = 0;
    // Write-only in effect: reading yields an empty object; writing registers the stored device
    // token again with the attributes as custom device attributes.
    virtual nlohmann::json deviceAttributes() = 0;
    virtual void setDeviceAttributes(const nlohmann::json& attributes) = 0;

    // deviceToken: the hex form of an APNs token, or an FCM token.
    virtual void registerDeviceToken(const std::string& deviceToken) = 0;
    virtual void deleteDeviceToken() = 0;

    virtual void trackMetric(const std::string& deliveryID, Metric event,
                             const std::string& deviceToken) = 0;
};

}  // namespace tern
