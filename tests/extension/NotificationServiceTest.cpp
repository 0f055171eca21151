// The extension against a real defaults suite and a real relay server on 127.0.0.1.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>

#include "extension/NotificationService.hpp"
#include "extension/SharedDefaults.hpp"
#include "platform/NotificationJson.hpp"
#include "tests/support/LoopbackServer.hpp"
#include "tests/support/TestEnv.hpp"

namespace vontu::extension {
namespace {

using nlohmann::json;
using platform::NotificationContent;
using platform::PlistDictionary;
using platform::PlistValue;
using namespace std::chrono_literals;

constexpr auto kGenerousWait = 20s;

// A bridge that records whether it was asked, and declines.
class RecordingBridge final : public PushTrackingBridge {
public:
    bool didReceiveNotificationRequest(const platform::NotificationRequest&,
                                       const ContentHandler&) override {
        ++asked;
        return false;
    }
    void serviceExtensionTimeWillExpire() override { ++expiries; }
    int asked = 0;
    int expiries = 0;
};

// Every delivery of one request, in order.
class Deliveries {
public:
    ContentHandler handler() {
        return [this](const NotificationContent& content) {
            std::lock_guard lock(mutex_);
            contents_.push_back(content);
            changed_.notify_all();
        };
    }
    std::optional<NotificationContent> waitForFirst(std::chrono::seconds wait = kGenerousWait) {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, wait, [this] { return !contents_.empty(); })) {
            return std::nullopt;
        }
        return contents_.front();
    }
    std::size_t count() {
        std::lock_guard lock(mutex_);
        return contents_.size();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<NotificationContent> contents_;
};

platform::NotificationRequest push(json aps, std::string title = "Jane Doe") {
    platform::NotificationRequest request;
    request.identifier = "request-1";
    request.content.title = std::move(title);
    request.content.body = "pushed body";
    request.content.userInfo = {{"aps", std::move(aps)}};
    return request;
}

json newMail() {
    return {{"category", "NewMail"}, {"session", "Work@Example.com"},
            {"from", "Jane Doe <jane@example.com>"},
            {"participants", "Bob <bob@example.com>"}, {"token", "tok"}, {"uid", "42"}};
}

struct RelayRequest {
    std::string method, path, body;
    httplib::Headers headers;
};

class NotificationServiceTest : public ::testing::Test {
protected:
    NotificationServiceTest() : env_(settings(relay_)) {}

    static platform::linux_host::HostSettings settings(vontu::testing::LoopbackServer& relay) {
        platform::linux_host::HostSettings s;
        s.network.connectTo = {relay.connectTo("relay.test", 9001)};
        return s;
    }

    // The relay answers every request with this body and records what it got.
    void relayAnswers(std::string body) {
        relay_.server().Post("/post/eml", [this, body](const httplib::Request& req,
                                                        httplib::Response& res) {
            {
                std::lock_guard lock(mutex_);
                received_.push_back({req.method, req.path, req.body, req.headers});
            }
            res.set_content(body, "application/json");
        });
    }

    std::vector<RelayRequest> received() {
        std::lock_guard lock(mutex_);
        return received_;
    }

    std::shared_ptr<NotificationService> service() {
        return std::make_shared<NotificationService>(
            "http://relay.test", [this]() -> PushTrackingBridge& { return bridge_; });
    }

    platform::DefaultsSuite& defaults() { return *sharedDefaults(); }

