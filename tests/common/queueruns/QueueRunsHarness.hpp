#pragma once

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Common/DIGraph.hpp"
#include "Common/hooks/ModuleHookProvider.hpp"
#include "Common/queue/QueueTaskGroup.hpp"
#include "Common/queue/TernQueue.hpp"
#include "Common/queue/TrackDeliveryEventRequestBody.hpp"
#include "Common/util/AnyEncodable.hpp"
#include "Common/util/DateUtil.hpp"
#include "Common/util/TernThreadUtil.hpp"
#include "platform/Env.hpp"
#include "tests/support/LoopbackServer.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern::testing {

using namespace std::chrono_literals;

inline constexpr auto generousDeadline = 30s;
inline constexpr const char* siteId = "site1";
inline constexpr const char* apiKey = "key1";
// What the library's log lines start with for siteId.
inline const std::string logPrefix = std::string("(siteid:") + siteId + ") ";

// --- The platform -----------------------------------------------------------------------------

// A real LinuxEnv over a fresh state root with its main loop running; every system-log line of
// the library is kept (without the site prefix) and can be waited for.
struct RealHost {
    vontu::testing::TestEnv host;
};

class LogCapturingEnv : private RealHost, public vontu::platform::EnvWrapper {
public:
    LogCapturingEnv() : EnvWrapper(host.env()) { vontu::platform::Env::setCurrent(this); }
    ~LogCapturingEnv() override {
        vontu::platform::Env::setCurrent(&host.env());
        // A line being written from the main loop's thread finishes before the lines go.
        std::lock_guard guard(mutex_);
    }

    void writeLog(const std::string&, const std::string&, vontu::platform::LogType,
                  const std::string& message) override {
        std::lock_guard guard(mutex_);
        lines_.push_back(message.starts_with(logPrefix) ? message.substr(logPrefix.size())
                                                        : message);
        changed_.notify_all();
    }

    std::vector<std::string> lines() const {
        std::lock_guard guard(mutex_);
        return lines_;
    }
    std::size_t count(const std::string& line) const {
        auto all = lines();
        return static_cast<std::size_t>(std::ranges::count(all, line));
    }
    std::size_t countStartingWith(const std::string& start) const {
        auto all = lines();
        return static_cast<std::size_t>(std::ranges::count_if(
            all, [&](const std::string& line) { return line.starts_with(start); }));
    }
    // True once the line has been logged `times` times; false after the deadline.
    bool waitFor(const std::string& line, std::size_t times = 1) const {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, generousDeadline, [&] {
            return static_cast<std::size_t>(std::ranges::count(lines_, line)) >= times;
        });
    }
    // True once a line that starts and ends so has been logged; false after the deadline.
    bool waitForLine(const std::string& start, const std::string& end = {}) const {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, generousDeadline, [&] {
            return std::ranges::any_of(lines_, [&](const std::string& line) {
                return line.starts_with(start) && line.ends_with(end);
            });
        });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> lines_;
};

// True when `expected` appear in `lines` in this order (other lines may come between).
inline ::testing::AssertionResult containsInOrder(const std::vector<std::string>& lines,
                                                  const std::vector<std::string>& expected) {
    auto at = lines.begin();
    for (const auto& line : expected) {
        at = std::find(at, lines.end(), line);
        if (at == lines.end()) {
            return ::testing::AssertionFailure() << "missing (in order): \"" << line << "\"";
        }
        ++at;
    }
    return ::testing::AssertionSuccess();
}

// --- The tracking service -------------------------------------------------------------------

struct ReceivedRequest {
    std::string method;
    std::string path;
    std::string body;
    httplib::Headers headers;

    std::string header(const std::string& name) const {
        auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }
    // The delivery id of a delivery-event body; empty for other bodies.
    std::string deliveryId() const {
        auto json = nlohmann::json::parse(body, nullptr, false);
        if (!json.is_object() || !json.contains("payload") || !json["payload"].is_object()) {
            return {};
        }
        return json["payload"].value("delivery_id", std::string());
    }
};

// A tracking API on 127.0.0.1 with an ephemeral port: records every request and answers
// 200 "{}", or what the test's responder says. Requests can be held at a gate until the test
// opens it.
class TrackingServer {
public:
    struct Answer {
        int status = 200;
        std::string body = "{}";
    };
    using Responder = std::function<Answer(const ReceivedRequest&)>;

    TrackingServer()
        : server_([this](httplib::Server& server) {
              auto route = [this](const httplib::Request& request, httplib::Response& response) {
                  serve(request, response);
              };
              server.Post(".*", route);
              server.Put(".*", route);
              server.Delete(".*", route);
              server.Get(".*", route);
          }) {}
    // Held requests are let go first, so that the server can stop.
    ~TrackingServer() { openGate(); }

    std::string origin() const { return "http://127.0.0.1:" + std::to_string(server_.port()); }

    void respond(Responder responder) {
        std::lock_guard guard(mutex_);
        responder_ = std::move(responder);
    }
    // Requests wait in the server until openGate().
    void closeGate() {
        std::lock_guard guard(mutex_);
        gateOpen_ = false;
    }
    void openGate() {
        std::lock_guard guard(mutex_);
        gateOpen_ = true;
        changed_.notify_all();
    }

    std::vector<ReceivedRequest> received() const {
        std::lock_guard guard(mutex_);
        return received_;
    }
    std::vector<std::string> receivedDeliveryIds() const {
        std::vector<std::string> ids;
        for (const auto& request : received()) ids.push_back(request.deliveryId());
        return ids;
    }
    bool waitForRequests(std::size_t count) const {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, generousDeadline,
                                 [&] { return received_.size() >= count; });
    }

