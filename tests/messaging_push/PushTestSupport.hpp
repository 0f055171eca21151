#pragma once

#include <atomic>
#include <fstream>
#include <mutex>

#include <nlohmann/json.hpp>

#include "Common/DIGraph.hpp"
#include "Common/http/HttpClient.hpp"
#include "Common/queue/Queue.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "TernTracking/SdkInitializedUtil.hpp"
#include "TernTracking/Tern.hpp"
#include "messaging_push/TernParsedPushPayload.hpp"
#include "platform/Notification.hpp"
#include "tests/common/RecordingLogger.hpp"

namespace tern::testing {

using nlohmann::json;

inline constexpr const char* testSiteId = "5ca1ab1e0ddba11c0ffe";
inline constexpr const char* testApiKey = "0123456789abcdef0123";
inline constexpr const char* imageUrl = "https://cdn.example.com/images/banner.png";

// Attachments are recognised by their leading bytes: the PNG signature is enough.
inline std::filesystem::path writePng(const std::filesystem::path& path) {
    std::ofstream(path, std::ios::binary) << "\x89PNG\r\n\x1a\n";
    return path;
}

// The user info of a Tern push: the delivery keys, and "TERN" when tern is given.
inline json ternUserInfo(std::optional<json> tern = std::nullopt) {
    json userInfo = {{"aps", {{"alert", "Half price today"}, {"mutable-content", 1}}},
                     {"TERN-Delivery-ID", "delivery-1"}, {"TERN-Delivery-Token", "device-token-1"}};
    if (tern) userInfo["TERN"] = *tern;
    return userInfo;
}
inline json richUserInfo(json push) { return ternUserInfo(json{{"push", std::move(push)}}); }

inline vontu::platform::NotificationRequest request(json userInfo, std::string identifier = "request-1") {
    vontu::platform::NotificationRequest made;
    made.identifier = std::move(identifier);
    made.content.title = "Sale";
    made.content.body = "Half price today";
    made.content.userInfo = std::move(userInfo);
    return made;
}

inline std::shared_ptr<TernParsedPushPayload> parse(const vontu::platform::NotificationContent& content) {
    static const auto adapter = std::make_shared<JsonAdapter>(std::make_shared<RecordingLogger>());
    return TernParsedPushPayload::parse(content, adapter);
}
inline std::shared_ptr<TernParsedPushPayload> parse(const json& userInfo) { return parse(request(userInfo).content); }

// Collects the contents a handler is given (the tests' handlers are all called on one thread).
struct ContentRecorder {
    std::vector<vontu::platform::NotificationContent> contents;
    auto handler() {
        return [this](const vontu::platform::NotificationContent& content) { contents.push_back(content); };
    }
};

// An HTTP client whose downloads the test completes by hand, from whichever thread started them.
struct ManualHttpClient final : HttpClient {
    void request(HttpRequestParams, RequestCompletion done) override { done(std::unexpected(HttpRequestError::noRequestMade(std::nullopt))); }
    void downloadFile(Url url, DownloadFileType, DownloadCompletion onComplete) override {
        std::lock_guard lock(mutex);
        urls.push_back(url.absoluteString());
        downloads.push_back(std::move(onComplete));
    }
    void cancel(bool finishTasks) override { std::lock_guard lock(mutex); cancels.push_back(finishTasks); }
    std::mutex mutex;
    std::vector<std::string> urls;
    std::vector<DownloadCompletion> downloads;  // called with the file, or with none
    std::vector<bool> cancels;
};

// A queue that only counts its runs; each run ends at once, on the caller's thread, unless runs
// are held (as with a tracking API that never answers): then they end when the test says.
struct CountingQueue final : Queue {
    QueueAddResult addTrackInAppDeliveryTask(const std::string&, InAppMetric) override { return {}; }
    QueueAddResult addTask(const std::string&, const AnyEncodable&, const std::optional<QueueTaskGroup>&,
                           const std::optional<std::vector<QueueTaskGroup>>&) override { return {}; }
    void run(Completion onComplete) override {
        ++runs;
        if (holdRuns) {
            held.push_back(std::move(onComplete));
        } else {
            onComplete();
        }
    }
    void deleteExpiredTasks() override {}
    std::atomic<int> runs = 0;
    bool holdRuns = false;
    std::vector<Completion> held;
};

// Gives the push module the test's own graph (or none), and the process's Tern object.
struct StubSdkInitializedUtil final : SdkInitializedUtil {
    explicit StubSdkInitializedUtil(std::shared_ptr<DIGraph> graph) : diGraph(std::move(graph)) {}
    std::shared_ptr<Tern> tern() override { return Tern::shared(); }
    bool isInitlaized() override { return diGraph != nullptr; }
    std::optional<PostInitializedData> postInitializedData() override {
        return diGraph ? std::optional(PostInitializedData{diGraph->siteId(), diGraph}) : std::nullopt;
    }
    const std::shared_ptr<DIGraph> diGraph;
};

// Initialises the process's Tern object once with the default queue settings: no run starts
// before ten tasks are queued, so the tests read what was queued.
inline void initializeTernOnce() {
    static std::once_flag initialized;
    std::call_once(initialized, [] {
        Tern::initialize(testSiteId, testApiKey, Region::US, [](SdkConfig& config) { config.trackingApiUrl = "http://127.0.0.1:9"; });
    });
}

// The push metrics queued under the current state root, as their JSON data.
inline std::vector<json> queuedPushMetrics() {
    std::vector<json> metrics;
    auto storage = Tern::shared()->diGraph()->queueStorage();
    for (const auto& entry : storage->getInventory()) {
        auto task = entry.taskType == "trackPushMetric" ? storage->get(entry.taskPersistedId) : std::nullopt;
        if (task) metrics.push_back(json::parse(vontu::platform::toString(task->data), nullptr, false));
    }
    return metrics;
}

}  // namespace tern::testing
