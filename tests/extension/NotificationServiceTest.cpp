// The extension against a real defaults suite and a real relay server on 127.0.0.1. (The common
// read receipt, new mail and expiry paths are checked through vontu-nse.)

#include <gtest/gtest.h>

#include <mutex>

#include "extension/NotificationService.hpp"
#include "extension/QLXSoundsManager.hpp"
#include "extension/SharedDefaults.hpp"
#include "tests/support/CompletionRecorder.hpp"
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
    bool didReceiveNotificationRequest(const platform::NotificationRequest&, const ContentHandler&) override { return false; }
    void serviceExtensionTimeWillExpire() override { ++expiries; }
    int expiries = 0;
};

platform::NotificationRequest push(json aps) {
    platform::NotificationRequest request;
    request.content.title = "Jane Doe";
    request.content.body = "pushed body";
    request.content.userInfo = {{"aps", std::move(aps)}};
    return request;
}

json newMail() {
    return {{"category", "NewMail"}, {"session", "Work@Example.com"}, {"from", "Jane Doe <jane@example.com>"},
            {"participants", "Bob <bob@example.com>"}, {"token", "tok"}, {"uid", "42"}};
}

class NotificationServiceTest : public ::testing::Test {
protected:
    std::shared_ptr<NotificationService> service(const std::string& relay = "http://relay.test") {
        return std::make_shared<NotificationService>(relay, [this]() -> PushTrackingBridge& { return bridge_; });
    }
    std::optional<NotificationContent> deliver(const platform::NotificationRequest& request,
                                               const std::string& relay = "http://relay.test") {
        vontu::testing::CompletionRecorder<NotificationContent> first;
        service(relay)->didReceiveNotificationRequest(request, first.completion());
        return first.await();
    }
    std::vector<httplib::Request> received() { std::lock_guard lock(mutex_); return received_; }
    void relayAnswers(std::string answer) { std::lock_guard lock(mutex_); answer_ = std::move(answer); }
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
        settings.network.connectTo = {relay_.connectTo("relay.test", 9001), "closed.test:9001:127.0.0.1:1"};
        return settings;
    }()};
    DecliningBridge bridge_;
};

