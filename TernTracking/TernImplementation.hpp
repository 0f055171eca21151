#pragma once

#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Common/DIGraph.hpp"
#include "TernTracking/DeviceAttributesProvider.hpp"
#include "TernTracking/EventType.hpp"
#include "TernTracking/TernInstance.hpp"

namespace tern {

class Queue;

// The tracking module's work behind Tern: every call becomes a background-queue task that the
// tracking queue runner sends later, and the identified profile on the device (ProfileStore) is
// kept in step. The queue's groups keep the tasks in order: events and token registrations of a
// profile wait for its identify, a token deletion waits for the registration it undoes.
//
// Holds only the services it took from the graph at construction; each operation runs on the
// caller's thread, except the end of a token registration, which runs when the device
// attributes arrive.
class TernImplementation final : public TernInstance,
                                 public std::enable_shared_from_this<TernImplementation> {
public:
    // The services of diGraph, with the SDK's own device-attributes provider.
    TernImplementation(std::string siteId, DIGraph& diGraph);
    // The same with another device-attributes provider.
    TernImplementation(std::string siteId, DIGraph& diGraph,
                       std::shared_ptr<DeviceAttributesProvider> deviceAttributesProvider);

    using TernInstance::identify;
    using TernInstance::screen;
    using TernInstance::track;

    std::optional<std::string> siteId() override { return siteId_; }
    void identify(const std::string& identifier, const AnyEncodable& body) override;
    void identify(const std::string& identifier, const nlohmann::json& body) override;
    void clearIdentify() override;
    void track(const std::string& name, const std::optional<AnyEncodable>& data) override;
    void track(const std::string& name, const nlohmann::json& data) override;
    void screen(const std::string& name, const AnyEncodable& data) override;
    void screen(const std::string& name, const nlohmann::json& data) override;
    nlohmann::json profileAttributes() override { return nlohmann::json::object(); }
    void setProfileAttributes(const nlohmann::json& attributes) override;
    nlohmann::json deviceAttributes() override { return nlohmann::json::object(); }
    void setDeviceAttributes(const nlohmann::json& attributes) override;
    void registerDeviceToken(const std::string& deviceToken) override;
    void deleteDeviceToken() override;
    void trackMetric(const std::string& deliveryID, Metric event,
                     const std::string& deviceToken) override;

private:
    // Registers deviceToken with the identified profile, with customAttributes over the default
    // device attributes. The token is stored on the device in any case.
    void registerDeviceToken(const std::string& deviceToken,
                             const nlohmann::json& customAttributes);
    // The last step of a registration, once the default attributes have arrived.
    void addRegisterDeviceTask(const std::string& deviceToken, const std::string& profile,
                               const std::string& platform, const nlohmann::json& attributes);

    // Queues an event of the identified profile; false when nothing was queued.
    bool trackEvent(EventType type, const std::string& name, const AnyEncodable& data);

    const std::string siteId_;
    const std::shared_ptr<Queue> backgroundQueue_;
    const std::shared_ptr<JsonAdapter> jsonAdapter_;
    const std::shared_ptr<Logger> logger_;
    const std::shared_ptr<ProfileStore> profileStore_;
    const std::shared_ptr<GlobalDataStore> globalDataStore_;
    const std::shared_ptr<HooksManager> hooks_;
    const std::shared_ptr<DeviceAttributesProvider> deviceAttributesProvider_;
    const std::shared_ptr<DeviceInfo> deviceInfo_;
    const std::shared_ptr<DateUtil> dateUtil_;
};

}  // namespace tern
