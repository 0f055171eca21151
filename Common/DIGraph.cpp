#include "Common/DIGraph.hpp"

#include <cstdlib>
#include <cxxabi.h>
#include <utility>

#include "Common/hooks/TernHooksManager.hpp"
#include "Common/http/TernAPIHttpRetryPolicy.hpp"
#include "Common/http/TernHttpClient.hpp"
#include "Common/http/UrlRequestHttpRequestRunner.hpp"
#include "Common/queue/FileManagerQueueStorage.hpp"
#include "Common/queue/TernQueue.hpp"
#include "Common/queue/TernQueueQueryRunner.hpp"
#include "Common/queue/TernQueueRequestManager.hpp"
#include "Common/queue/TernQueueRunRequest.hpp"
#include "Common/queue/TernQueueRunner.hpp"
#include "Common/storage/FileManagerFileStorage.hpp"
#include "Common/storage/TernGlobalDataStore.hpp"
#include "Common/storage/TernProfileStore.hpp"
#include "Common/storage/UserDefaultsKeyValueStorage.hpp"
#include "Common/util/ConsoleLogger.hpp"
#include "Common/util/DeviceMetricsGrabberImpl.hpp"
#include "Common/util/SdkDateUtil.hpp"
#include "Common/util/TernDeviceInfo.hpp"
#include "Common/util/TernSimpleTimer.hpp"
#include "Common/util/TernSingleScheduleTimer.hpp"
#include "Common/util/TernThreadUtil.hpp"
#include "Common/util/UIKitWrapperImpl.hpp"
#include "Common/util/UserAgentUtilImpl.hpp"

namespace tern {

DIGraph::DIGraph(std::string siteId, std::string apiKey, SdkConfig sdkConfig)
    : siteId_(std::move(siteId)), apiKey_(std::move(apiKey)), sdkConfig_(std::move(sdkConfig)) {}

std::string DIGraph::demangledTypeName(const std::type_info& type) {
    int status = 0;
    char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    std::string name = status == 0 && demangled != nullptr ? demangled : type.name();
    std::free(demangled);
    return name;
}

void DIGraph::override(std::any value, const std::string& forType) {
    std::lock_guard guard(mutex_);
    overrides_[forType] = std::move(value);
}

void DIGraph::reset() {
    std::lock_guard guard(mutex_);
    overrides_.clear();
    singletons_.clear();
}

std::shared_ptr<DeviceInfo> DIGraph::deviceInfo() {
    return fresh<DeviceInfo>([] { return std::make_shared<TernDeviceInfo>(); });
}

std::shared_ptr<GlobalDataStore> DIGraph::globalDataStore() {
    return fresh<GlobalDataStore>(
        [this] { return std::make_shared<TernGlobalDataStore>(keyValueStorage()); });
}

std::shared_ptr<ProfileStore> DIGraph::profileStore() {
    return fresh<ProfileStore>(
        [this] { return std::make_shared<TernProfileStore>(keyValueStorage()); });
}

std::shared_ptr<ThreadUtil> DIGraph::threadUtil() {
    return fresh<ThreadUtil>([] { return std::make_shared<TernThreadUtil>(); });
}

std::shared_ptr<Logger> DIGraph::logger() {
    return fresh<Logger>([this] { return std::make_shared<ConsoleLogger>(siteId_, sdkConfig_); });
}

std::shared_ptr<FileStorage> DIGraph::fileStorage() {
    return fresh<FileStorage>(
        [this] { return std::make_shared<FileManagerFileStorage>(siteId_, logger()); });
}

std::shared_ptr<JsonAdapter> DIGraph::jsonAdapter() {
    return fresh<JsonAdapter>([this] { return std::make_shared<JsonAdapter>(logger()); });
}

std::shared_ptr<DateUtil> DIGraph::dateUtil() {
    return fresh<DateUtil>([] { return std::make_shared<SdkDateUtil>(); });
}

std::shared_ptr<UIKitWrapper> DIGraph::uIKitWrapper() {
    return fresh<UIKitWrapper>([] { return std::make_shared<UIKitWrapperImpl>(); });
}

std::shared_ptr<UserAgentUtil> DIGraph::userAgentUtil() {
    return fresh<UserAgentUtil>(
        [this] { return std::make_shared<UserAgentUtilImpl>(deviceInfo(), sdkConfig_); });
}

std::shared_ptr<KeyValueStorage> DIGraph::keyValueStorage() {
    return fresh<KeyValueStorage>([this] {
        return std::make_shared<UserDefaultsKeyValueStorage>(
            siteId_, std::make_shared<DeviceMetricsGrabberImpl>());
    });
}

std::shared_ptr<HooksManager> DIGraph::hooksManager() {
    return shared<HooksManager>([] { return std::make_shared<TernHooksManager>(); });
}

std::shared_ptr<LockManager> DIGraph::lockManager() {
    return shared<LockManager>([] { return std::make_shared<LockManager>(); });
}

std::shared_ptr<SingleScheduleTimer> DIGraph::singleScheduleTimer() {
    return shared<SingleScheduleTimer>(
        [this] { return std::make_shared<TernSingleScheduleTimer>(newSimpleTimer()); });
}

std::shared_ptr<HttpClient> DIGraph::httpClient() {
    return fresh<HttpClient>([this] {
        return TernHttpClient::make(siteId_, apiKey_, HttpBaseUrls{sdkConfig_.trackingApiUrl},
                                    std::make_shared<UrlRequestHttpRequestRunner>(), jsonAdapter(),
                                    globalDataStore(), logger(), newSimpleTimer(),
                                    httpRetryPolicy(), userAgentUtil());
    });
}

std::shared_ptr<HttpRetryPolicy> DIGraph::httpRetryPolicy() {
    return fresh<HttpRetryPolicy>([] { return std::make_shared<TernAPIHttpRetryPolicy>(); });
}

std::shared_ptr<Queue> DIGraph::queue() {
    return fresh<Queue>([this] {
        return std::make_shared<TernQueue>(queueStorage(), siteId_, queueRunRequest(),
                                           jsonAdapter(), logger(), sdkConfig_,
                                           singleScheduleTimer(), dateUtil());
    });
}

std::shared_ptr<QueueRunRequest> DIGraph::queueRunRequest() {
    return fresh<QueueRunRequest>([this] {
        return std::make_shared<TernQueueRunRequest>(
            queueRunner(), queueStorage(), queueRequestManager(), logger(),
            std::make_shared<TernQueueQueryRunner>(logger()), threadUtil());
    });
}

std::shared_ptr<QueueRunner> DIGraph::queueRunner() {
    return fresh<QueueRunner>([this] {
        return std::make_shared<TernQueueRunner>(siteId_, jsonAdapter(), logger(), httpClient(),
                                                 sdkConfig_, hooksManager());
    });
}

std::shared_ptr<QueueStorage> DIGraph::queueStorage() {
    return fresh<QueueStorage>([this] {
        return std::make_shared<FileManagerQueueStorage>(fileStorage(), jsonAdapter(), siteId_,
                                                         sdkConfig_, logger(), dateUtil(),
                                                         lockManager());
    });
}

std::shared_ptr<QueueRequestManager> DIGraph::queueRequestManager() {
    return shared<QueueRequestManager>([] { return std::make_shared<TernQueueRequestManager>(); });
}

std::shared_ptr<SimpleTimer> DIGraph::newSimpleTimer() { return TernSimpleTimer::make(logger()); }

}  // namespace tern
