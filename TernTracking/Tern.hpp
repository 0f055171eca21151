#pragma once

// The tracking module's facade.
//
// Files of this part of the module:
//   Tern, TernInstance, TernImplementation, TernError, SdkInitializedUtil(+Impl),
//   ModuleTopLevelObject, DeviceAttributesProvider, SdkDeviceAttributesProvider,
//   DictionaryMerge (the merge of default and custom device attributes), EventType.
// Queue task payloads, one header each (what TrackingQueueRunner decodes, by task type):
//   "identifyProfile"   IdentifyProfileQueueTaskData.hpp
//   "trackEvent"        TrackEventQueueTaskData.hpp
//   "registerPushToken" RegisterPushNotificationQueueTaskData.hpp
//   "deletePushToken"   DeletePushNotificationQueueTaskData.hpp
//   "trackPushMetric"   MetricRequest.hpp (also the request body, re-encoded)
// Request bodies held inside those payloads as JSON text: TrackRequestBody.hpp,
//   RegisterDeviceRequest.hpp with Device.hpp.
// The task type strings are in TrackingTaskType.hpp.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Common/DIGraph.hpp"
#include "Common/config/NotificationServiceExtensionSdkConfig.hpp"
#include "Common/config/Region.hpp"
#include "Common/config/SdkConfig.hpp"
#include "Common/util/Atomic.hpp"
#include "TernTracking/TernInstance.hpp"

namespace tern {

class CleanupRepository;

// The single entry point of the tracking module, one per process (Tern::shared()).
//
// Before initialize() every call is a silent no-op: the attribute getters read as empty objects
// and siteId() as absent, and nothing is logged. After it, every call goes to the tracking
// implementation of the initialised site. initialize() may be called again, with other values;
// it then replaces graph and implementation, and later calls use the new ones.
//
// Any thread may call anything: each field is read and written whole, through its own Atomic.
class Tern final : public TernInstance, public std::enable_shared_from_this<Tern> {
    struct Passkey {};

public:
    using ConfigureSdk = std::function<void(SdkConfig&)>;
    using ConfigureExtensionSdk = std::function<void(NotificationServiceExtensionSdkConfig&)>;

    // The one shared object, created on first use with everything absent.
    static std::shared_ptr<Tern> shared();

    // Initialises the library in an app. configure may change the region's default
    // configuration in place before it is used. When it turns autoTrackScreenViews on, the
    // automatic screen-view tracking is installed.
    static void initialize(const std::string& siteId, const std::string& apiKey, Region region,
                           ConfigureSdk configure = {});
    // Initialises the library in a notification service extension, which may change only the
    // few options of NotificationServiceExtensionSdkConfig. Never tracks screen views.
    static void initialize(const std::string& siteId, const std::string& apiKey, Region region,
                           ConfigureExtensionSdk configure);

    explicit Tern(Passkey) {}

    // Absent until initialised.
    std::shared_ptr<TernInstance> implementation() const { return implementation_.wrappedValue(); }
    // Absent until initialised; its presence is what makes the library count as initialised.
    std::shared_ptr<DIGraph> diGraph() const { return diGraph_.wrappedValue(); }
    // Present from initialisation until its one clean-up run has finished.
    std::shared_ptr<CleanupRepository> cleanupRepository() const {
        return cleanupRepository_.wrappedValue();
    }

    using TernInstance::identify;
    using TernInstance::screen;
    using TernInstance::track;

    std::optional<std::string> siteId() override;
    void identify(const std::string& identifier, const AnyEncodable& body) override;
    void identify(const std::string& identifier, const nlohmann::json& body) override;
    void clearIdentify() override;
    void track(const std::string& name, const std::optional<AnyEncodable>& data) override;
    void track(const std::string& name, const nlohmann::json& data) override;
    void screen(const std::string& name, const AnyEncodable& data) override;
    void screen(const std::string& name, const nlohmann::json& data) override;
    nlohmann::json profileAttributes() override;
    void setProfileAttributes(const nlohmann::json& attributes) override;
    nlohmann::json deviceAttributes() override;
    void setDeviceAttributes(const nlohmann::json& attributes) override;
    void registerDeviceToken(const std::string& deviceToken) override;
    void deleteDeviceToken() override;
    void trackMetric(const std::string& deliveryID, Metric event,
                     const std::string& deviceToken) override;

private:
    // Graph, implementation and post-initialisation, shared by both forms.
    void commonInitialize(const std::string& siteId, const std::string& apiKey,
                          const SdkConfig& sdkConfig);
    void postInitialize(DIGraph& diGraph);

    // Runs call with the implementation when there is one.
    template <class Call>
    void forward(Call&& call) const {
        if (auto instance = implementation()) call(*instance);
    }

    Atomic<std::shared_ptr<TernInstance>> implementation_{nullptr};
    Atomic<std::shared_ptr<DIGraph>> diGraph_{nullptr};
    Atomic<std::shared_ptr<CleanupRepository>> cleanupRepository_{nullptr};
};

}  // namespace tern
