#include "tests/tracking/TrackingTestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <future>
#include <thread>

#include "Common/queue/QueueTaskMetadata.hpp"
#include "Common/storage/FileType.hpp"
#include "Common/util/ConsoleLogger.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "TernTracking/Tern.hpp"

namespace tern::testing {

using vontu::platform::AuthorizationStatus;
using vontu::platform::Env;
using vontu::platform::LogType;

std::string infoLine(const std::string& message) { return "\u2139\uFE0F " + message; }
std::string errorLine(const std::string& message) { return "\U0001F6D1 " + message; }

// --- TrackingEnv ---------------------------------------------------------------------------

TrackingHost::TrackingHost() {
    vontu::platform::linux_host::HostSettings settings;
    settings.home = home.path();
    host = std::make_unique<vontu::platform::linux_host::LinuxEnv>(std::move(settings));
    std::promise<void> started;
    auto running = started.get_future();
    mainThread = std::thread([this, &started] {
        host->runOnMain([&started] { started.set_value(); });
        host->runMainLoop();
    });
    running.wait();
}

void TrackingHost::onMainAndWait(const std::function<void()>& block) {
    std::promise<void> done;
    host->runOnMain([&] {
        block();
        done.set_value();
    });
    done.get_future().wait();
}

void TrackingHost::shutDown() {
    if (!host) return;
    onMainAndWait([] {});
    host->stopMainLoop();
    mainThread.join();
    host.reset();  // lets the background pool finish its jobs
}

TrackingEnv::TrackingEnv() : EnvWrapper(*host) { Env::setCurrent(this); }

TrackingEnv::~TrackingEnv() {
    // Library jobs may still be logging through this wrapper on the main thread (timers) or in
    // the background pool (the last answers of a run): the platform finishes them while the
    // wrapper is whole, and only then does the wrapper go.
    shutDown();
    Env::setCurrent(nullptr);
}

void TrackingEnv::writeLog(const std::string& subsystem, const std::string& category, LogType type,
                           const std::string& message) {
    // "(siteid:" + five characters + ") " + message, as the library's logger writes them.
    static const std::string tagStart = "(siteid:";
    if (subsystem == ConsoleLogger::logSubsystem && category == ConsoleLogger::logCategory &&
        message.starts_with(tagStart)) {
        const auto tagEnd = message.find(") ", tagStart.size());
        if (tagEnd != std::string::npos) {
            std::lock_guard guard(mutex_);
            lines_.emplace_back(message.substr(tagStart.size(), tagEnd - tagStart.size()),
                                SiteLogLine{type, message.substr(tagEnd + 2)});
        }
        logged_.notify_all();
    }
    target().writeLog(subsystem, category, type, message);
}

void TrackingEnv::notificationAuthorizationStatus(
    std::function<void(AuthorizationStatus)> completion) {
    bool authorized = false;
    {
        std::lock_guard guard(mutex_);
        authorized = pushAuthorized_;
    }
    // From another thread, as the platform answers.
    runInBackground([authorized, completion = std::move(completion)] {
        completion(authorized ? AuthorizationStatus::authorized : AuthorizationStatus::denied);
    });
}

void TrackingEnv::setPushAuthorized(bool authorized) {
    std::lock_guard guard(mutex_);
    pushAuthorized_ = authorized;
}

std::vector<SiteLogLine> TrackingEnv::siteLines(const std::string& sitePrefix) const {
    std::lock_guard guard(mutex_);
    std::vector<SiteLogLine> result;
    for (const auto& [prefix, line] : lines_) {
        if (prefix == sitePrefix) result.push_back(line);
    }
    return result;
}

std::size_t TrackingEnv::libraryLineCount() const {
    std::lock_guard guard(mutex_);
    return lines_.size();
}

bool TrackingEnv::waitForSiteLines(
    const std::string& sitePrefix,
    const std::function<bool(const std::vector<SiteLogLine>&)>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + generousDeadline;
    std::unique_lock lock(mutex_);
    while (true) {
        std::vector<SiteLogLine> lines;
        for (const auto& [prefix, line] : lines_) {
            if (prefix == sitePrefix) lines.push_back(line);
        }
        if (condition(lines)) return true;
        if (logged_.wait_until(lock, deadline) == std::cv_status::timeout) {
            return false;
        }
    }
}

namespace {

// Tears the environment down after the last test, when no library work is left running.
class TrackingEnvironment final : public ::testing::Environment {
public:
    void TearDown() override { env.reset(); }
    std::unique_ptr<TrackingEnv> env;
};

TrackingEnvironment* registeredEnvironment() {
    static auto* environment = [] {
        auto* made = new TrackingEnvironment();
        ::testing::AddGlobalTestEnvironment(made);
        return made;
    }();
    return environment;
}

// Registered before main runs, so that gtest owns it from the start.
[[maybe_unused]] const TrackingEnvironment* const environmentAtStartUp = registeredEnvironment();

}  // namespace

TrackingEnv& trackingEnv() {
    auto* environment = registeredEnvironment();
    if (!environment->env) environment->env = std::make_unique<TrackingEnv>();
    return *environment->env;
}

// --- ReceivedRequest and TrackingServer ----------------------------------------------------

nlohmann::json ReceivedRequest::json() const { return nlohmann::json::parse(body, nullptr, false); }

TrackingServer::TrackingServer() {
    auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        handle(request, response);
    };
    server_.server().Put(".*", handler);
    server_.server().Post(".*", handler);
    server_.server().Delete(".*", handler);
    server_.server().Get(".*", handler);
}

std::string TrackingServer::baseUrl() const {
    return "http://127.0.0.1:" + std::to_string(server_.port());
}