    vontu::testing::LoopbackServer relay_;
    vontu::testing::TestEnv env_;
    RecordingBridge bridge_;
    std::mutex mutex_;
    std::vector<RelayRequest> received_;
};

// --- Read receipts

struct ReadReceiptCase {
    const char* name;
    PlistDictionary readers;
    std::string reader;
    std::string expectedBody;
    std::optional<PlistDictionary> expectedReadersLeft;  // absent: the record is removed
};

TEST_F(NotificationServiceTest, ReadReceiptsAreAnsweredFromTheTrackRecord) {
    const ReadReceiptCase cases[] = {
        {"only reader", {{"bob@x", "Bob read it"}}, "bob@x", "Bob read it", std::nullopt},
        {"one of two", {{"bob@x", "Bob read it"}, {"eve@x", "Eve read it"}}, "bob@x",
         "Bob read it", PlistDictionary{{"eve@x", "Eve read it"}}},
        {"empty reader keeps the record", {{"bob@x", "Bob read it"}}, "", "fallback",
         PlistDictionary{{"bob@x", "Bob read it"}}},
        {"unknown reader, others left", {{"bob@x", "Bob read it"}}, "zed@x", "fallback",
         PlistDictionary{{"bob@x", "Bob read it"}}},
        {"reader without text", {{"bob@x", ""}, {"eve@x", "Eve"}}, "bob@x", "fallback",
         PlistDictionary{{"eve@x", "Eve"}}},
        {"no readers at all", {}, "", "fallback", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        defaults().setObject(
            PlistDictionary{{"title", "Read!"}, {"body", "fallback"}, {"read_by", c.readers}},
            "Track_abc");
        Deliveries deliveries;
        service()->didReceiveNotificationRequest(
            push({{"category", "ReadNotif"}, {"md5", "abc"}, {"read_by", c.reader}}),
            deliveries.handler());
        auto content = deliveries.waitForFirst();
        ASSERT_TRUE(content);
        EXPECT_EQ(content->title, "Read!");
        EXPECT_EQ(content->body, c.expectedBody);
        auto record = defaults().objectForKey("Track_abc");
        if (c.expectedReadersLeft) {
            ASSERT_TRUE(record);
            EXPECT_EQ(record->as<PlistDictionary>()->at("read_by"), PlistValue(*c.expectedReadersLeft));
            EXPECT_EQ(record->as<PlistDictionary>()->at("title"), PlistValue("Read!"));
        } else {
            EXPECT_FALSE(record);
        }
    }
}

TEST_F(NotificationServiceTest, ReadReceiptWithoutUsableRecordKeepsThePushedContent) {
    defaults().setObject(PlistValue("not a dictionary"), "Track_odd");
    defaults().setObject(PlistDictionary{{"title", 7}, {"read_by", "nobody"}}, "Track_shape");
    for (json aps : {json{{"category", "ReadNotif"}, {"md5", "missing"}, {"read_by", "bob@x"}},
                     json{{"category", "ReadNotif"}, {"md5", "odd"}, {"read_by", 5}}}) {
        Deliveries deliveries;
        auto request = push(aps);
        service()->didReceiveNotificationRequest(request, deliveries.handler());
        auto content = deliveries.waitForFirst();
        ASSERT_TRUE(content);
        EXPECT_EQ(*content, request.content);
    }
    // A record of the wrong shape inside: no title, no readers, so the record goes.
    Deliveries deliveries;
    service()->didReceiveNotificationRequest(
        push({{"category", "ReadNotif"}, {"md5", "shape"}, {"read_by", "bob@x"}}),
        deliveries.handler());
    auto content = deliveries.waitForFirst();
    ASSERT_TRUE(content);
    EXPECT_EQ(content->title, "");
    EXPECT_EQ(content->body, "");
    EXPECT_FALSE(defaults().objectForKey("Track_shape"));
}

// --- New mail

TEST_F(NotificationServiceTest, NewMailPostsTheExactRequestAndStoresTheMessage) {
    relayAnswers(R"({"msg-42": "From: jane@example.com\r\n\r\nHello"})");
    defaults().setObject(PlistDictionary{{"id", "device-7"}}, "DeviceID");
    defaults().setObject(PlistValue("Beep"), "work@example.com");
    json aps = newMail();
    aps["gid"] = 99;
    aps["gtid"] = "thread-1";
    Deliveries deliveries;
    service()->didReceiveNotificationRequest(push(aps), deliveries.handler());
    auto content = deliveries.waitForFirst();
    ASSERT_TRUE(content);

    auto requests = received();
    ASSERT_EQ(requests.size(), 1u);
    const auto& r = requests[0];
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.path, "/post/eml");
    EXPECT_EQ(r.body,
              R"({"device":{"id":"device-7"},"key":"tok","uid":"42","user":"Work@Example.com"})");
    auto header = [&](const char* name) {
        auto it = r.headers.find(name);
        return it == r.headers.end() ? std::string("<none>") : it->second;
    };
    EXPECT_EQ(header("Accept"), "application/json");
    EXPECT_EQ(header("Content-Type"), "application/json; charset=UTF-8");
    EXPECT_EQ(header("Content-Length"), std::to_string(r.body.size()));
    EXPECT_EQ(header("Host"), "relay.test:9001");

    auto stored = defaults().objectForKey("EML_Work@Example.com_msg-42");
    ASSERT_TRUE(stored);
    EXPECT_EQ(*stored, PlistValue(PlistDictionary{
                           {"eml", "From: jane@example.com\r\n\r\nHello"},
                           {"gid", 99},
                           {"gtid", "thread-1"}}));
    ASSERT_TRUE(content->sound);
    EXPECT_EQ(content->sound->named, "Beep.caf");
}

TEST_F(NotificationServiceTest, RelayAnswersThatCarryNoMessageStoreNothing) {
    const char* answers[] = {R"({"error": "bad key", "msg": "x"})", "[1, 2]", "\"fragment\"",
                             "not json at all", R"({"msg": ""})", R"({"msg": 12})", R"({"msg":)"};
    for (const char* answer : answers) {
        SCOPED_TRACE(answer);
        relayAnswers(answer);
        Deliveries deliveries;
        service()->didReceiveNotificationRequest(push(newMail()), deliveries.handler());
        ASSERT_TRUE(deliveries.waitForFirst());
        auto all = defaults().dictionaryRepresentation();
        for (const auto& [key, value] : all) EXPECT_FALSE(key.starts_with("EML_")) << key;
    }
}

TEST_F(NotificationServiceTest, TwoKeysStoreExactlyOneRecord) {
    relayAnswers(R"({"a": "first source", "b": "second source"})");
    Deliveries deliveries;
    service()->didReceiveNotificationRequest(push(newMail()), deliveries.handler());
    ASSERT_TRUE(deliveries.waitForFirst());
    int records = 0;
    for (const auto& [key, value] : defaults().dictionaryRepresentation()) {
        records += key.starts_with("EML_Work@Example.com_") ? 1 : 0;
    }
    EXPECT_EQ(records, 1);
}

TEST_F(NotificationServiceTest, AnEmptyObjectIsDeliveredOnlyByTheExpiryWarning) {
    relayAnswers("{}");
    Deliveries deliveries;
    auto extension = service();
    extension->didReceiveNotificationRequest(push(newMail()), deliveries.handler());
    // The relay has answered once the request is recorded; give the completion ample time.
    for (int i = 0; i < 200 && received().empty(); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_EQ(received().size(), 1u);
    EXPECT_FALSE(deliveries.waitForFirst(1s));
    extension->serviceExtensionTimeWillExpire();
    EXPECT_TRUE(deliveries.waitForFirst());
    EXPECT_EQ(bridge_.expiries, 0);  // the bridge declined, so it is not told
}

TEST(NotificationServiceRelay, AClosedRelayPortStillDelivers) {
    platform::linux_host::HostSettings s;
    s.network.connectTo = {"relay.test:9001:127.0.0.1:1"};
    vontu::testing::TestEnv env(s);
    auto extension = std::make_shared<NotificationService>("http://relay.test");
    Deliveries deliveries;
    extension->didReceiveNotificationRequest(push(newMail()), deliveries.handler());
    auto content = deliveries.waitForFirst();
    ASSERT_TRUE(content);
    EXPECT_TRUE(content->communication);
}

TEST_F(NotificationServiceTest, MissingFetchArgumentsDeliverAtOnceWithoutARequest) {
    relayAnswers(R"({"m": "x"})");
    for (const char* missing : {"uid", "session", "token"}) {
        json aps = newMail();
        aps.erase(missing);
        Deliveries deliveries;
        service()->didReceiveNotificationRequest(push(aps), deliveries.handler());
        auto content = deliveries.waitForFirst();
        ASSERT_TRUE(content);
        ASSERT_TRUE(content->sound);
        EXPECT_TRUE(content->communication) << missing;
    }
    json numbers = newMail();
    numbers["uid"] = 42;  // a number where a string belongs counts as missing
    Deliveries deliveries;
    service()->didReceiveNotificationRequest(push(numbers), deliveries.handler());
    EXPECT_TRUE(deliveries.waitForFirst());
    EXPECT_TRUE(received().empty());
}

TEST_F(NotificationServiceTest, ADeviceIdWithoutJsonFormIsSentAsAnEmptyBody) {
    relayAnswers(R"({"m": "source"})");
    defaults().setObject(PlistValue(platform::Date{1000}), "DeviceID");
    Deliveries deliveries;
    service()->didReceiveNotificationRequest(push(newMail()), deliveries.handler());
    ASSERT_TRUE(deliveries.waitForFirst());
    auto requests = received();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].body, "");
    EXPECT_EQ(requests[0].headers.find("Content-Length")->second, "0");
}

