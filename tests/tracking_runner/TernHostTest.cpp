#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <future>
#include <set>
#include <map>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/Crypto.hpp"
#include "tests/support/Process.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/tracking_runner/TrackingServer.hpp"

namespace tern::testing {
namespace {

using nlohmann::json;
using vontu::testing::ProcessResult;

constexpr const char* kSiteId = "e2e-site";
constexpr const char* kApiKey = "e2e-key";

std::int64_t secondsNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The tern program over one state root, talking to the test's tracking server.
struct TernHostTest : ::testing::Test {
    vontu::testing::TempDir home;
    TrackingServer server;

    json config() const {
        // Device attributes off, so that a registered device carries only what the test gives.
        return {{"trackingApiUrl", server.baseUrl()}, {"autoTrackDeviceAttributes", false}};
    }

    ProcessResult runWith(std::vector<std::string> arguments,
                          const std::map<std::string, std::string>& environment = {},
                          double killAfterSeconds = 120) {
        std::vector<std::string> all = {"--home", home.path().string()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return vontu::testing::runProcess(vontu::testing::builtProgram("hosts/tern"), all, "",
                                          environment, killAfterSeconds);
    }

    // tern with the test's site, key and configuration; killed (SIGKILL) when still running
    // after killAfterSeconds.
    ProcessResult tern(std::vector<std::string> arguments, double killAfterSeconds = 120) {
        std::vector<std::string> all = {"--site-id", kSiteId, "--api-key", kApiKey, "--config",
                                        config().dump()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return runWith(all, {}, killAfterSeconds);
    }

    std::filesystem::path queueDirectory() const {
        return home.path() / "apps" / "ios.vontu" / "support" / "dev.tern" / kSiteId / "queue";
    }

    json queueStatus() {
        auto status = tern({"queue", "status"});
        EXPECT_EQ(status.exitCode, 0) << status.err;
        return json::parse(status.out, nullptr, false);
    }

    // Runs a command with --flush and returns the one request it sent.
    TrackingServer::Request sentBy(std::vector<std::string> command) {
        const auto before = server.requests().size();
        command.push_back("--flush");
        auto result = tern(command);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        auto received = server.requests();
        EXPECT_EQ(received.size(), before + 1) << command.front();
        return received.size() > before ? received.back() : TrackingServer::Request{};
    }
};

// Each command's one request. A "T" in a body stands for the time of the call, which the body
// holds in whole seconds as its "timestamp" or the device's "last_used".
TEST_F(TernHostTest, EachCommandSendsItsRequest) {
    struct Case {
        std::vector<std::string> command;
        std::string request;
        std::string body;
    };
    const Case cases[] = {
        {{"identify", "alice", "--attributes", R"({"plan":"pro"})"},
         "PUT /api/v1/customers/alice", R"({"plan":"pro"})"},
        {{"track", "opened", "--data", R"({"n":1})"}, "POST /api/v1/customers/alice/events",
         R"({"data":{"n":1},"name":"opened","timestamp":T,"type":"event"})"},
        {{"screen", "Inbox"}, "POST /api/v1/customers/alice/events",
         R"({"data":{},"name":"Inbox","timestamp":T,"type":"screen"})"},
        {{"register-token", "tok123"}, "PUT /api/v1/customers/alice/devices",
         R"({"device":{"attributes":{},"id":"tok123","last_used":T,"platform":"iOS"}})"},
        {{"device-attributes", R"({"theme":"dark"})"}, "PUT /api/v1/customers/alice/devices",
         R"({"device":{"attributes":{"theme":"dark"},"id":"tok123","last_used":T,)"
         R"("platform":"iOS"}})"},
        {{"profile-attributes", R"({"plan":"team"})"}, "PUT /api/v1/customers/alice",
         R"({"plan":"team"})"},
        {{"metric", "dlv-1", "OPENED", "tok123"}, "POST /push/events",
         R"({"delivery_id":"dlv-1","device_id":"tok123","event":"opened","timestamp":T})"},
        {{"delete-token"}, "DELETE /api/v1/customers/alice/devices/tok123", ""},
        // Clearing the profile takes the stored token off it.
        {{"clear-identify"}, "DELETE /api/v1/customers/alice/devices/tok123", ""},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.command.front());
        const auto start = secondsNow();
        const auto sent = sentBy(each.command);
        EXPECT_EQ(sent.method + " " + sent.path, each.request);
        std::string body = sent.body;
        std::smatch stamp;
        static const std::regex stamped(R"re("(timestamp|last_used)":(\d+)[,}])re");
        if (std::regex_search(body, stamp, stamped)) {
            const auto seconds = std::stoll(stamp[2]);
            EXPECT_GE(seconds, start - 1);
            EXPECT_LE(seconds, secondsNow() + 1);
            body.replace(static_cast<std::size_t>(stamp.position(2)),
                         static_cast<std::size_t>(stamp.length(2)), "T");
        }
        EXPECT_EQ(body, each.body);
    }
    // Without a profile, events are dropped.
    const auto count = server.requests().size();
    EXPECT_EQ(tern({"track", "ignored", "--flush"}).exitCode, 0);
    EXPECT_EQ(server.requests().size(), count);
    EXPECT_EQ(queueStatus()["numTasksInQueue"], 0);
}

// A profile's requests reach that profile whatever it is called: never another profile's
// resources, another endpoint, or nothing at all.
TEST_F(TernHostTest, ProfileIdentifiersAreSentAsOneLiteralPathSegment) {
    const std::pair<std::string, std::string> cases[] = {
        {"user#1", "user%231"}, {"a/b", "a%2Fb"},          {"..", "%2E%2E"},
        {"x y", "x%20y"},       {"Jos\xC3\xA9", "Jos%C3%A9"}, {"q?x=1", "q%3Fx=1"},
    };
    for (const auto& [identifier, segment] : cases) {
        SCOPED_TRACE(identifier);
        const auto identify = sentBy({"identify", identifier});
        EXPECT_EQ(identify.method + " " + identify.target, "PUT /api/v1/customers/" + segment);
        EXPECT_EQ(identify.path, "/api/v1/customers/" + identifier);
        const auto event = sentBy({"track", "opened"});
        EXPECT_EQ(event.method + " " + event.target,
                  "POST /api/v1/customers/" + segment + "/events");
    }
    EXPECT_EQ(queueStatus()["numTasksInQueue"], 0);
}

// A Tern push with the given link, written where `tern open` can read it.
std::string writeTernPush(const vontu::testing::TempDir& dir, const std::string& name,
                          const json& link) {
    const json push = {{"aps", {{"alert", {{"title", "Sale"}, {"body", "Half price"}}}}},
                       {"TERN-Delivery-ID", "dlv-7"},
                       {"TERN-Delivery-Token", "tok-7"},
                       {"TERN", {{"push", {{"link", link}}}}}};
    const auto path = dir.path() / name;
    std::ofstream(path) << push.dump();
    return path.string();
}

TEST_F(TernHostTest, OpeningANotificationTracksItAndFollowsItsLink) {
    const auto link = writeTernPush(home, "link.json", "https://vontu.app/sale");
    const auto notALink = writeTernPush(home, "bad.json", "not a link");
    const auto mail = (home.path() / "mail.json").string();
    std::ofstream(mail) << R"({"aps":{"alert":"New mail"}})";
    const json openedNothing = {{"handled", true}, {"opened", nullptr}, {"via", nullptr}};
    struct Case {
        std::vector<std::string> arguments;
        json output;
        std::string metric;  // the event of the one request sent, or "none"
    } const cases[] = {
        // A tap opens the link through the system unless the app takes it as a universal link.
        {{link}, {{"handled", true}, {"opened", "https://vontu.app/sale"}, {"via", "system"}},
         "opened"},
        {{link, "--universal-link-host", "vontu.app"},
         {{"handled", true}, {"opened", "https://vontu.app/sale"}, {"via", "universal-link"}},
         "opened"},
        // A custom action counts as delivered and opens nothing; so does a link that is no URL.
        {{link, "--action", "reply"}, openedNothing, "delivered"},
        {{notALink}, openedNothing, "opened"},
        // A push that is not Tern's is left to the app.
        {{mail}, {{"handled", false}, {"opened", nullptr}, {"via", nullptr}}, "none"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.arguments.back());
        auto arguments = each.arguments;
        arguments.insert(arguments.begin(), "open");
        arguments.push_back("--flush");
        const auto before = server.requests().size();
        auto result = tern(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(json::parse(result.out, nullptr, false), each.output);
        const auto received = server.requests();
        ASSERT_LE(received.size(), before + 1);
        EXPECT_EQ(received.size() == before ? "none" : received.back().json()["event"],
                  each.metric);
    }
}

TEST_F(TernHostTest, AnFcmTokenIsRegisteredAsTheDeviceToken) {
    ASSERT_EQ(tern({"identify", "dana", "--flush"}).exitCode, 0);
    auto registration = sentBy({"fcm-token", "fcm-abc"});
    EXPECT_EQ(registration.method + " " + registration.path, "PUT /api/v1/customers/dana/devices");
    EXPECT_EQ(registration.json()["device"]["id"], "fcm-abc");
}

TEST_F(TernHostTest, ATaskQueuedByOneRunIsSentByALaterRun) {
    auto queued = tern({"identify", "bob"});
    ASSERT_EQ(queued.exitCode, 0) << queued.err;
    EXPECT_TRUE(queued.out.empty());
    EXPECT_TRUE(server.requests().empty());

    auto status = queueStatus();
    EXPECT_EQ(status["queueId"], kSiteId);
    EXPECT_EQ(status["numTasksInQueue"], 1);
    ASSERT_EQ(status["tasks"].size(), 1u);
    EXPECT_EQ(status["tasks"][0]["task_type"], "identifyProfile");

    auto run = tern({"queue", "run"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(server.requestLines(), std::vector<std::string>{"PUT /api/v1/customers/bob"});
    EXPECT_EQ(server.requests().at(0).body, "{}");
    EXPECT_EQ(queueStatus()["numTasksInQueue"], 0);
}

// An addition that reaches the queue's minimum starts a run at once; the program ends only
// after that run has sent and removed the task, though its requests go on in session threads.
TEST_F(TernHostTest, ARunThatAnAdditionStartsEndsBeforeTheProgramDoes) {
    auto runAtOnce = config();
    runAtOnce["backgroundQueueMinNumberOfTasks"] = 1;
    auto result = runWith({"--site-id", kSiteId, "--api-key", kApiKey, "--config",
                           runAtOnce.dump(), "identify", "erin"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(server.requestLines(), std::vector<std::string>{"PUT /api/v1/customers/erin"});
    EXPECT_EQ(queueStatus()["numTasksInQueue"], 0);
}

// A task that cannot be stored is never reported as queued: one line on standard error and a
// non-zero exit, whether the task file cannot be written (a file where the tasks directory
// goes, as on a full disk) or the inventory is there but cannot be read, which is then left
// exactly as it was rather than replaced by a list without the tasks it holds.
TEST_F(TernHostTest, ACommandWhoseTaskIsNotStoredFailsWithOneLine) {
    auto expectNotStored = [](const ProcessResult& result) {
        EXPECT_EQ(result.exitCode, 1);
        // The program's own line, after whatever the library logged.
        static const std::regex own("(^|\n)tern: not stored: [^\n]+\n$");
        EXPECT_TRUE(std::regex_search(result.err, own)) << result.err;
    };
    ASSERT_EQ(tern({"identify", "alice"}).exitCode, 0);
    const auto tasks = queueDirectory() / "tasks";
    std::filesystem::rename(tasks, home.path() / "tasks-aside");
    std::ofstream(tasks) << "in the way";
    expectNotStored(tern({"track", "opened"}));
    std::filesystem::remove(tasks);
    std::filesystem::rename(home.path() / "tasks-aside", tasks);
    EXPECT_EQ(queueStatus()["numTasksInQueue"], 1);

    const auto inventory = queueDirectory() / "inventory.json";
    std::filesystem::rename(inventory, home.path() / "inventory-aside");
    std::filesystem::create_directory(inventory);
    expectNotStored(tern({"track", "opened"}));
    EXPECT_TRUE(std::filesystem::is_directory(inventory));
    std::filesystem::remove(inventory);
    std::filesystem::rename(home.path() / "inventory-aside", inventory);

    // Unreadable for want of permission: the host runs as another user.
    if (::geteuid() == 0) {
        std::filesystem::permissions(home.path(), std::filesystem::perms::owner_all);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(home.path())) {
            ASSERT_EQ(::chown(entry.path().c_str(), 65534, 65534), 0);
        }
        ASSERT_EQ(::chown(home.path().c_str(), 65534, 65534), 0);
        ASSERT_EQ(::chown(inventory.c_str(), 0, 0), 0);
        std::vector<std::string> arguments = {"--reuid=65534", "--regid=65534", "--clear-groups",
                                              vontu::testing::builtProgram("hosts/tern").string(),
                                              "--home", home.path().string(), "--site-id", kSiteId,
                                              "--api-key", kApiKey, "--config", config().dump(),
                                              "track", "opened"};
        expectNotStored(vontu::testing::runProcess("/usr/bin/setpriv", arguments));
    } else {
        std::filesystem::permissions(inventory, std::filesystem::perms::none);
        expectNotStored(tern({"track", "opened"}));
        std::filesystem::permissions(inventory, std::filesystem::perms::owner_read |
                                                    std::filesystem::perms::owner_write);
    }
    EXPECT_EQ(queueStatus()["numTasksInQueue"], 1);
}

// Four programs adding and flushing at once send each task once: one run at a time works
// through the queue, and the others leave their tasks to it.
TEST_F(TernHostTest, ProgramsAddingAndFlushingAtOnceSendEachTaskOnce) {
    ASSERT_EQ(tern({"identify", "ann", "--flush"}).exitCode, 0);
    server.clearRequests();
    std::vector<std::future<std::vector<int>>> programs;
    for (int p = 0; p < 4; ++p) {
        programs.push_back(std::async(std::launch::async, [this, p] {
            std::vector<int> exits;
            for (int i = 0; i < 10; ++i) {
                exits.push_back(tern({"track", std::to_string(p * 10 + i), "--flush"}).exitCode);
            }
            return exits;
        }));
    }
    for (auto& program : programs) EXPECT_EQ(program.get(), std::vector<int>(10, 0));
    EXPECT_EQ(tern({"queue", "run"}).exitCode, 0);  // what the last run left, if anything
    std::multiset<std::string> names;
    for (const auto& request : server.requests()) names.insert(request.json()["name"]);
    EXPECT_EQ(names.size(), 40u);
    for (int n = 0; n < 40; ++n) EXPECT_EQ(names.count(std::to_string(n)), 1u) << n;
}

// Killed at random moments while it adds and flushes, tern never leaves a queue that does not
// read, and every task it reported as stored (exit 0) is sent by a later run.
TEST_F(TernHostTest, KilledAtRandomMomentsItLeavesAReadableQueueAndLosesNoStoredTask) {
    // Moments up to half again as long as a whole command takes on this build and machine.
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(tern({"identify", "kim", "--flush"}).exitCode, 0);
    const std::chrono::duration<double> whole = std::chrono::steady_clock::now() - start;
    std::mt19937 random(20261125);
    std::uniform_real_distribution<double> moment(0.0, 1.5 * whole.count());
    std::set<std::string> stored;
    int killed = 0;
    for (int trial = 0; trial < 200; ++trial) {
        const std::string name = "e" + std::to_string(trial);
        const auto result = tern({"track", name, "--flush"}, moment(random));
        if (result.exitCode == 0) {
            stored.insert(name);
        } else {
            EXPECT_EQ(result.exitCode, 128 + SIGKILL) << result.err;
            ++killed;
        }
    }
    EXPECT_GT(killed, 10);
    EXPECT_GT(stored.size(), 10u);
    EXPECT_TRUE(queueStatus()["tasks"].is_array());
    ASSERT_EQ(tern({"queue", "run"}).exitCode, 0);
    std::set<std::string> sent;
    for (const auto& request : server.requests()) {
        if (request.json().contains("name")) sent.insert(request.json()["name"].get<std::string>());
    }
    for (const auto& name : stored) EXPECT_TRUE(sent.contains(name)) << name << " lost";
}

TEST_F(TernHostTest, SiteAndKeyComeFromTheOptionsElseTheEnvironmentElseTheBuild) {
    const std::string configText = config().dump();
    auto authorizationOf = [&](std::vector<std::string> arguments,
                               const std::map<std::string, std::string>& environment) {
        const auto before = server.requests().size();
        arguments.insert(arguments.end(), {"--config", configText, "identify", "carol", "--flush"});
        auto result = runWith(arguments, environment);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        auto received = server.requests();
        return received.size() > before ? received.back().header("Authorization") : "";
    };
    auto basic = [](const std::string& site, const std::string& key) {
        return "Basic " + vontu::platform::base64Encode(site + ":" + key);
    };
    const std::map<std::string, std::string> fromEnvironment = {{"TERN_SITE_ID", "env-site"},
                                                                {"TERN_API_KEY", "env-key"}};
    EXPECT_EQ(authorizationOf({"--site-id", "opt-site", "--api-key", "opt-key"}, fromEnvironment),
              basic("opt-site", "opt-key"));
    EXPECT_EQ(authorizationOf({}, fromEnvironment), basic("env-site", "env-key"));
    EXPECT_EQ(authorizationOf({}, {{"TERN_SITE_ID", ""}, {"TERN_API_KEY", ""}}),
              basic(TERN_SITE_ID, TERN_API_KEY));
}

TEST_F(TernHostTest, BadUsageIsOneErrorLineAndExitTwoWithNothingQueued) {
    const std::string configText = config().dump();
    const std::vector<std::vector<std::string>> cases = {
        {"track", "x", "--data", "{not json"}, {"identify", "a", "--attributes", "[1, 2]"},
        {"device-attributes", "\"text\""},     {"frobnicate"},
        {"queue", "frobnicate"},               {},
        {"identify"},                          {"clear-identify", "extra"},
        {"metric", "dlv", "bounced", "tok"},   {"track", "x", "--no-such-option"},
        {"open", "no-such-push.json"},         {"open", "--action"},
        {"open", "/"},                         {"--site-id", "../../x", "identify", "a"},
        {"--bundle-id", "..", "identify", "a"},
    };
    for (const auto& command : cases) {
        std::vector<std::string> arguments = {"--config", configText};
        arguments.insert(arguments.end(), command.begin(), command.end());
        auto result = runWith(arguments);
        std::string shown = command.empty() ? "(no command)" : command.front();
        EXPECT_EQ(result.exitCode, 2) << shown;
        EXPECT_TRUE(result.out.empty()) << shown;
        EXPECT_TRUE(result.err.starts_with("tern: ")) << shown << ": " << result.err;
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << shown << ": " << result.err;
    }
    auto unreadableConfig = runWith({"--config", "{\"trackingApiUrl\":", "track", "x"});
    EXPECT_EQ(unreadableConfig.exitCode, 2);
    EXPECT_EQ(unreadableConfig.err, "tern: --config is not JSON\n");
    auto missingPush = runWith({"open", "no-such-push.json", "--action", "reply"});
    EXPECT_EQ(missingPush.err, "tern: cannot read no-such-push.json\n");

    // Nothing reached the platform: no state, no queue, no request.
    EXPECT_FALSE(std::filesystem::exists(home.path() / "apps"));
    EXPECT_EQ(queueStatus()["numTasksInQueue"], 0);
    EXPECT_TRUE(server.requests().empty());
}

}  // namespace
}  // namespace tern::testing
