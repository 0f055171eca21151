// The JSON forms of notifications that the hosts read and print, and the attachment checks.

#include <gtest/gtest.h>

#include <fstream>

#include "platform/Crypto.hpp"
#include "platform/NotificationJson.hpp"
#include "tests/support/TempDir.hpp"

namespace vontu::platform {
namespace {

using nlohmann::json;

TEST(NotificationJson, AContentRoundTripsWithEveryField) {
    NotificationContent content;
    content.title = "T";
    content.subtitle = "S";
    content.body = "B";
    content.categoryIdentifier = "NewMail";
    content.threadIdentifier = "thread";
    content.userInfo = {{"aps", {{"session", "x"}}}, {"n", 5}};
    content.sound = NotificationSound::soundNamed("Beep.caf");
    content.attachments = {{"img", "file:///tmp/a.png", "public.png"}};
    Person sender{{"jane@example.com", PersonHandleType::emailAddress}, "Jane", "Jane",
                  Image{{0x89, 'P', 0, 0xFF}}, std::nullopt, "ABC"};
    content.communication = CommunicationContext{sender};

    json form = toJson(content);
    EXPECT_EQ(form["sound"], (json{{"named", "Beep.caf"}}));
    EXPECT_EQ(form["communication"]["sender"]["handle"],
              (json{{"value", "jane@example.com"}, {"type", "emailAddress"}}));
    EXPECT_EQ(form["communication"]["sender"]["image"]["data"], base64Encode(sender.image->data));
    EXPECT_EQ(contentFromJson(form).value(), content);

    content.sound = NotificationSound::defaultSound();
    content.communication.reset();
    form = toJson(content);
    EXPECT_EQ(form["sound"], "default");
    EXPECT_TRUE(form["communication"].is_null());
    EXPECT_EQ(contentFromJson(form).value(), content);
}

TEST(NotificationJson, ApnsPayloadsGiveTheirTextsAndKeepTheWholePayload) {
    json payload = {{"aps", {{"alert", {{"title", "T"}, {"subtitle", "S"}, {"body", "B"}}},
                             {"category", "ReadNotif"}, {"thread-id", "th"}}},
                    {"extra", 1}};
    auto request = requestFromJson(payload).value();
    EXPECT_EQ(request.identifier.size(), 36u);
    EXPECT_EQ(request.content.title, "T");
    EXPECT_EQ(request.content.subtitle, "S");
    EXPECT_EQ(request.content.body, "B");
    EXPECT_EQ(request.content.categoryIdentifier, "ReadNotif");
    EXPECT_EQ(request.content.threadIdentifier, "th");
    EXPECT_EQ(request.content.userInfo, payload);

    EXPECT_EQ(requestFromJson({{"aps", {{"alert", "just a body"}}}})->content.body, "just a body");
    // Fields of the wrong type are left out rather than refused.
    auto odd = requestFromJson({{"aps", {{"alert", 5}, {"category", true}}}}).value();
    EXPECT_EQ(odd.content.body, "");
    EXPECT_EQ(odd.content.categoryIdentifier, "");
    EXPECT_TRUE(requestFromJson({{"aps", "not an object"}}));
}

TEST(NotificationJson, ReadersRefuseWhatTheyCannotUseWithAReason) {
    const json bad[] = {
        json::array(),
        json{{"neither", 1}},
        json{{"content", "x"}},
        json{{"content", {{"title", 5}}}},
        json{{"content", {{"userInfo", "x"}}}},
        json{{"content", {{"sound", 3}}}},
        json{{"content", {{"attachments", {1}}}}},
        json{{"content", {{"communication", {{"sender", {{"image", {{"data", "!!"}}}}}}}}}},
        json{{"identifier", 7}, {"content", json::object()}},
    };
    for (const auto& input : bad) {
        auto request = requestFromJson(input);
        ASSERT_FALSE(request) << input;
        EXPECT_FALSE(request.error().empty());
    }
    auto request = requestFromJson({{"content", json::object()}}).value();
    EXPECT_FALSE(request.identifier.empty());  // a missing identifier gets a new one
}

TEST(NotificationAttachment, AcceptsOnlyImagesUpToTenMegabytes) {
    vontu::testing::TempDir dir;
    auto write = [&](const char* name, std::string bytes) {
        std::ofstream(dir.path() / name, std::ios::binary) << bytes;
        return dir.path() / name;
    };
    EXPECT_EQ(NotificationAttachment::make("a", write("a.png", "\x89PNG\r\n\x1a\nrest"))->type,
              "public.png");
    EXPECT_EQ(NotificationAttachment::make("b", write("b.jpg", "\xFF\xD8\xFFrest"))->type,
              "public.jpeg");
    auto gif = NotificationAttachment::make("c", write("c.gif", "GIF89arest"));
    ASSERT_TRUE(gif);
    EXPECT_EQ(gif->type, "com.compuserve.gif");
    EXPECT_EQ(gif->url, "file://" + (dir.path() / "c.gif").string());
    EXPECT_FALSE(NotificationAttachment::make("d", write("d.txt", "hello")));
    EXPECT_FALSE(NotificationAttachment::make("e", dir.path() / "missing.png"));
    EXPECT_FALSE(NotificationAttachment::make("f", dir.path()));
    std::string huge = "\x89PNG\r\n\x1a\n";
    huge.resize(kMaxAttachmentBytes + 1, 'x');
    EXPECT_FALSE(NotificationAttachment::make("g", write("g.png", huge)));
}

}  // namespace
}  // namespace vontu::platform
