#include "TernTracking/TernImplementation.hpp"

#include <utility>
#include <vector>

#include "Common/queue/Queue.hpp"
#include "Common/queue/QueueTaskGroup.hpp"
#include "Common/util/StringAnyEncodable.hpp"
#include "TernTracking/DeletePushNotificationQueueTaskData.hpp"
#include "TernTracking/Device.hpp"
#include "TernTracking/DictionaryMerge.hpp"
#include "TernTracking/IdentifyProfileQueueTaskData.hpp"
#include "TernTracking/MetricRequest.hpp"
#include "TernTracking/RegisterDeviceRequest.hpp"
#include "TernTracking/RegisterPushNotificationQueueTaskData.hpp"
#include "TernTracking/SdkDeviceAttributesProvider.hpp"
#include "TernTracking/TrackEventQueueTaskData.hpp"
#include "TernTracking/TrackRequestBody.hpp"
#include "TernTracking/TrackingTaskType.hpp"

namespace tern {

namespace {

std::string eventLabel(EventType type) {
    return type == EventType::screen ? "track screen view event" : "track event";
}

}  // namespace

TernImplementation::TernImplementation(std::string siteId, DIGraph& diGraph)
    : TernImplementation(std::move(siteId), diGraph,
                         std::make_shared<SdkDeviceAttributesProvider>(diGraph.sdkConfig(),
                                                                       diGraph.deviceInfo())) {}

TernImplementation::TernImplementation(
    std::string siteId, DIGraph& diGraph,
    std::shared_ptr<DeviceAttributesProvider> deviceAttributesProvider)
    : siteId_(std::move(siteId)),
      backgroundQueue_(diGraph.queue()),
      jsonAdapter_(diGraph.jsonAdapter()),
      logger_(diGraph.logger()),
      profileStore_(diGraph.profileStore()),
      globalDataStore_(diGraph.globalDataStore()),
      hooks_(diGraph.hooksManager()),
      deviceAttributesProvider_(std::move(deviceAttributesProvider)),
      deviceInfo_(diGraph.deviceInfo()),
      dateUtil_(diGraph.dateUtil()) {}

// --- Profiles --------------------------------------------------------------------------------

void TernImplementation::identify(const std::string& identifier, const nlohmann::json& body) {
    identify(identifier, AnyEncodable(StringAnyEncodable(body)));
}

void TernImplementation::identify(const std::string& identifier, const AnyEncodable& body) {
    logger_->info("identify profile " + identifier);

    const std::optional<std::string> currentIdentifier = profileStore_->identifier();
    const bool isFirstTime = !currentIdentifier.has_value();
    const bool isChanging = currentIdentifier.has_value() && *currentIdentifier != identifier;

    if (isChanging) {
        logger_->info("changing profile from id " + *currentIdentifier + " to " + identifier);
        logger_->debug(
            "deleting token from previously identified profile to prevent sending messages to "
            "it. It's assumed that for privacy and messaging relevance, you only want to send "
            "messages to devices that a profile is currently identifed with.");
        // The old profile is still stored, so the delete task names it.
        deleteDeviceToken();

        logger_->debug("running hooks changing profile from " + *currentIdentifier + " to " +
                       identifier);
        for (const auto& hook : hooks_->profileIdentifyHooks()) {
            hook->beforeIdentifiedProfileChange(*currentIdentifier, identifier);
        }
    }

    const std::optional<std::string> attributesJsonString = jsonAdapter_->toJsonString(body, false);
    logger_->debug("identify profile attributes " + attributesJsonString.value_or("none"));

    // Only a switch opens a group: the events and the token of the new profile must wait for
    // its identify, while the first identify of a device has no earlier profile to race with.
    std::optional<QueueTaskGroup> groupStart;
    if (isChanging) groupStart = QueueTaskGroup::identifiedProfile(identifier);
    const auto added = backgroundQueue_->addTask(
        std::string(TrackingTaskType::identifyProfile),
        AnyEncodable(IdentifyProfileQueueTaskData{identifier, attributesJsonString}), groupStart,
        std::nullopt);
    if (!added.success) {
        logger_->debug("failed to enqueue identify task");
        return;
    }

    logger_->debug("storing identifier on device storage " + identifier);
    profileStore_->setIdentifier(identifier);

    if (!isFirstTime && !isChanging) return;  // the same profile again: attributes only

    // After storing: a registration reads the stored profile.
    if (auto existingDeviceToken = globalDataStore_->pushDeviceToken()) {
        logger_->debug("registering existing device token to newly identified profile: " +
                       identifier);
        registerDeviceToken(*existingDeviceToken, nlohmann::json::object());
    }

    logger_->debug("running hooks profile identified " + identifier);
    for (const auto& hook : hooks_->profileIdentifyHooks()) hook->profileIdentified(identifier);
}

void TernImplementation::clearIdentify() {
    logger_->info("clearing identified profile");

    const std::optional<std::string> identifier = profileStore_->identifier();
    if (!identifier) return;

    logger_->debug("delete device token from " + *identifier +
                   " to stop sending push to a profile that is no longer identified");
    deleteDeviceToken();

    logger_->debug("running hooks: profile stopped being identified " + *identifier);
    for (const auto& hook : hooks_->profileIdentifyHooks()) {
        hook->beforeProfileStoppedBeingIdentified(*identifier);
    }

    logger_->debug("deleting profile info from device storage");
    profileStore_->setIdentifier(std::nullopt);
}

void TernImplementation::setProfileAttributes(const nlohmann::json& attributes) {
    const std::optional<std::string> identifier = profileStore_->identifier();
    if (!identifier) return;
    identify(*identifier, AnyEncodable(StringAnyEncodable(attributes)));
}

// --- Events --------------------------------------------------------------------------------

void TernImplementation::track(const std::string& name, const std::optional<AnyEncodable>& data) {
    trackEvent(EventType::event, name, data.value_or(AnyEncodable(EmptyRequestBody{})));
}

void TernImplementation::track(const std::string& name, const nlohmann::json& data) {
    trackEvent(EventType::event, name, AnyEncodable(StringAnyEncodable(data)));
}

void TernImplementation::screen(const std::string& name, const AnyEncodable& data) {
    if (!trackEvent(EventType::screen, name, data)) return;
    for (const auto& hook : hooks_->screenViewHooks()) hook->screenViewed(name);
}

void TernImplementation::screen(const std::string& name, const nlohmann::json& data) {
    screen(name, AnyEncodable(StringAnyEncodable(data)));
}

bool TernImplementation::trackEvent(EventType type, const std::string& name,
                                    const AnyEncodable& data) {
    const std::string label = eventLabel(type);
    logger_->info(label + " " + name);

    const std::optional<std::string> identifier = profileStore_->identifier();
    if (!identifier) {
        logger_->info("ignoring " + label + " " + name +
                      " because no profile currently identified");
        return false;
    }

    const TrackRequestBody body{type, name, data, dateUtil_->now()};
    const std::optional<std::string> jsonText = jsonAdapter_->toJsonString(body, false);
    if (!jsonText) {
        logger_->error("attributes provided for " + label + " " + name + " failed to JSON encode.");
        return false;
    }
    logger_->debug(label + " attributes " + *jsonText);

    // Never sent before the identify of its profile.
    backgroundQueue_->addTask(std::string(TrackingTaskType::trackEvent),
                              AnyEncodable(TrackEventQueueTaskData{*identifier, *jsonText}),
                              std::nullopt,
                              std::vector{QueueTaskGroup::identifiedProfile(*identifier)});
    return true;
}

// --- Device tokens -------------------------------------------------------------------------

void TernImplementation::registerDeviceToken(const std::string& deviceToken) {
    registerDeviceToken(deviceToken, nlohmann::json::object());
}

void TernImplementation::setDeviceAttributes(const nlohmann::json& attributes) {
    const std::optional<std::string> deviceToken = globalDataStore_->pushDeviceToken();
    if (!deviceToken) return;
    registerDeviceToken(*deviceToken, attributes);
}

void TernImplementation::registerDeviceToken(const std::string& deviceToken,
                                             const nlohmann::json& customAttributes) {
    logger_->info("registering device token " + deviceToken);
    logger_->debug("storing device token to device storage " + deviceToken);
    // Kept on the device whatever happens below: a later identify registers it.
    globalDataStore_->setPushDeviceToken(deviceToken);

    const std::optional<std::string> profile = profileStore_->identifier();
    if (!profile) {
        logger_->info("no profile identified, so not registering device token to a profile");
        return;
    }
    const std::optional<std::string> platform = deviceInfo_->osName();
    if (!platform) {
        logger_->info(
            "SDK being executed from unsupported OS. Ignoring request to register push token.");
        return;
    }

    // The attributes may arrive later, on another thread; this object stays alive until then.
    deviceAttributesProvider_->getDefaultDeviceAttributes(
        [self = shared_from_this(), deviceToken, profile = *profile, platform = *platform,
         customAttributes](nlohmann::json defaultAttributes) {
            self->addRegisterDeviceTask(deviceToken, profile, platform,
                                        mergeWith(defaultAttributes, customAttributes));
        });
}

void TernImplementation::addRegisterDeviceTask(const std::string& deviceToken,
                                               const std::string& profile,
                                               const std::string& platform,
                                               const nlohmann::json& attributes) {
    const RegisterDeviceRequest request{
        Device{deviceToken, platform, dateUtil_->now(), StringAnyEncodable(attributes)}};
    const std::optional<std::string> jsonText = jsonAdapter_->toJsonString(request, false);
    if (!jsonText) return;

    backgroundQueue_->addTask(
        std::string(TrackingTaskType::registerPushToken),
        AnyEncodable(RegisterPushNotificationQueueTaskData{profile, *jsonText}),
        QueueTaskGroup::registeredPushToken(deviceToken),
        std::vector{QueueTaskGroup::identifiedProfile(profile)});
}

void TernImplementation::deleteDeviceToken() {
    logger_->info("deleting device token request made");

    const std::optional<std::string> deviceToken = globalDataStore_->pushDeviceToken();
    if (!deviceToken) {
        logger_->info("no device token exists so ignoring request to delete");
        return;
    }
    const std::optional<std::string> profile = profileStore_->identifier();
    if (!profile) {
        logger_->info("no profile identified so not removing device token from profile");
        return;
    }

    // Never overtakes the registration or the identify that it undoes. The token stays on the
    // device.
    backgroundQueue_->addTask(
        std::string(TrackingTaskType::deletePushToken),
        AnyEncodable(DeletePushNotificationQueueTaskData{*profile, *deviceToken}), std::nullopt,
        std::vector{QueueTaskGroup::registeredPushToken(*deviceToken),
                    QueueTaskGroup::identifiedProfile(*profile)});
}

// --- Metrics -------------------------------------------------------------------------------

void TernImplementation::trackMetric(const std::string& deliveryID, Metric event,
                                     const std::string& deviceToken) {
    logger_->info("push metric " + std::string(rawValue(event)));
    logger_->debug("delivery id " + deliveryID + " device token " + deviceToken);

    // Needs neither an identified profile nor a registered token, so no groups.
    backgroundQueue_->addTask(
        std::string(TrackingTaskType::trackPushMetric),
        AnyEncodable(MetricRequest{deliveryID, event, deviceToken, dateUtil_->now()}), std::nullopt,
        std::nullopt);
}

}  // namespace tern
