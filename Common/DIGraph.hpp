#pragma once

#include <any>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "Common/config/SdkConfig.hpp"
#include "Common/hooks/HooksManager.hpp"
#include "Common/http/HttpClient.hpp"
#include "Common/http/HttpRetryPolicy.hpp"
#include "Common/queue/Queue.hpp"
#include "Common/queue/QueueRequestManager.hpp"
#include "Common/queue/QueueRunRequest.hpp"
#include "Common/queue/QueueRunner.hpp"
#include "Common/queue/QueueStorage.hpp"
#include "Common/storage/FileStorage.hpp"
#include "Common/storage/GlobalDataStore.hpp"
#include "Common/storage/KeyValueStorage.hpp"
#include "Common/storage/ProfileStore.hpp"
#include "Common/util/DateUtil.hpp"
#include "Common/util/DeviceInfo.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "Common/util/LockManager.hpp"
#include "Common/util/Logger.hpp"
#include "Common/util/SimpleTimer.hpp"
#include "Common/util/SingleScheduleTimer.hpp"
#include "Common/util/ThreadUtil.hpp"
#include "Common/util/UIKitWrapper.hpp"
#include "Common/util/UserAgentUtil.hpp"

namespace tern {

// The library's service locator: one per site id. It knows the site id, the API key and the
// configuration, and builds every service on request from its other services.
//
// Most services are stateless and cheap, so each access builds a new one: no caller may rely on
// getting the same object twice. Four are shared for the life of the graph (until reset()): the
// hooks manager, the queue request manager, the lock manager and the single-schedule timer.
//
// Any service can be replaced with override(), which is how a host or a test injects its own
// implementation; services built afterwards receive the override as their collaborator.
//
// Type keys: a service is filed under typeKey<Interface>(), the demangled name of its interface
// (or class, for the class-typed services) as the compiler's type information gives it, e.g.
// "tern::Logger". The same function makes the key for overrides, lookups and shared services.
//
// Safe from any thread.
class DIGraph {
public:
    DIGraph(std::string siteId, std::string apiKey, SdkConfig sdkConfig);
    DIGraph(const DIGraph&) = delete;
    DIGraph& operator=(const DIGraph&) = delete;

    const std::string& siteId() const { return siteId_; }
    const std::string& apiKey() const { return apiKey_; }
    const SdkConfig& sdkConfig() const { return sdkConfig_; }

    template <typename Service>
    static const std::string& typeKey() {
        static const std::string key = demangledTypeName(typeid(Service));
        return key;
    }

    // Replaces the service Service with value, from now on (until reset()).
    template <typename Service>
    void override(std::shared_ptr<std::type_identity_t<Service>> value) {
        override(std::any(std::move(value)), typeKey<Service>());
    }
    // Stores any value under a type key, replacing what was there. Lookups use it only if it
    // holds exactly a std::shared_ptr to the key's service type; anything else is ignored and
    // the service is built as usual.
    void override(std::any value, const std::string& forType);

    // Forgets every override and every shared service; the next access builds anew.
    void reset();

    // --- Services built anew on each access
    std::shared_ptr<DeviceInfo> deviceInfo();
    std::shared_ptr<GlobalDataStore> globalDataStore();
    std::shared_ptr<ProfileStore> profileStore();
    std::shared_ptr<ThreadUtil> threadUtil();
    // A ConsoleLogger for this site id and configuration.
    std::shared_ptr<Logger> logger();
    std::shared_ptr<FileStorage> fileStorage();
    std::shared_ptr<JsonAdapter> jsonAdapter();
    std::shared_ptr<DateUtil> dateUtil();
    std::shared_ptr<UIKitWrapper> uIKitWrapper();
    std::shared_ptr<UserAgentUtil> userAgentUtil();
    // A UserDefaultsKeyValueStorage for this site id.
    std::shared_ptr<KeyValueStorage> keyValueStorage();

    // --- Services shared for the life of the graph
    std::shared_ptr<HooksManager> hooksManager();
    std::shared_ptr<LockManager> lockManager();
    std::shared_ptr<SingleScheduleTimer> singleScheduleTimer();

    // A TernHttpClient with a new transport, retry policy and retry timer.
    std::shared_ptr<HttpClient> httpClient();
    std::shared_ptr<HttpRetryPolicy> httpRetryPolicy();

    // --- The background queue
    // A TernQueue over this graph's storage, run request and the shared timer.
    std::shared_ptr<Queue> queue();
    // A TernQueueRunRequest with a new query runner; its runs go through the shared manager.
    std::shared_ptr<QueueRunRequest> queueRunRequest();
    // A TernQueueRunner offering tasks to this graph's hooks.
    std::shared_ptr<QueueRunner> queueRunner();
    // A FileManagerQueueStorage; all of them share the lock manager's queueStorage lock.
    std::shared_ptr<QueueStorage> queueStorage();
    // Shared, so that no two runs of the queue overlap in the process.
    std::shared_ptr<QueueRequestManager> queueRequestManager();

private:
    static std::string demangledTypeName(const std::type_info& type);

    // The override of Service, if one of the right type is registered.
    template <typename Service>
    std::shared_ptr<Service> overridden() {
        std::lock_guard guard(mutex_);
        return stored<Service>(overrides_);
    }

    template <typename Service, typename Build>
    std::shared_ptr<Service> fresh(Build build) {
        if (auto replacement = overridden<Service>()) return replacement;
        return build();
    }

    // Each shared service has its own access label ("DIGraph_HooksManager_singleton_access" and
    // so on) for a serial queue made anew on every access; such queues keep each access whole
    // but do not serialise two threads against each other. One mutex around the maps is the
    // race-free equivalent. It is not held while the service is built, because building asks
    // the graph for other services; if two threads build at the same moment, the first to store
    // wins and both return its object.
    template <typename Service, typename Build>
    std::shared_ptr<Service> shared(Build build) {
        {
            std::lock_guard guard(mutex_);
            if (auto replacement = stored<Service>(overrides_)) return replacement;
            if (auto existing = stored<Service>(singletons_)) return existing;
        }
        std::shared_ptr<Service> built = build();
        std::lock_guard guard(mutex_);
        if (auto existing = stored<Service>(singletons_)) return existing;
        singletons_[typeKey<Service>()] = built;
        return built;
    }

    template <typename Service>
    static std::shared_ptr<Service> stored(const std::map<std::string, std::any>& entries) {
        auto entry = entries.find(typeKey<Service>());
        if (entry == entries.end()) return nullptr;
        const auto* value = std::any_cast<std::shared_ptr<Service>>(&entry->second);
        return value != nullptr ? *value : nullptr;
    }

    std::shared_ptr<SimpleTimer> newSimpleTimer();

    const std::string siteId_;
    const std::string apiKey_;
    const SdkConfig sdkConfig_;

    std::mutex mutex_;
    std::map<std::string, std::any> overrides_;
    std::map<std::string, std::any> singletons_;
};

}  // namespace tern
