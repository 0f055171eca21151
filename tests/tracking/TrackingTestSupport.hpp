#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/Env.hpp"
#include "tests/support/LoopbackServer.hpp"
#include "platform/linux/LinuxEnv.hpp"
#include "tests/support/TempDir.hpp"

namespace tern::testing {

// How long a test waits for something that happens on another thread before it gives up.
inline constexpr std::chrono::seconds generousDeadline{60};

// One library log line of a site, without the "(siteid:xxxxx) " tag: info lines still begin
// with "ℹ️ " and error lines with "🛑 ".
struct SiteLogLine {
    vontu::platform::LogType type;
    std::string message;
};

std::string infoLine(const std::string& message);
std::string errorLine(const std::string& message);

// The real Linux platform over a fresh state root, with its main loop running on a thread of
// its own (the tests' main thread).
struct TrackingHost {
    TrackingHost();
    // Runs block on the main thread and waits for it.
    void onMainAndWait(const std::function<void()>& block);
    // Runs what the main thread has queued, stops it, then lets the background pool finish.
    void shutDown();

    vontu::testing::TempDir home;
    std::unique_ptr<vontu::platform::linux_host::LinuxEnv> host;
    std::thread mainThread;
};

// That platform seen through a wrapper that records every system-log line and lets waiting
// tests know when one arrives. One per test process (the Tern facade is one per process too);
// see trackingEnv().

class TrackingEnv : private TrackingHost, public vontu::platform::EnvWrapper {
public:
    TrackingEnv();
    ~TrackingEnv() override;

    void writeLog(const std::string& subsystem, const std::string& category,
                  vontu::platform::LogType type, const std::string& message) override;
    void notificationAuthorizationStatus(
        std::function<void(vontu::platform::AuthorizationStatus)> completion) override;

    // The library lines of the site whose id starts with sitePrefix (five characters).
    std::vector<SiteLogLine> siteLines(const std::string& sitePrefix) const;
    // Waits until condition(lines of the site) holds; false at the deadline.
    bool waitForSiteLines(const std::string& sitePrefix,
                          const std::function<bool(const std::vector<SiteLogLine>&)>& condition);

    // The number of library lines of any site so far.
    std::size_t libraryLineCount() const;

    // Whether notifications are authorised, as the platform answers from another thread.
    void setPushAuthorized(bool authorized);

private:
    mutable std::mutex mutex_;
    std::condition_variable logged_;
    std::vector<std::pair<std::string, SiteLogLine>> lines_;  // (site prefix, line)
    bool pushAuthorized_ = true;
};

// The process's one environment, made on first use and torn down when the tests end.
TrackingEnv& trackingEnv();

// One request as the tracking server received it.
struct ReceivedRequest {
    std::string method;
    std::string path;
    std::string body;
    std::string authorization;
    std::string contentType;

    // The body parsed as JSON; discarded when it is not JSON.
    nlohmann::json json() const;
};

// A tracking API on 127.0.0.1 that records every request and answers 200 with "{}" unless a
// rule says otherwise.
class TrackingServer {
public:
    TrackingServer();

    std::string baseUrl() const;
    std::vector<ReceivedRequest> requests() const;
    // "PUT /api/v1/customers/A" for each request, in order of arrival.
    std::vector<std::string> requestLines() const;
    void clearRequests();
    // The status of each answer; requests whose rule returns nothing get 200.
    void setStatusRule(std::function<std::optional<int>(const ReceivedRequest&)> rule);

private:
    void handle(const httplib::Request& request, httplib::Response& response);

    vontu::testing::LoopbackServer server_;
    mutable std::mutex mutex_;
    std::vector<ReceivedRequest> requests_;
    std::function<std::optional<int>(const ReceivedRequest&)> statusRule_;
};

// A site of its own for one test: a new site id (so its profile and queue start empty),
// initialised in the app form against a TrackingServer, logging at debug level, with a queue
// that never runs by itself so that each test runs it when it wants to.
class TrackingSite {
public:
    // configure may change more options after the test defaults are set.
    explicit TrackingSite(TrackingServer& server,
                          const std::function<void(nlohmann::json&)>& configure = {});

    const std::string& siteId() const { return siteId_; }
    std::string sitePrefix() const { return siteId_.substr(0, 5); }

    // Re-initialises the shared Tern object for this site, as initialize(app form) does.
    void initialize(const std::function<void(nlohmann::json&)>& configure = {});

    // Runs the background queue and waits until that run has ended; false at the deadline.
    bool runQueue();

    std::vector<SiteLogLine> logs() const;
    // The messages of the site's log lines, in order.
    std::vector<std::string> messages() const;
    // Log lines from index `from` on.
    std::vector<std::string> messagesFrom(std::size_t from) const;
    // Waits until every task that was handed to the queue has been stored (or refused), and at
    // least `count` registrations were handed over.
    bool waitForQueuedRegistrations(std::size_t count);

    static std::string newSiteId();

private:
    TrackingServer& server_;
    std::string siteId_;
};

// Waits until the start-up clean-up of the last initialisation has let go of its repository;
// false at the deadline.
bool waitForCleanupRepositoryRelease();

// The queue's inventory of the site: (task type, group start, group members) per entry.
struct InventoryEntry {
    std::string type;
    std::optional<std::string> groupStart;
    std::optional<std::vector<std::string>> groupMember;
};
std::vector<InventoryEntry> readInventory(const std::string& siteId);

}  // namespace tern::testing