TEST_F(NotificationServiceTest, AnApsThatIsNotAnObjectIsTreatedAsNewMailWithNothingToFetch) {
    relayAnswers(R"({"m": "x"})");
    platform::NotificationRequest request = push(json::array());
    request.content.userInfo = {{"aps", "a string"}};
    Deliveries deliveries;
    service()->didReceiveNotificationRequest(request, deliveries.handler());
    auto content = deliveries.waitForFirst();
    ASSERT_TRUE(content);
    EXPECT_EQ(content->sound, platform::NotificationSound::soundNamed("notif.aiff"));
    EXPECT_TRUE(received().empty());
}

TEST(NotificationServiceSystemVersion, TheBridgeIsAskedOnlyFrom13) {
    for (auto [version, asked] : {std::pair{"12.0", 0}, std::pair{"12.4", 0},
                                  std::pair{"13.0", 1}, std::pair{"17.0", 1}}) {
        platform::linux_host::HostSettings s;
        s.systemVersion = version;
        vontu::testing::TestEnv env(s);
        RecordingBridge bridge;
        auto extension = std::make_shared<NotificationService>(
            "http://relay.test", [&]() -> PushTrackingBridge& { return bridge; });
        Deliveries deliveries;
        extension->didReceiveNotificationRequest(
            push(newMail()), deliveries.handler());
        EXPECT_TRUE(deliveries.waitForFirst());
        EXPECT_EQ(bridge.asked, asked) << version;
    }
}

}  // namespace
}  // namespace vontu::extension