TEST_F(NotificationServiceTest, ReadReceiptsAreAnsweredFromTheTrackRecord) {
    auto track = [](PlistDictionary readers) { return PlistDictionary{{"title", "Read!"}, {"body", "fallback"}, {"read_by", readers}}; };
    // The record stored as Track_abc, the reader pushed, the content shown, the record left.
    const struct { const char* name; PlistValue record; json reader; std::string title, body; std::optional<PlistValue> left; } cases[] = {
        {"only reader", track({{"bob@x", "Bob read it"}}), "bob@x", "Read!", "Bob read it", std::nullopt},
        {"reader without text", track({{"bob@x", ""}, {"eve@x", "Eve"}}), "bob@x", "Read!", "fallback", track({{"eve@x", "Eve"}})},
        {"record not a dictionary", PlistValue("odd"), "bob@x", "Jane Doe", "pushed body", PlistValue("odd")},
        {"record of the wrong shape", PlistDictionary{{"title", 7}, {"read_by", "nobody"}}, "bob@x", "", "", std::nullopt},
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
}

TEST_F(NotificationServiceTest, NewMailPostsTheExactRequestAndStoresTheMessage) {
    relayAnswers(R"({"msg-42": "From: jane@example.com\r\n\r\nHello"})");
    defaults().setObject(PlistDictionary{{"id", "device-7"}}, "DeviceID");
    QLXSoundsManager::sharedManager().useSound("Beep", "WORK@example.com");  // in any case
    json aps = newMail();
    aps.update({{"gid", 99}, {"gtid", {{"$date", 5}}}});  // a payload's object stays an object
    auto content = deliver(push(aps));
    ASSERT_TRUE(content);
    ASSERT_EQ(received().size(), 1u);
    const auto r = received()[0];
    EXPECT_EQ(r.body, R"({"device":{"id":"device-7"},"key":"tok","uid":"42","user":"Work@Example.com"})");
    EXPECT_EQ(r.get_header_value("Content-Type"), "application/json; charset=UTF-8");
    EXPECT_EQ(r.get_header_value("Host"), "relay.test:9001");
    EXPECT_EQ(defaults().objectForKey("EML_Work@Example.com_msg-42"),
              PlistValue(PlistDictionary{{"eml", "From: jane@example.com\r\n\r\nHello"}, {"gid", 99},
                                         {"gtid", PlistDictionary{{"$date", 5}}}}));
    EXPECT_EQ(content->sound, platform::NotificationSound::soundNamed("Beep.caf"));
}

TEST_F(NotificationServiceTest, OnlyAnAnswerWithAMessageIsStoredAndOnlyItsFirstKey) {
    const std::string deeplyNested = std::string(200000, '[') + std::string(200000, ']');
    const std::pair<std::string, std::size_t> answers[] = {
        {R"({"error": "bad key", "msg": "x"})", 0}, {R"({"msg":)", 0}, {R"({"msg": 12})", 0},
        {R"({"msg": )" + deeplyNested + "}", 0},
        {R"({"a": "first source", "b": "second source"})", 1}};
    for (const auto& [answer, stored] : answers) {
        SCOPED_TRACE(answer.substr(0, 40));
        relayAnswers(answer);
        ASSERT_TRUE(deliver(push(newMail())));
        EXPECT_EQ(defaults().dictionaryRepresentation().size(), stored);
    }
    EXPECT_TRUE(defaults().objectForKey("EML_Work@Example.com_a"));
}

// A mail with attachments is larger than any other download; beyond the relay's own limit the
// mail is still delivered, without its source.
TEST_F(NotificationServiceTest, MessageSourcesOfUpToSixteenMebibytesAreStored) {
    constexpr std::size_t mebibyte = 1024 * 1024;
    const auto answerOf = [](std::size_t bytes) { return R"({"m":")" + std::string(bytes - 8, 'x') + R"("})"; };
    for (const auto& [answerBytes, stored] : {std::pair{16 * mebibyte, true}, std::pair{16 * mebibyte + 1, false}}) {
        SCOPED_TRACE(answerBytes);
        relayAnswers(answerOf(answerBytes));
        ASSERT_TRUE(deliver(push(newMail())));
        const auto record = defaults().objectForKey("EML_Work@Example.com_m");
        ASSERT_EQ(record.has_value(), stored);
        if (!stored) continue;
        const auto* source = record->as<PlistDictionary>()->at("eml").as<std::string>();
        EXPECT_EQ(source->size(), answerBytes - 8);
        defaults().removeObject("EML_Work@Example.com_m");
    }
}

// text in UTF-16 (unitBytes 2) or UTF-32 (4), in the byte order given, behind a byte order mark
// or not.
std::string encoded(std::u32string_view text, int unitBytes, bool bigEndian, bool withMark) {
    std::string bytes;
    const auto put = [&](char32_t unit) {
        for (int i = 0; i < unitBytes; ++i) {
            const int shift = 8 * (bigEndian ? unitBytes - 1 - i : i);
            bytes += static_cast<char>((unit >> shift) & 0xFF);
        }
    };
    if (withMark) put(0xFEFF);
    for (char32_t c : text) {
        if (unitBytes == 2 && c > 0xFFFF) {
            put(0xD800 + ((c - 0x10000) >> 10));
            put(0xDC00 + ((c - 0x10000) & 0x3FF));
        } else {
            put(c);
        }
    }
    return bytes;
}

// The phone's JSON parser reads UTF-16 and UTF-32 as well, told apart by a byte order mark or by
// where the zero bytes of the first characters fall.
TEST_F(NotificationServiceTest, AnAnswerInUtf16OrUtf32IsReadAsThePhoneReadsIt) {
    const std::u32string answer = U"{\"m\": \"caf\u00E9 \U0001F600\"}";
    for (const int unitBytes : {2, 4}) {
        for (const bool bigEndian : {false, true}) {
            for (const bool withMark : {false, true}) {
                SCOPED_TRACE(::testing::Message() << unitBytes << (bigEndian ? " BE" : " LE") << (withMark ? " BOM" : ""));
                relayAnswers(encoded(answer, unitBytes, bigEndian, withMark));
                ASSERT_TRUE(deliver(push(newMail())));
                EXPECT_EQ(defaults().objectForKey("EML_Work@Example.com_m"),
                          PlistValue(PlistDictionary{{"eml", "caf\u00E9 \U0001F600"}}));
                defaults().removeObject("EML_Work@Example.com_m");
            }
        }
    }
    // A lone surrogate is no text: nothing to store.
    relayAnswers(encoded(U"{\"m\": \"\xD800\"}", 2, false, false));
    ASSERT_TRUE(deliver(push(newMail())));
    EXPECT_TRUE(defaults().dictionaryRepresentation().empty());
}

TEST_F(NotificationServiceTest, AnEmptyObjectIsDeliveredOnlyByTheExpiryWarning) {
    relayAnswers("{}");
    vontu::testing::CompletionRecorder<NotificationContent> first;
    auto extension = service();
    extension->didReceiveNotificationRequest(push(newMail()), first.completion());
    // The relay has answered once the request is recorded; give the completion ample time.
    for (int i = 0; i < 2000 && received().empty(); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_EQ(received().size(), 1u);
    EXPECT_FALSE(first.await(1s));
    extension->serviceExtensionTimeWillExpire();
    EXPECT_TRUE(first.await());
    EXPECT_EQ(bridge_.expiries, 0);  // the bridge declined the push, so it is not told
}

TEST_F(NotificationServiceTest, WithoutWhatTheRelayNeedsOrWithoutARelayTheMailIsDelivered) {
    json numericUid = newMail();
    numericUid["uid"] = 42;  // a number where a string belongs counts as missing
    for (const json& aps : {numericUid, json("a string")}) {
        auto content = deliver(push(aps));
        ASSERT_TRUE(content) << aps;
        EXPECT_EQ(content->sound, platform::NotificationSound::soundNamed("notif.aiff"));
    }
    EXPECT_TRUE(received().empty());
    auto content = deliver(push(newMail()), "http://closed.test");
    ASSERT_TRUE(content);
    EXPECT_TRUE(content->communication);
}

TEST_F(NotificationServiceTest, ADeviceIdWithoutJsonFormIsSentAsAnEmptyBody) {
    defaults().setObject(PlistValue(platform::Date{1000}), "DeviceID");
    ASSERT_TRUE(deliver(push(newMail())));
    ASSERT_EQ(received().size(), 1u);
    EXPECT_EQ(received()[0].body, "");
}

TEST_F(NotificationServiceTest, ASoundChoiceThatIsNoKnownSoundFallsBack) {
    auto& sounds = QLXSoundsManager::sharedManager();
    sounds.useSound("null", "odd@example.com");
    EXPECT_EQ(sounds.soundFileForSession("odd@example.com"), "notif.aiff");
}

}  // namespace
}  // namespace vontu::extension
