#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
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
                          const std::map<std::string, std::string>& environment = {}) {
        std::vector<std::string> all = {"--home", home.path().string()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return vontu::testing::runProcess(vontu::testing::builtProgram("hosts/tern"), all, "",
                                          environment);
    }

    // tern with the test's site, key and configuration.
    ProcessResult tern(std::vector<std::string> arguments) {
        std::vector<std::string> all = {"--site-id", kSiteId, "--api-key", kApiKey, "--config",
                                        config().dump()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return runWith(all);
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

// The body's "timestamp" (or the device's "last_used") must be the time of the call; the
// rest of the body is compared as sent, byte for byte, with that number put in.
void expectStampedBody(const std::string& body, const std::string& expectedWithT,
                       std::int64_t notBefore, const std::vector<std::string>& stampPath) {
    auto parsed = json::parse(body, nullptr, false);
    ASSERT_FALSE(parsed.is_discarded()) << body;
    const json* stamp = &parsed;
    for (const auto& key : stampPath) stamp = &(*stamp)[key];
    ASSERT_TRUE(stamp->is_number_integer()) << body;
    auto seconds = stamp->get<std::int64_t>();
    EXPECT_GE(seconds, notBefore - 1);
    EXPECT_LE(seconds, secondsNow() + 1);
    std::string expected = expectedWithT;
    expected.replace(expected.find("T"), 1, std::to_string(seconds));
    EXPECT_EQ(body, expected);
}

TEST_F(TernHostTest, EachCommandSendsItsRequest) {
    const auto start = secondsNow();

    auto identify = sentBy({"identify", "alice", "--attributes", R"({"plan":"pro"})"});
    EXPECT_EQ(identify.method, "PUT");
    EXPECT_EQ(identify.path, "/api/v1/customers/alice");
    EXPECT_EQ(identify.body, R"({"plan":"pro"})");
    EXPECT_EQ(identify.header("Authorization"),
              "Basic " + vontu::platform::base64Encode(std::string(kSiteId) + ":" + kApiKey));
    EXPECT_EQ(identify.header("Content-Type"), "application/json; charset=utf-8");
    EXPECT_EQ(identify.header("User-Agent").rfind("Tern iOS Client/2.1.2", 0), 0u)
        << identify.header("User-Agent");

    auto event = sentBy({"track", "opened", "--data", R"({"n":1})"});
    EXPECT_EQ(event.method, "POST");
    EXPECT_EQ(event.path, "/api/v1/customers/alice/events");
    expectStampedBody(event.body,
                      R"({"data":{"n":1},"name":"opened","timestamp":T,"type":"event"})", start,
                      {"timestamp"});

    auto screen = sentBy({"screen", "Inbox"});
    EXPECT_EQ(screen.method, "POST");
    EXPECT_EQ(screen.path, "/api/v1/customers/alice/events");
    expectStampedBody(screen.body, R"({"data":{},"name":"Inbox","timestamp":T,"type":"screen"})",
                      start, {"timestamp"});

    auto registration = sentBy({"register-token", "tok123"});
    EXPECT_EQ(registration.method, "PUT");
    EXPECT_EQ(registration.path, "/api/v1/customers/alice/devices");
    expectStampedBody(registration.body,
                      R"({"device":{"attributes":{},"id":"tok123","last_used":T,"platform":"iOS"}})",
                      start, {"device", "last_used"});

    auto attributes = sentBy({"device-attributes", R"({"theme":"dark"})"});
    EXPECT_EQ(attributes.method, "PUT");
    EXPECT_EQ(attributes.path, "/api/v1/customers/alice/devices");
    expectStampedBody(
        attributes.body,
        R"({"device":{"attributes":{"theme":"dark"},"id":"tok123","last_used":T,"platform":"iOS"}})",
        start, {"device", "last_used"});

    auto profile = sentBy({"profile-attributes", R"({"plan":"team"})"});
    EXPECT_EQ(profile.method, "PUT");
    EXPECT_EQ(profile.path, "/api/v1/customers/alice");
    EXPECT_EQ(profile.body, R"({"plan":"team"})");

    auto metric = sentBy({"metric", "dlv-1", "OPENED", "tok123"});
    EXPECT_EQ(metric.method, "POST");
    EXPECT_EQ(metric.path, "/push/events");
    expectStampedBody(metric.body,
                      R"({"delivery_id":"dlv-1","device_id":"tok123","event":"opened","timestamp":T})",
                      start, {"timestamp"});

    auto deletion = sentBy({"delete-token"});
    EXPECT_EQ(deletion.method, "DELETE");
    EXPECT_EQ(deletion.path, "/api/v1/customers/alice/devices/tok123");
    EXPECT_EQ(deletion.body, "");

    // Clearing the profile takes the stored token off it; events are dropped afterwards.
    auto clearing = sentBy({"clear-identify"});
    EXPECT_EQ(clearing.method, "DELETE");
    EXPECT_EQ(clearing.path, "/api/v1/customers/alice/devices/tok123");
    const auto count = server.requests().size();
    EXPECT_EQ(tern({"track", "ignored", "--flush"}).exitCode, 0);
    EXPECT_EQ(server.requests().size(), count);
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
    const auto open = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "open");
        arguments.push_back("--flush");
        const auto before = server.requests().size();
        auto result = tern(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        auto received = server.requests();
        const std::string event =
            received.size() == before + 1
                ? json::parse(received.back().body, nullptr, false).value("event", "")
                : "(" + std::to_string(received.size() - before) + " requests)";
        return std::pair{json::parse(result.out, nullptr, false), event};
    };
    const auto link = writeTernPush(home, "link.json", "https://vontu.app/sale");

    // A tap opens the link through the system unless the app takes it as a universal link.
    auto [tapped, tapEvent] = open({link});
    EXPECT_EQ(tapped, json({{"handled", true}, {"opened", "https://vontu.app/sale"},
                            {"via", "system"}}));
    EXPECT_EQ(tapEvent, "opened");
    auto [universal, universalEvent] = open({link, "--universal-link-host", "vontu.app"});
    EXPECT_EQ(universal["via"], "universal-link");
    EXPECT_EQ(universalEvent, "opened");

    // A custom action counts as delivered and opens nothing; so does a link that is no URL.
    auto [replied, replyEvent] = open({link, "--action", "reply"});
    EXPECT_EQ(replied, json({{"handled", true}, {"opened", nullptr}, {"via", nullptr}}));
    EXPECT_EQ(replyEvent, "delivered");
    auto [badLink, badLinkEvent] = open({writeTernPush(home, "bad.json", "not a link")});
    EXPECT_EQ(badLink, json({{"handled", true}, {"opened", nullptr}, {"via", nullptr}}));
    EXPECT_EQ(badLinkEvent, "opened");

    // A push that is not Tern's is left to the app.
    const auto mail = home.path() / "mail.json";
    std::ofstream(mail) << R"({"aps":{"alert":"New mail"}})";
    auto [notOurs, notOursEvent] = open({mail.string()});
    EXPECT_EQ(notOurs, json({{"handled", false}, {"opened", nullptr}, {"via", nullptr}}));
    EXPECT_EQ(notOursEvent, "(0 requests)");
}

TEST_F(TernHostTest, AnFcmTokenIsRegisteredAsTheDeviceToken) {
    ASSERT_EQ(tern({"identify", "dana", "--flush"}).exitCode, 0);
    auto registration = sentBy({"fcm-token", "fcm-abc"});
    EXPECT_EQ(registration.method, "PUT");
    EXPECT_EQ(registration.path, "/api/v1/customers/dana/devices");
    EXPECT_EQ(json::parse(registration.body, nullptr, false)["device"]["id"], "fcm-abc");
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
    const auto& entry = status["tasks"][0];
    EXPECT_EQ(entry["task_type"], "identifyProfile");
    EXPECT_TRUE(entry["task_persisted_id"].is_string());
    EXPECT_TRUE(entry["created_at"].is_number_integer());

    auto run = tern({"queue", "run"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    auto received = server.requests();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].method, "PUT");
    EXPECT_EQ(received[0].path, "/api/v1/customers/bob");
    EXPECT_EQ(received[0].body, "{}");
    EXPECT_EQ(queueStatus()["numTasksInQueue"], 0);
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
        {"track", "x", "--data", "{not json"},
        {"identify", "a", "--attributes", "[1, 2]"},
        {"profile-attributes", "nope"},
        {"device-attributes", "\"text\""},
        {"frobnicate"},
        {"queue", "frobnicate"},
        {},
        {"identify"},
        {"clear-identify", "extra"},
        {"metric", "dlv", "bounced", "tok"},
        {"track", "x", "--no-such-option"},
        {"open", "no-such-push.json"},
        {"open", "--action"},
    };
    for (const auto& command : cases) {
        std::vector<std::string> arguments = {"--config", configText};
        arguments.insert(arguments.end(), command.begin(), command.end());
        auto result = runWith(arguments);
        std::string shown = command.empty() ? "(no command)" : command.front();
        EXPECT_EQ(result.exitCode, 2) << shown;
        EXPECT_TRUE(result.out.empty()) << shown;
        EXPECT_EQ(result.err.rfind("tern: ", 0), 0u) << shown << ": " << result.err;
        ASSERT_FALSE(result.err.empty());
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
