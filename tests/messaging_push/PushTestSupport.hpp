#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Common/DIGraph.hpp"
#include "Common/http/HttpClient.hpp"
#include "Common/queue/Queue.hpp"
#include "TernTracking/SdkInitializedUtil.hpp"
#include "TernTracking/Tern.hpp"
#include "platform/Notification.hpp"

namespace tern::testing {

using nlohmann::json;

inline constexpr const char* testSiteId = "5ca1ab1e0ddba11c0ffe";
inline constexpr const char* testApiKey = "0123456789abcdef0123";

// A complete 1x1 PNG: attachments are checked by their leading bytes.
inline std::string pngBytes() {
    static const unsigned char png[] = {
        0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x48,
        0x44, 0x52, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x08, 0x06, 0x00, 0x00,
        0x00, 0x1F, 0x15, 0xC4, 0x89, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x44, 0x41, 0x54, 0x78,
        0x9C, 0x63, 0x00, 0x01, 0x00, 0x00, 0x05, 0x00, 0x01, 0x0D, 0x0A, 0x2D, 0xB4, 0x00,
        0x00, 0x00, 0x00, 0x49, 0x45, 0x4E, 0x44, 0xAE, 0x42, 0x60, 0x82};
    return {std::begin(png), std::end(png)};
}

inline std::filesystem::path writePng(const std::filesystem::path& path) {
    std::ofstream(path, std::ios::binary) << pngBytes();
    return path;
}

// The user info of a Tern push: the delivery keys, and "TERN" when tern is given.
inline json ternUserInfo(std::optional<json> tern = std::nullopt) {
    json userInfo = {{"aps", {{"alert", "Half price today"}, {"mutable-content", 1}}},
                     {"TERN-Delivery-ID", "delivery-1"},
                     {"TERN-Delivery-Token", "device-token-1"}};
    if (tern) userInfo["TERN"] = *tern;
    return userInfo;
}

inline vontu::platform::NotificationRequest request(json userInfo,
                                                    std::string identifier = "request-1") {
    vontu::platform::NotificationRequest made;
    made.identifier = std::move(identifier);
    made.content.title = "Sale";
    made.content.body = "Half price today";
    made.content.userInfo = std::move(userInfo);
    return made;
}

// Collects the contents a handler is given and lets a test wait for them.
class ContentRecorder {
public:
    std::function<void(const vontu::platform::NotificationContent&)> handler() {
        return [this](const vontu::platform::NotificationContent& content) {
            std::lock_guard lock(mutex_);
            contents_.push_back(content);
            changed_.notify_all();
        };
    }
    // True once count contents have arrived; false after a generous deadline.
    bool waitFor(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(30),
                                 [&] { return contents_.size() >= count; });
    }
    std::vector<vontu::platform::NotificationContent> contents() const {
        std::lock_guard lock(mutex_);
        return contents_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<vontu::platform::NotificationContent> contents_;
};

// An HTTP client whose downloads the test completes by hand.
class ManualHttpClient final : public HttpClient {
public:
    void request(HttpRequestParams, RequestCompletion onComplete) override {
        onComplete(std::unexpected(HttpRequestError::noRequestMade(std::nullopt)));
    }
    void downloadFile(Url url, DownloadFileType, DownloadCompletion onComplete) override {
        std::lock_guard lock(mutex_);
        downloads_.push_back({url.absoluteString(), std::move(onComplete)});
    }
    void cancel(bool finishTasks) override {
        std::lock_guard lock(mutex_);
        cancels_.push_back(finishTasks);
    }

    std::vector<std::string> downloadedUrls() const {
        std::lock_guard lock(mutex_);
        std::vector<std::string> urls;
        for (const auto& download : downloads_) urls.push_back(download.url);
        return urls;
    }
    std::vector<bool> cancels() const {
        std::lock_guard lock(mutex_);
        return cancels_;
    }
    // Completes the index-th download with the file, or with none.
    void completeDownload(std::size_t index, std::optional<std::filesystem::path> file) {
        DownloadCompletion completion;
        {
            std::lock_guard lock(mutex_);
            completion = downloads_.at(index).completion;
        }
        completion(std::move(file));
    }

private:
    struct Download {
        std::string url;
        DownloadCompletion completion;
    };
    mutable std::mutex mutex_;
    std::vector<Download> downloads_;
    std::vector<bool> cancels_;
};

// A queue that only counts its runs; each run ends at once, on the caller's thread.
class CountingQueue final : public Queue {
public:
    QueueAddResult addTrackInAppDeliveryTask(const std::string&, InAppMetric) override {
        return {};
    }
    QueueAddResult addTask(const std::string&, const AnyEncodable&,
                           const std::optional<QueueTaskGroup>&,
                           const std::optional<std::vector<QueueTaskGroup>>&) override {
        return {};
    }
    void run(Completion onComplete) override {
        {
            std::lock_guard lock(mutex_);
            ++runs_;
        }
        onComplete();
    }
    void deleteExpiredTasks() override {}

    int runs() const {
        std::lock_guard lock(mutex_);
        return runs_;
    }

private:
    mutable std::mutex mutex_;
    int runs_ = 0;
};

// Tells the push module whatever the test decides: a graph of the test's own (or none, until
// the test sets one), and the process's Tern object for the tracking calls.
class StubSdkInitializedUtil final : public SdkInitializedUtil {
public:
    explicit StubSdkInitializedUtil(std::shared_ptr<DIGraph> diGraph) : diGraph_(std::move(diGraph)) {}

    void setDiGraph(std::shared_ptr<DIGraph> diGraph) {
        std::lock_guard lock(mutex_);
        diGraph_ = std::move(diGraph);
    }

    std::shared_ptr<Tern> tern() override { return Tern::shared(); }
    bool isInitlaized() override { return graph() != nullptr; }
    std::optional<PostInitializedData> postInitializedData() override {
        auto diGraph = graph();
        if (!diGraph) return std::nullopt;
        return PostInitializedData{diGraph->siteId(), diGraph};
    }

private:
    std::shared_ptr<DIGraph> graph() {
        std::lock_guard lock(mutex_);
        return diGraph_;
    }

    std::mutex mutex_;
    std::shared_ptr<DIGraph> diGraph_;
};

// Initialises the process's Tern object once, in the app form with the default queue settings:
// tasks are queued but no run starts before ten of them, so the tests read what was queued.
inline void initializeTernOnce() {
    static std::once_flag initialized;
    std::call_once(initialized, [] {
        Tern::initialize(testSiteId, testApiKey, Region::US, [](SdkConfig& config) {
            config.trackingApiUrl = "http://127.0.0.1:9";
        });
    });
}

// The push metrics queued so far under the current platform's state root, as their JSON data,
// oldest first.
inline std::vector<json> queuedPushMetrics() {
    std::vector<json> metrics;
    auto storage = Tern::shared()->diGraph()->queueStorage();
    for (const auto& entry : storage->getInventory()) {
        if (entry.taskType != "trackPushMetric") continue;
        if (auto task = storage->get(entry.taskPersistedId)) {
            metrics.push_back(json::parse(vontu::platform::toString(task->data), nullptr, false));
        }
    }
    return metrics;
}

}  // namespace tern::testing
