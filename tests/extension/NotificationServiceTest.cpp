// The extension against a real defaults suite and a real relay server on 127.0.0.1.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "extension/NotificationService.hpp"
#include "extension/QLXSoundsManager.hpp"
#include "extension/SharedDefaults.hpp"
#include "tests/support/LoopbackServer.hpp"
#include "tests/support/TestEnv.hpp"

namespace vontu::extension {
namespace {

using nlohmann::json;
using platform::NotificationContent;
using platform::PlistDictionary;
using platform::PlistValue;
using namespace std::chrono_literals;

// The push library's side, declining every push.
struct DecliningBridge final : PushTrackingBridge {
    bool didReceiveNotificationRequest(const platform::NotificationRequest&,
                                       const ContentHandler&) override {
        return false;
    }
    void serviceExtensionTimeWillExpire() override { ++expiries; }
    int expiries = 0;
};

// The first delivery of one request.
struct Deliveries {
    ContentHandler handler() {
        return [this](const NotificationContent& content) {
            std::lock_guard lock(mutex);
            if (!first) first = content;
            changed.notify_all();
        };
    }
    std::optional<NotificationContent> waitForFirst(std::chrono::seconds wait = 20s) {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, wait, [this] { return first.has_value(); });
        return first;
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::optional<NotificationContent> first;
};

platform::NotificationRequest push(json aps) {
    platform::NotificationRequest request;
    request.content.title = "Jane Doe";
    request.content.body = "pushed body";
    request.content.userInfo = {{"aps", std::move(aps)}};
    return request;
}

json newMail() {
    return {{"category", "NewMail"}, {"session", "Work@Example.com"},
            {"from", "Jane Doe <jane@example.com>"},
            {"participants", "Bob <bob@example.com>"}, {"token", "tok"}, {"uid", "42"}};
}

class NotificationServiceTest : public ::testing::Test {
protected:
    std::shared_ptr<NotificationService> service(const std::string& relay = "http://relay.test") {
        return std::make_shared<NotificationService>(
            relay, [this]() -> PushTrackingBridge& { return bridge_; });
    }
    // Runs one push through a new extension and waits for its first content.
    std::optional<NotificationContent> deliver(const platform::NotificationRequest& request,
                                               const std::string& relay = "http://relay.test") {
        Deliveries deliveries;
        service(relay)->didReceiveNotificationRequest(request, deliveries.handler());
        return deliveries.waitForFirst();
    }
    void relayAnswers(std::string answer) {
        std::lock_guard lock(mutex_);
        answer_ = std::move(answer);
    }
    std::vector<httplib::Request> received() {
        std::lock_guard lock(mutex_);
        return received_;
    }
    static platform::DefaultsSuite& defaults() { return *sharedDefaults(); }

