#include "TernTracking/Tern.hpp"

#include <mutex>
#include <utility>

#include "Common/hooks/HookModule.hpp"
#include "Common/util/SdkVersion.hpp"
#include "TernTracking/AutomaticScreenViews.hpp"
#include "TernTracking/CleanupRepository.hpp"
#include "TernTracking/SdkInitializedUtilImpl.hpp"
#include "TernTracking/TernCleanupRepository.hpp"
#include "TernTracking/TernImplementation.hpp"
#include "TernTracking/TrackingModuleHookProvider.hpp"

namespace tern {

namespace {

// The holder of the shared object. Never destroyed: jobs on other threads and the main loop may
// still reach the facade while the process exits.
Atomic<std::shared_ptr<Tern>>& sharedHolder() {
    static auto* holder = new Atomic<std::shared_ptr<Tern>>(nullptr);
    return *holder;
}

// One initialisation at a time, so that the graph and the implementation that the shared object
// ends up with come from the same call.
std::mutex& initializationMutex() {
    static std::mutex mutex;
    return mutex;
}

}  // namespace

std::shared_ptr<Tern> Tern::shared() {
    static std::once_flag created;
    std::call_once(created,
                   [] { sharedHolder().setWrappedValue(std::make_shared<Tern>(Passkey{})); });
    return sharedHolder().wrappedValue();
}

void Tern::initialize(const std::string& siteId, const std::string& apiKey, Region region,
                      ConfigureSdk configure) {
    SdkConfig sdkConfig = SdkConfig::Factory::create(region);
    if (configure) configure(sdkConfig);
    shared()->commonInitialize(siteId, apiKey, sdkConfig);
    if (sdkConfig.autoTrackScreenViews) installAutomaticScreenViewTracking();
}

void Tern::initialize(const std::string& siteId, const std::string& apiKey, Region region,
                      ConfigureExtensionSdk configure) {
    NotificationServiceExtensionSdkConfig extensionConfig =
        NotificationServiceExtensionSdkConfig::Factory::create(region);
    if (configure) configure(extensionConfig);
    shared()->commonInitialize(siteId, apiKey, extensionConfig.toSdkConfig());
}

void Tern::commonInitialize(const std::string& siteId, const std::string& apiKey,
                            const SdkConfig& sdkConfig) {
    std::lock_guard guard(initializationMutex());
    auto newGraph = std::make_shared<DIGraph>(siteId, apiKey, sdkConfig);
    diGraph_.setWrappedValue(newGraph);
    implementation_.setWrappedValue(std::make_shared<TernImplementation>(siteId, *newGraph));
    postInitialize(*newGraph);
}

void Tern::postInitialize(DIGraph& diGraph) {
    auto hooksManager = diGraph.hooksManager();
    auto threadUtil = diGraph.threadUtil();
    auto logger = diGraph.logger();

    cleanupRepository_.setWrappedValue(std::make_shared<TernCleanupRepository>(diGraph));

    hooksManager->add(HookModule::tracking, std::make_shared<TrackingModuleHookProvider>(
                                                std::make_shared<SdkInitializedUtilImpl>()));

    threadUtil->runBackground([weakSelf = weak_from_this()] {
        auto self = weakSelf.lock();
        if (!self) return;
        if (auto repository = self->cleanupRepository()) repository->cleanup();
        self->cleanupRepository_.setWrappedValue(nullptr);
    });

    logger->info("Tern SDK " + std::string(SdkVersion::version) +
                 " initialized and ready to use for site id: " + diGraph.siteId());
}

// --- Forwarding ------------------------------------------------------------------------------

std::optional<std::string> Tern::siteId() {
    auto instance = implementation();
    return instance ? instance->siteId() : std::nullopt;
}

void Tern::identify(const std::string& identifier, const AnyEncodable& body) {
    forward([&](TernInstance& instance) { instance.identify(identifier, body); });
}

void Tern::identify(const std::string& identifier, const nlohmann::json& body) {
    forward([&](TernInstance& instance) { instance.identify(identifier, body); });
}

void Tern::clearIdentify() {
    forward([](TernInstance& instance) { instance.clearIdentify(); });
}

void Tern::track(const std::string& name, const std::optional<AnyEncodable>& data) {
    forward([&](TernInstance& instance) { instance.track(name, data); });
}

void Tern::track(const std::string& name, const nlohmann::json& data) {
    forward([&](TernInstance& instance) { instance.track(name, data); });
}

void Tern::screen(const std::string& name, const AnyEncodable& data) {
    forward([&](TernInstance& instance) { instance.screen(name, data); });
}

void Tern::screen(const std::string& name, const nlohmann::json& data) {
    forward([&](TernInstance& instance) { instance.screen(name, data); });
}

nlohmann::json Tern::profileAttributes() {
    auto instance = implementation();
    return instance ? instance->profileAttributes() : nlohmann::json::object();
}

void Tern::setProfileAttributes(const nlohmann::json& attributes) {
    forward([&](TernInstance& instance) { instance.setProfileAttributes(attributes); });
}

nlohmann::json Tern::deviceAttributes() {
    auto instance = implementation();
    return instance ? instance->deviceAttributes() : nlohmann::json::object();
}

void Tern::setDeviceAttributes(const nlohmann::json& attributes) {
    forward([&](TernInstance& instance) { instance.setDeviceAttributes(attributes); });
}

void Tern::registerDeviceToken(const std::string& deviceToken) {
    forward([&](TernInstance& instance) { instance.registerDeviceToken(deviceToken); });
}

void Tern::deleteDeviceToken() {
    forward([](TernInstance& instance) { instance.deleteDeviceToken(); });
}

void Tern::trackMetric(const std::string& deliveryID, Metric event,
                       const std::string& deviceToken) {
    forward([&](TernInstance& instance) { instance.trackMetric(deliveryID, event, deviceToken); });
}

}  // namespace tern
