#include "messaging_push/MessagingPushImplementation.hpp"

#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "Common/DIGraph.hpp"
#include "TernTracking/Tern.hpp"
#include "messaging_push/DeepLinkUtilImpl.hpp"
#include "messaging_push/PendingPushDeliveries.hpp"
#include "platform/Env.hpp"
#include "platform/NotificationJson.hpp"

namespace tern {

namespace {

using vontu::platform::NotificationContent;
using vontu::platform::NotificationRequest;
using vontu::platform::NotificationResponse;

constexpr const char* deliveryIdKey = "TERN-Delivery-ID";
constexpr const char* deliveryTokenKey = "TERN-Delivery-Token";
constexpr std::string_view fileUrlPrefix = "file://";

constexpr const char* queueRunLine =
    "running all background queue tasks and waiting until complete to prevent OS from killing "
    "notification service extension before all HTTP requests have been performed";

// What identifies a push sent through Tern: both keys at the top of the user info, as strings.
struct DeliveryKeys {
    std::string deliveryId;
    std::string deviceToken;
};

std::optional<DeliveryKeys> deliveryKeys(const nlohmann::json& userInfo) {
    if (!userInfo.is_object()) return std::nullopt;
    const auto deliveryId = userInfo.find(deliveryIdKey);
    const auto deviceToken = userInfo.find(deliveryTokenKey);
    if (deliveryId == userInfo.end() || !deliveryId->is_string()) return std::nullopt;
    if (deviceToken == userInfo.end() || !deviceToken->is_string()) return std::nullopt;
    return DeliveryKeys{deliveryId->get<std::string>(), deviceToken->get<std::string>()};
}

// JSON text for a log line; bytes that are not UTF-8 are replaced rather than refused.
std::string description(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string description(const NotificationContent& content) {
    return description(vontu::platform::toJson(content));
}

// Runs the whole background queue, then delivers the push: the system may end the extension as
// soon as it has the content, so every queued request must have been tried by then. Should the
// time run out first, the expiry warning delivers it (see PendingPushDeliveries).
void deliverAfterQueueRun(const std::shared_ptr<Logger>& logger,
                          const std::shared_ptr<Queue>& backgroundQueue,
                          const std::shared_ptr<PendingPushDeliveries::Delivery>& delivery) {
    logger->debug(queueRunLine);
    // The queue is kept until its run has ended: the caller may let go of it sooner.
    backgroundQueue->run([logger, backgroundQueue, delivery] {
        logger->debug("all background queue tasks done running.");
        logger->info("Tern push processing is done!");
        delivery->deliver();
    });
}

}  // namespace

MessagingPushImplementation::MessagingPushImplementation(
    DIGraph& diGraph, std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil)
    : MessagingPushImplementation(diGraph.siteId(), diGraph.logger(), diGraph.jsonAdapter(),
                                  diGraph.sdkConfig(), diGraph.queue(),
                                  std::move(sdkInitializedUtil),
                                  RichPushRequestHandler::shared(),
                                  PendingPushDeliveries::shared()) {}

MessagingPushImplementation::MessagingPushImplementation(
    std::string siteId, std::shared_ptr<Logger> logger, std::shared_ptr<JsonAdapter> jsonAdapter,
    SdkConfig sdkConfig, std::shared_ptr<Queue> backgroundQueue,
    std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil,
    RichPushRequestHandler& richPushRequestHandler, PendingPushDeliveries& pendingDeliveries)
    : siteId_(std::move(siteId)),
      logger_(std::move(logger)),
      jsonAdapter_(std::move(jsonAdapter)),
      sdkConfig_(std::move(sdkConfig)),
      backgroundQueue_(std::move(backgroundQueue)),
      sdkInitializedUtil_(std::move(sdkInitializedUtil)),
      richPushRequestHandler_(richPushRequestHandler),
      pendingDeliveries_(pendingDeliveries) {}

std::shared_ptr<TernInstance> MessagingPushImplementation::trackingImplementation() const {
    const auto tern = sdkInitializedUtil_->tern();
    return tern ? tern->implementation() : nullptr;
}

void MessagingPushImplementation::registerDeviceToken(const std::string& deviceToken) {
    if (const auto tracking = trackingImplementation()) tracking->registerDeviceToken(deviceToken);
}

void MessagingPushImplementation::deleteDeviceToken() {
    if (const auto tracking = trackingImplementation()) tracking->deleteDeviceToken();
}

void MessagingPushImplementation::trackMetric(const std::string& deliveryID, Metric event,
                                              const std::string& deviceToken) {
    if (const auto tracking = trackingImplementation()) {
        tracking->trackMetric(deliveryID, event, deviceToken);
    }
}

// --- Inside the notification service extension ----------------------------------------------

bool MessagingPushImplementation::didReceive(const NotificationRequest& request,
                                             ContentHandler contentHandler) {
    logger_->info(
        "did receive notification request. Checking if message was a push sent from Tern...");
    logger_->debug("notification request: " + description(request.content.userInfo));

    const auto keys = deliveryKeys(request.content.userInfo);
    if (!keys) {
        logger_->info("the notification was not sent by Tern. Ignoring notification request.");
        return false;
    }
    logger_->info("push was sent from Tern. Processing the request...");

    if (sdkConfig_.autoTrackPushEvents) {
        logger_->info("automatically tracking push metric: delivered");
        logger_->debug("parsed deliveryId " + keys->deliveryId + ", deviceToken: " +
                       keys->deviceToken);
        trackMetric(keys->deliveryId, Metric::delivered, keys->deviceToken);
    }

    auto delivery = pendingDeliveries_.add(request.content, std::move(contentHandler));
    const auto payload = TernParsedPushPayload::parse(request.content, jsonAdapter_);
    if (!payload) {
        logger_->info("the push was a simple push, not a rich push. Processing is complete.");
        deliverAfterQueueRun(logger_, backgroundQueue_, delivery);
        return true;
    }

    logger_->info(
        "Parsing notification request to display rich content such as images, deep links, etc.");
    logger_->debug("push content: " + payload->description());
    // The completion may come after this object is gone (from a download that outlives a
    // test's implementation), so it holds the services it needs itself.
    richPushRequestHandler_.startRequest(
        request, payload,
        [logger = logger_, backgroundQueue = backgroundQueue_,
         delivery](const NotificationContent& composed) {
            logger->debug("rich push was composed " + description(composed) + ".");
            delivery->improve(composed);
            deliverAfterQueueRun(logger, backgroundQueue, delivery);
        });
    return true;
}

void MessagingPushImplementation::serviceExtensionTimeWillExpire() {
    logger_->info("notification service time will expire. Stopping all notification requests early.");
    // Each rich push composes what it has now; then every push is handed its best content,
    // without waiting for the queue.
    richPushRequestHandler_.stopAll();
    pendingDeliveries_.deliverAll();
}

// --- In the app: the user's response to a notification --------------------------------------

std::shared_ptr<TernParsedPushPayload> MessagingPushImplementation::userNotificationCenter(
    const NotificationResponse& response) {
    if (sdkConfig_.autoTrackPushEvents) trackResponseMetric(response);

    auto payload = TernParsedPushPayload::parse(response.notification.content, jsonAdapter_);
    if (!payload) return nullptr;

    // The images were downloaded for this notification only; once it has been answered they
    // are of no more use. A file that cannot be removed is left behind. The attachments come
    // with the response, so only what can be one of those image files is removed: never a
    // directory, nor a path that is not absolute.
    auto& env = vontu::platform::Env::current();
    for (const auto& attachment : payload->ternAttachments()) {
        if (!attachment.url.starts_with(fileUrlPrefix)) continue;
        const std::filesystem::path file = attachment.url.substr(fileUrlPrefix.size());
        std::error_code ignored;
        if (!file.is_absolute() || std::filesystem::is_directory(file, ignored)) continue;
        (void)env.removeItem(file);
    }
    return payload;
}

bool MessagingPushImplementation::userNotificationCenter(
    const NotificationResponse& response, const ResponseCompletion& completionHandler) {
    const auto payload = userNotificationCenter(response);
    if (!payload) return false;

    if (response.actionIdentifier == vontu::platform::kNotificationDefaultActionIdentifier) {
        openDeepLink(*payload);
    }
    completionHandler();
    return true;
}

void MessagingPushImplementation::trackResponseMetric(const NotificationResponse& response) {
    const auto keys = deliveryKeys(response.notification.content.userInfo);
    if (!keys) return;
    // Tapping the notification opens it; any other action only shows it was delivered.
    const Metric metric =
        response.actionIdentifier == vontu::platform::kNotificationDefaultActionIdentifier
            ? Metric::opened
            : Metric::delivered;
    trackMetric(keys->deliveryId, metric, keys->deviceToken);
}

void MessagingPushImplementation::openDeepLink(const TernParsedPushPayload& payload) {
    const auto link = payload.deepLink();
    if (!link) return;
    const auto initialized = sdkInitializedUtil_->postInitializedData();
    if (!initialized) return;
    deepLinkUtil(*initialized->diGraph)->handleDeepLink(*link);
}

}  // namespace tern