    std::mutex mutex_;
    std::string answer_ = R"({"m": "source"})";
    std::vector<httplib::Request> received_;
    vontu::testing::LoopbackServer relay_{[this](httplib::Server& server) {
        server.Post("/post/eml", [this](const httplib::Request& request, httplib::Response& response) {
            std::lock_guard lock(mutex_);
            received_.push_back(request);
            response.set_content(answer_, "application/json");
        });
    }};
    vontu::testing::TestEnv env_{[this] {
        platform::linux_host::HostSettings settings;  // closed.test: the relay's port is closed
        settings.network.connectTo = {relay_.connectTo("relay.test", 9001),
                                      "closed.test:9001:127.0.0.1:1"};
        return settings;
    }()};
    DecliningBridge bridge_;
};

TEST_F(NotificationServiceTest, ReadReceiptsAreAnsweredFromTheTrackRecord) {
    auto track = [](PlistDictionary readers) {
        return PlistDictionary{{"title", "Read!"}, {"body", "fallback"}, {"read_by", readers}};
    };
    const PlistDictionary bob{{"bob@x", "Bob read it"}};
    // The record stored as Track_abc, the reader pushed, the content shown, the record left.
    const struct {
        const char* name;
        PlistValue record;
        json reader;
        std::string title, body;
        std::optional<PlistValue> left;
    } cases[] = {
        {"only reader", track(bob), "bob@x", "Read!", "Bob read it", std::nullopt},
        {"reader not a string keeps the record", track(bob), 5, "Read!", "fallback", track(bob)},
        {"reader without text", track({{"bob@x", ""}, {"eve@x", "Eve"}}), "bob@x", "Read!",
         "fallback", track({{"eve@x", "Eve"}})},
        {"no readers at all", track({}), "", "Read!", "fallback", std::nullopt},
        {"record not a dictionary: the pushed content", PlistValue("odd"), "bob@x", "Jane Doe",
         "pushed body", PlistValue("odd")},
        {"record of the wrong shape", PlistDictionary{{"title", 7}, {"read_by", "nobody"}},
         "bob@x", "", "", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        defaults().setObject(c.record, "Track_abc");
        auto content = deliver(push({{"category", "ReadNotif"}, {"md5", "abc"}, {"read_by", c.reader}}));
        ASSERT_TRUE(content);
        EXPECT_EQ(content->title, c.title);
        EXPECT_EQ(content->body, c.body);
        EXPECT_EQ(defaults().objectForKey("Track_abc"), c.left);
        defaults().removeObject("Track_abc");
    }
    EXPECT_TRUE(received().empty());
}

TEST_F(NotificationServiceTest, NewMailPostsTheExactRequestAndStoresTheMessage) {
    relayAnswers(R"({"msg-42": "From: jane@example.com\r\n\r\nHello"})");
    defaults().setObject(PlistDictionary{{"id", "device-7"}}, "DeviceID");
    QLXSoundsManager::sharedManager().useSound("Beep", "WORK@example.com");  // in any case
    json aps = newMail();
    aps["gid"] = 99;
    aps["gtid"] = "thread-1";
    auto content = deliver(push(aps));
    ASSERT_TRUE(content);

    ASSERT_EQ(received().size(), 1u);
    const auto r = received()[0];
    EXPECT_EQ(r.body,
              R"({"device":{"id":"device-7"},"key":"tok","uid":"42","user":"Work@Example.com"})");
    EXPECT_EQ(r.get_header_value("Accept"), "application/json");
    EXPECT_EQ(r.get_header_value("Content-Type"), "application/json; charset=UTF-8");
    EXPECT_EQ(r.get_header_value("Content-Length"), std::to_string(r.body.size()));
    EXPECT_EQ(r.get_header_value("Host"), "relay.test:9001");

    EXPECT_EQ(defaults().objectForKey("EML_Work@Example.com_msg-42"),
              PlistValue(PlistDictionary{{"eml", "From: jane@example.com\r\n\r\nHello"},
                                         {"gid", 99}, {"gtid", "thread-1"}}));
    EXPECT_EQ(content->sound, platform::NotificationSound::soundNamed("Beep.caf"));
}

TEST_F(NotificationServiceTest, OnlyAnAnswerWithAMessageIsStoredAndOnlyItsFirstKey) {
    const std::pair<const char*, std::size_t> answers[] = {
        {R"({"error": "bad key", "msg": "x"})", 0}, {"[1, 2]", 0}, {R"({"msg":)", 0},
        {R"({"msg": ""})", 0}, {R"({"msg": 12})", 0},
        {R"({"a": "first source", "b": "second source"})", 1}};
    for (const auto& [answer, stored] : answers) {
        SCOPED_TRACE(answer);
        relayAnswers(answer);
        ASSERT_TRUE(deliver(push(newMail())));
        EXPECT_EQ(defaults().dictionaryRepresentation().size(), stored);
    }
    EXPECT_TRUE(defaults().objectForKey("EML_Work@Example.com_a"));
    EXPECT_EQ(received().size(), std::size(answers));
}

TEST_F(NotificationServiceTest, AnEmptyObjectIsDeliveredOnlyByTheExpiryWarning) {
    relayAnswers("{}");
    Deliveries deliveries;
    auto extension = service();
    extension->didReceiveNotificationRequest(push(newMail()), deliveries.handler());
    // The relay has answered once the request is recorded; give the completion ample time.
    for (int i = 0; i < 2000 && received().empty(); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_EQ(received().size(), 1u);
    EXPECT_FALSE(deliveries.waitForFirst(1s));
    extension->serviceExtensionTimeWillExpire();
    EXPECT_TRUE(deliveries.waitForFirst());
    EXPECT_EQ(bridge_.expiries, 0);  // the bridge declined the push, so it is not told
}

TEST_F(NotificationServiceTest, WithoutWhatTheRelayNeedsTheMailIsDeliveredAtOnce) {
    json withoutSession = newMail(), numericUid = newMail();
    withoutSession.erase("session");
    numericUid["uid"] = 42;  // a number where a string belongs counts as missing
    // An aps that is not an object is new mail with nothing to fetch.
    for (const json& aps : {withoutSession, numericUid, json("a string")}) {
        SCOPED_TRACE(aps.dump());
        auto content = deliver(push(aps));
        ASSERT_TRUE(content);
        EXPECT_EQ(content->sound, platform::NotificationSound::soundNamed("notif.aiff"));
    }
    EXPECT_TRUE(received().empty());
}

TEST_F(NotificationServiceTest, ADeviceIdWithoutJsonFormIsSentAsAnEmptyBody) {
    defaults().setObject(PlistValue(platform::Date{1000}), "DeviceID");
    ASSERT_TRUE(deliver(push(newMail())));
    ASSERT_EQ(received().size(), 1u);
    EXPECT_EQ(received()[0].body, "");
    EXPECT_EQ(received()[0].get_header_value("Content-Length"), "0");
}

TEST_F(NotificationServiceTest, AClosedRelayPortStillDeliversTheMail) {
    auto content = deliver(push(newMail()), "http://closed.test");
    ASSERT_TRUE(content);
    EXPECT_TRUE(content->communication);
}

TEST_F(NotificationServiceTest, ASoundChoiceThatIsNoKnownSoundFallsBack) {
    auto& sounds = QLXSoundsManager::sharedManager();
    EXPECT_EQ(sounds.soundForSession("new@example.com"), "Chirp");
    sounds.useSound("null", "odd@example.com");
    EXPECT_EQ(sounds.soundForSession("odd@example.com"), "null");
    EXPECT_EQ(sounds.soundFileForSession("odd@example.com"), "notif.aiff");
}

}  // namespace
}  // namespace vontu::extension