private:
    void serve(const httplib::Request& request, httplib::Response& response) {
        ReceivedRequest received{request.method, request.path, request.body, request.headers};
        Responder responder;
        {
            std::unique_lock guard(mutex_);
            received_.push_back(received);
            changed_.notify_all();
            changed_.wait(guard, [this] { return gateOpen_; });
            responder = responder_;
        }
        Answer answer = responder ? responder(received) : Answer{};
        response.status = answer.status;
        response.set_content(answer.body, "application/json");
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    Responder responder_;
    bool gateOpen_ = true;
    std::vector<ReceivedRequest> received_;
    vontu::testing::LoopbackServer server_;  // last: it stops before the state above goes
};

// --- Collaborators --------------------------------------------------------------------------

// A clock that stands still.
class FixedClock final : public DateUtil {
public:
    explicit FixedClock(double seconds) : seconds_(seconds) {}
    vontu::platform::Date now() const override { return {seconds_}; }

private:
    const double seconds_;
};

// The platform's threads, counting the runs sent to the background.
class CountingThreadUtil final : public ThreadUtil {
public:
    void runBackground(std::function<void()> block) override {
        ++backgroundJobs;
        threads_.runBackground(std::move(block));
    }
    void runMain(std::function<void()> block) override { threads_.runMain(std::move(block)); }

    std::atomic<int> backgroundJobs{0};

private:
    TernThreadUtil threads_;
};

// A module that offers one queue-runner hook.
class HookProvider final : public ModuleHookProvider {
public:
    explicit HookProvider(std::shared_ptr<QueueRunnerHook> hook) : hook_(std::move(hook)) {}
    std::shared_ptr<ProfileIdentifyHook> profileIdentifyHook() override { return nullptr; }
    std::shared_ptr<QueueRunnerHook> queueRunnerHook() override { return hook_; }
    std::shared_ptr<ScreenTrackingHook> screenTrackingHook() override { return nullptr; }

private:
    std::shared_ptr<QueueRunnerHook> hook_;
};

// A hook that takes the tasks of one type and answers them with a fixed outcome from a
// background thread, as an HTTP client would; it refuses every other type. Counts its offers.
class FixedOutcomeHook final : public QueueRunnerHook {
public:
    using Outcome = std::expected<void, HttpRequestError>;

    FixedOutcomeHook(std::string type, Outcome outcome)
        : type_(std::move(type)), outcome_(std::move(outcome)) {}

    bool runTask(const QueueTask& task, Completion onComplete) override {
        ++offers;
        if (task.type != type_) return false;
        vontu::platform::Env::current().runInBackground(
            [outcome = outcome_, onComplete = std::move(onComplete)] { onComplete(outcome); });
        return true;
    }

    std::atomic<int> offers{0};

private:
    const std::string type_;
    const Outcome outcome_;
};

// Waits for a callback.
class Signal {
public:
    std::function<void()> callback() {
        return [this] { promise_.set_value(); };
    }
    bool wait() { return future_.wait_for(generousDeadline) == std::future_status::ready; }
    bool fired() { return future_.wait_for(0s) == std::future_status::ready; }

private:
    std::promise<void> promise_;
    std::future<void> future_ = promise_.get_future();
};

// --- The library ----------------------------------------------------------------------------

// The library's queue on the real platform against a local tracking service: a dependency
// graph for siteId whose configuration points at the server and logs everything. Queue
// settings default to "never run by itself" so that a test decides when runs happen.
class QueueRunsTest : public ::testing::Test {
protected:
    static SdkConfig configFor(const std::string& trackingApiUrl,
                               std::int64_t minNumberOfTasks = 1000,
                               double secondsDelay = 600.0) {
        SdkConfig config;
        config.trackingApiUrl = trackingApiUrl;
        config.logLevel = TernLogLevel::debug;
        config.backgroundQueueMinNumberOfTasks = minNumberOfTasks;
        config.backgroundQueueSecondsDelay = secondsDelay;
        return config;
    }

    // Builds the graph; call before using graph().
    void makeGraph(std::int64_t minNumberOfTasks = 1000, double secondsDelay = 600.0) {
        graph_ = std::make_unique<DIGraph>(siteId, apiKey,
                                           configFor(server.origin(), minNumberOfTasks,
                                                     secondsDelay));
        graph_->override<ThreadUtil>(threads);
    }
    DIGraph& graph() {
        if (!graph_) makeGraph();
        return *graph_;
    }

    // Adds a delivery event for deliveryId through the queue facade.
    QueueAddResult addDelivery(const std::string& deliveryId,
                               const std::optional<QueueTaskGroup>& groupStart = std::nullopt,
                               const std::optional<std::vector<QueueTaskGroup>>& blockingGroups =
                                   std::nullopt) {
        auto body = TrackDeliveryEventRequestBody::inApp(deliveryId, InAppMetric::opened,
                                                         {1700000000.0});
        return graph().queue()->addTask(TrackDeliveryEventRequestBody::queueTaskType,
                                        AnyEncodable(body), groupStart, blockingGroups);
    }

    // Runs the queue and waits until the run has ended.
    bool runQueue() {
        Signal done;
        graph().queue()->run(done.callback());
        return done.wait();
    }

    std::vector<QueueTaskMetadata> inventory() { return graph().queueStorage()->getInventory(); }

    std::filesystem::path taskFile(const std::string& storageId) {
        return *host.applicationSupportDirectory() / "dev.tern" / siteId / "queue" / "tasks" /
               (storageId + ".json");
    }

    LogCapturingEnv host;
    TrackingServer server;
    std::shared_ptr<CountingThreadUtil> threads = std::make_shared<CountingThreadUtil>();

private:
    std::unique_ptr<DIGraph> graph_;
};

}  // namespace tern::testing