void TrackingServer::handle(const httplib::Request& request, httplib::Response& response) {
    ReceivedRequest received{request.method, request.path, request.body,
                             request.get_header_value("Authorization"),
                             request.get_header_value("Content-Type")};
    std::optional<int> status;
    {
        std::lock_guard guard(mutex_);
        if (statusRule_) status = statusRule_(received);
        requests_.push_back(received);
    }
    response.status = status.value_or(200);
    response.set_content("{}", "application/json");
}

std::vector<ReceivedRequest> TrackingServer::requests() const {
    std::lock_guard guard(mutex_);
    return requests_;
}

std::vector<std::string> TrackingServer::requestLines() const {
    std::vector<std::string> lines;
    for (const auto& request : requests()) lines.push_back(request.method + " " + request.path);
    return lines;
}

void TrackingServer::clearRequests() {
    std::lock_guard guard(mutex_);
    requests_.clear();
}

void TrackingServer::setStatusRule(std::function<std::optional<int>(const ReceivedRequest&)> rule) {
    std::lock_guard guard(mutex_);
    statusRule_ = std::move(rule);
}

// --- TrackingSite ---

namespace {

// How many start-up clean-ups have finished: each logs how many tasks it deleted last.
std::size_t cleanupRuns(const std::vector<SiteLogLine>& lines) {
    return static_cast<std::size_t>(std::ranges::count_if(lines, [](const SiteLogLine& line) {
        return line.message.starts_with("deleting ") &&
               line.message.find(" tasks. \n Tasks: ") != std::string::npos;
    }));
}

}  // namespace

// --- TrackingSite --------------------------------------------------------------------------

std::string TrackingSite::newSiteId() {
    static std::atomic<int> counter{0};
    // Five distinct characters first: they tag the site's log lines.
    char prefix[8];
    std::snprintf(prefix, sizeof prefix, "s%04d", ++counter);
    return std::string(prefix) + "-tracking-site";
}

TrackingSite::TrackingSite(TrackingServer& server,
                           const std::function<void(nlohmann::json&)>& configure)
    : server_(server), siteId_(newSiteId()) {
    trackingEnv();
    initialize(configure);
    // The push token and the HTTP pause belong to the app, not to a site: start without them.
    Tern::shared()->diGraph()->globalDataStore()->deleteAll();
}

void TrackingSite::initialize(const std::function<void(nlohmann::json&)>& configure) {
    nlohmann::json params = {
        {"trackingApiUrl", server_.baseUrl()},
        {"logLevel", "debug"},
        {"backgroundQueueMinNumberOfTasks", 100000},
        {"backgroundQueueSecondsDelay", 3600.0},
    };
    if (configure) configure(params);
    const auto cleanupsBefore = cleanupRuns(logs());
    Tern::initialize(siteId_, "test-api-key", Region::US,
                     [&params](SdkConfig& config) { config.modify(params); });
    // The start-up clean-up logs from a background thread: waiting for it keeps its lines
    // out of the test's own.
    const bool cleanedUp = trackingEnv().waitForSiteLines(
        sitePrefix(), [&](const auto& lines) { return cleanupRuns(lines) > cleanupsBefore; });
    EXPECT_TRUE(cleanedUp) << "the start-up clean-up did not run";
    // The job releases the repository right after its run; a job still doing so would release
    // the repository of the next initialisation before that one's job could use it.
    EXPECT_TRUE(waitForCleanupRepositoryRelease());
}

bool waitForCleanupRepositoryRelease() {
    const auto deadline = std::chrono::steady_clock::now() + generousDeadline;
    while (Tern::shared()->cleanupRepository()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool TrackingSite::runQueue() {
    auto graph = Tern::shared()->diGraph();
    auto done = std::make_shared<std::promise<void>>();
    auto finished = done->get_future();
    graph->queue()->run([done] { done->set_value(); });
    return finished.wait_for(generousDeadline) == std::future_status::ready;
}

std::vector<SiteLogLine> TrackingSite::logs() const {
    return trackingEnv().siteLines(sitePrefix());
}

std::vector<std::string> TrackingSite::messages() const { return messagesFrom(0); }

std::vector<std::string> TrackingSite::messagesFrom(std::size_t from) const {
    std::vector<std::string> result;
    const auto lines = logs();
    for (std::size_t i = from; i < lines.size(); ++i) result.push_back(lines[i].message);
    return result;
}

bool TrackingSite::waitForQueuedRegistrations(std::size_t count) {
    return trackingEnv().waitForSiteLines(sitePrefix(), [count](const auto& lines) {
        std::size_t registrations = 0, handedOver = 0, finished = 0;
        for (const auto& line : lines) {
            if (line.message == infoLine("adding queue task registerPushToken")) ++registrations;
            if (line.message.starts_with(infoLine("adding queue task "))) ++handedOver;
            if (line.message.starts_with("processing queue status ") ||
                line.message == errorLine("fail adding queue task, json encoding fail.")) {
                ++finished;
            }
        }
        return registrations >= count && finished == handedOver;
    });
}

std::vector<InventoryEntry> readInventory(const std::string& siteId) {
    auto graph = Tern::shared()->diGraph();
    if (!graph || graph->siteId() != siteId) return {};
    auto data = graph->fileStorage()->get(FileType::queueInventory, std::nullopt);
    if (!data) return {};
    auto inventory = graph->jsonAdapter()->fromJson<std::vector<QueueTaskMetadata>>(*data);
    std::vector<InventoryEntry> entries;
    for (const auto& entry : inventory.value_or(std::vector<QueueTaskMetadata>{})) {
        entries.push_back({entry.taskType, entry.groupStart, entry.groupMember});
    }
    return entries;
}

}  // namespace tern::testing
