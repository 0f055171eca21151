#include "messaging_push/TernParsedPushPayload.hpp"

#include <fstream>
#include <thread>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/common/RecordingLogger.hpp"
#include "tests/support/TempDir.hpp"

namespace tern {
namespace {

using nlohmann::json;
using testing::RecordingLogger;
using vontu::platform::NotificationAttachment;
using vontu::platform::NotificationContent;

// A complete 1x1 RGBA PNG.
const std::vector<unsigned char> onePixelPng = {
    0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x48, 0x44,
    0x52, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x08, 0x06, 0x00, 0x00, 0x00, 0x1F,
    0x15, 0xC4, 0x89, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x44, 0x41, 0x54, 0x78, 0x9C, 0x63, 0x00,
    0x01, 0x00, 0x00, 0x05, 0x00, 0x01, 0x0D, 0x0A, 0x2D, 0xB4, 0x00, 0x00, 0x00, 0x00, 0x49,
    0x45, 0x4E, 0x44, 0xAE, 0x42, 0x60, 0x82};

void writeFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string pngBytes() { return {onePixelPng.begin(), onePixelPng.end()}; }

NotificationContent contentWithUserInfo(json userInfo) {
    NotificationContent content;
    content.title = "Spring sale";
    content.body = "Everything 20% off";
    content.userInfo = std::move(userInfo);
    return content;
}

json richUserInfo(json push) {
    return {{"aps", {{"mutable-content", 1}, {"alert", "Everything 20% off"}}},
            {"TERN-Delivery-ID", "dlv-1"},
            {"TERN-Delivery-Token", "tok-1"},
            {"TERN", {{"push", std::move(push)}}}};
}

class TernParsedPushPayloadTest : public ::testing::Test {
protected:
    std::shared_ptr<TernParsedPushPayload> parse(json userInfo) {
        return TernParsedPushPayload::parse(contentWithUserInfo(std::move(userInfo)), adapter);
    }
    std::shared_ptr<TernParsedPushPayload> parseRich(json push) {
        return parse(richUserInfo(std::move(push)));
    }

    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<JsonAdapter> adapter = std::make_shared<JsonAdapter>(logger);
};

// --- Parsing ---------------------------------------------------------------------------

struct ParseCase {
    std::string name;
    json userInfo;
    bool isRichPush;
    std::optional<std::string> deepLink;  // absoluteString of the parsed link
    std::optional<std::string> image;
};

class ParseTable : public TernParsedPushPayloadTest,
                   public ::testing::WithParamInterface<ParseCase> {};

TEST_P(ParseTable, RecognisesTernPayloadsOnly) {
    const ParseCase& c = GetParam();
    auto payload = parse(c.userInfo);
    ASSERT_EQ(payload != nullptr, c.isRichPush);
    if (!payload) return;
    auto link = payload->deepLink();
    EXPECT_EQ(link ? std::optional(link->absoluteString()) : std::nullopt, c.deepLink);
    EXPECT_EQ(payload->imageUrlString(), c.image);
}

const json nullJson = nullptr;

INSTANTIATE_TEST_SUITE_P(
    Payloads, ParseTable,
    ::testing::Values(
        ParseCase{"RichPushWithLinkAndImage",
                  richUserInfo({{"link", "vontu://inbox/42"},
                                {"image", "https://cdn.example.com/sale.png"}}),
                  true, "vontu://inbox/42", "https://cdn.example.com/sale.png"},
        ParseCase{"PushWithNeitherLinkNorImage", richUserInfo(json::object()), true,
                  std::nullopt, std::nullopt},
        ParseCase{"NullMembersCountAsMissing",
                  richUserInfo({{"link", nullJson}, {"image", nullJson}}), true, std::nullopt,
                  std::nullopt},
        ParseCase{"UnknownMembersAreIgnored",
                  {{"TERN", {{"push", {{"link", "https://vontu.app/x"}, {"badge", 3}}},
                             {"version", 2}}}},
                  true, "https://vontu.app/x", std::nullopt},
        ParseCase{"LinkThatIsNotAUrlHasNoDeepLink",
                  richUserInfo({{"link", "not a link"}, {"image", "also not a url"}}), true,
                  std::nullopt, "also not a url"},
        ParseCase{"DeliveryKeysNeedNotBeStringsToParse",
                  {{"TERN-Delivery-ID", 7}, {"TERN", {{"push", {{"link", "app://a"}}}}}}, true,
                  "app://a", std::nullopt},
        ParseCase{"NoTernKeyIsASimplePush",
                  {{"aps", {{"alert", "hi"}}},
                   {"TERN-Delivery-ID", "dlv-1"},
                   {"TERN-Delivery-Token", "tok-1"}},
                  false, std::nullopt, std::nullopt},
        ParseCase{"EmptyUserInfo", json::object(), false, std::nullopt, std::nullopt},
        ParseCase{"UserInfoNotAnObject", json::array({"TERN"}), false, std::nullopt,
                  std::nullopt},
        ParseCase{"TernIsAString", {{"TERN", "{\"push\":{}}"}}, false, std::nullopt,
                  std::nullopt},
        ParseCase{"TernIsAnArray", {{"TERN", json::array({json::object()})}}, false,
                  std::nullopt, std::nullopt},
        ParseCase{"TernIsNull", {{"TERN", nullJson}}, false, std::nullopt, std::nullopt},
        ParseCase{"TernWithoutPush", {{"TERN", {{"link", "app://a"}}}}, false, std::nullopt,
                  std::nullopt},
        ParseCase{"PushIsNull", {{"TERN", {{"push", nullJson}}}}, false, std::nullopt,
                  std::nullopt},
        ParseCase{"PushIsAString", {{"TERN", {{"push", "app://a"}}}}, false, std::nullopt,
                  std::nullopt},
        ParseCase{"LinkIsANumber", richUserInfo({{"link", 42}}), false, std::nullopt,
                  std::nullopt},
        ParseCase{"ImageIsAnObject", richUserInfo({{"image", {{"url", "https://x/y.png"}}}}),
                  false, std::nullopt, std::nullopt},
        ParseCase{"LinkIsNotUtf8", richUserInfo({{"link", "app://\xff"}}), false, std::nullopt,
                  std::nullopt}),
    [](const ::testing::TestParamInfo<ParseCase>& caseInfo) { return caseInfo.param.name; });

TEST_F(TernParsedPushPayloadTest, UndecodableTernPayloadIsLoggedByTheAdapter) {
    EXPECT_EQ(parse({{"TERN", {{"image", "https://x/y.png"}}}}), nullptr);
    auto errors = logger->messages(RecordingLogger::Level::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with("Decode key not found. Key: push")) << errors[0];
}

TEST_F(TernParsedPushPayloadTest, KeepsTheContentAsItArrivedBesideTheEditableCopy) {
    auto payload = parseRich({{"link", "vontu://inbox/42"}});
    ASSERT_NE(payload, nullptr);
    const NotificationContent arrived =
        contentWithUserInfo(richUserInfo({{"link", "vontu://inbox/42"}}));
    EXPECT_EQ(payload->originalContent(), arrived);
    EXPECT_EQ(payload->mutableContent(), arrived);
}

TEST(TernPushPayload, EncodesOnlyThePresentMembers) {
    JsonAdapter adapter(std::make_shared<RecordingLogger>());
    TernPushPayload payload{{"app://a", std::nullopt}};
    EXPECT_EQ(adapter.toJsonString(payload, false), R"({"push":{"link":"app://a"}})");
    EXPECT_EQ(adapter.fromJson<TernPushPayload>(R"({"push":{"link":"app://a"}})"), payload);
}

// --- Edits -----------------------------------------------------------------------------

TEST_F(TernParsedPushPayloadTest, TitleAndBodyEditsChangeOnlyTheDeliveredContent) {
    auto payload = parseRich(json::object());
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->title(), "Spring sale");
    EXPECT_EQ(payload->body(), "Everything 20% off");

    payload->setTitle("Last day");
    payload->setBody("Sale ends tonight");

    EXPECT_EQ(payload->title(), "Last day");
    EXPECT_EQ(payload->body(), "Sale ends tonight");
    EXPECT_EQ(payload->mutableContent().title, "Last day");
    EXPECT_EQ(payload->mutableContent().body, "Sale ends tonight");
    EXPECT_EQ(payload->originalContent().title, "Spring sale");
    EXPECT_EQ(payload->originalContent().body, "Everything 20% off");
}

TEST_F(TernParsedPushPayloadTest, DeepLinkCanBeReplacedAndRemoved) {
    auto payload = parseRich({{"link", "vontu://inbox/42"}});
    ASSERT_NE(payload, nullptr);

    payload->setDeepLink(Url::parse("https://vontu.app/promo?id=9"));
    ASSERT_TRUE(payload->deepLink().has_value());
    EXPECT_EQ(payload->deepLink()->absoluteString(), "https://vontu.app/promo?id=9");

    payload->setDeepLink(std::nullopt);
    EXPECT_FALSE(payload->deepLink().has_value());
}

// --- Attachments -----------------------------------------------------------------------

TEST_F(TernParsedPushPayloadTest, AddImageAttachesAPngUnderAFreshTernIdentifier) {
    vontu::testing::TempDir dir;
    const auto image = dir.path() / "download.png";
    writeFile(image, pngBytes());
    auto payload = parseRich({{"image", "https://cdn.example.com/sale.png"}});
    ASSERT_NE(payload, nullptr);

    payload->addImage(image);

    const auto attachments = payload->mutableContent().attachments;
    ASSERT_EQ(attachments.size(), 1u);
    EXPECT_TRUE(std::regex_match(attachments[0].identifier, std::regex("tern_sdk_[a-z]{10}")))
        << attachments[0].identifier;
    EXPECT_EQ(attachments[0].url, "file://" + image.string());
    EXPECT_EQ(attachments[0].type, "public.png");
    EXPECT_TRUE(payload->originalContent().attachments.empty());
}

TEST_F(TernParsedPushPayloadTest, AddImageLeavesTheContentAloneWhenTheFileCannotBeAttached) {
    vontu::testing::TempDir dir;
    const auto text = dir.path() / "download.png";
    writeFile(text, "<html>404 Not Found</html>");
    auto payload = parseRich({{"image", "https://cdn.example.com/sale.png"}});
    ASSERT_NE(payload, nullptr);

    payload->addImage(text);
    payload->addImage(dir.path() / "missing.png");
    payload->addImage(dir.path());

    EXPECT_TRUE(payload->mutableContent().attachments.empty());
    EXPECT_TRUE(payload->ternAttachments().empty());
}

TEST_F(TernParsedPushPayloadTest, TernAttachmentsAreTheOnesThisLibraryAddedInOrder) {
    vontu::testing::TempDir dir;
    const auto image = dir.path() / "a.png";
    writeFile(image, pngBytes());
    auto sendersOwn = NotificationAttachment::make("brand-logo", image);
    ASSERT_TRUE(sendersOwn.has_value());

    NotificationContent content = contentWithUserInfo(richUserInfo(json::object()));
    content.attachments.push_back(*sendersOwn);
    auto payload = TernParsedPushPayload::parse(content, adapter);
    ASSERT_NE(payload, nullptr);

    payload->addImage(image);
    payload->addImage(image);

    const auto all = payload->mutableContent().attachments;
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].identifier, "brand-logo");

    const auto ours = payload->ternAttachments();
    ASSERT_EQ(ours.size(), 2u);
    EXPECT_EQ(ours[0], all[1]);
    EXPECT_EQ(ours[1], all[2]);
    EXPECT_NE(ours[0].identifier, ours[1].identifier);
}

// A download may complete while the system's time runs out and the content is delivered from
// another thread: both sides see a whole content, with or without the image.
TEST_F(TernParsedPushPayloadTest, ImageMayArriveWhileTheContentIsBeingDelivered) {
    vontu::testing::TempDir dir;
    const auto image = dir.path() / "download.png";
    writeFile(image, pngBytes());
    auto payload = parseRich({{"image", "https://cdn.example.com/sale.png"}});
    ASSERT_NE(payload, nullptr);

    constexpr std::size_t images = 20;
    std::thread download([&] {
        for (std::size_t i = 0; i < images; ++i) payload->addImage(image);
    });
    std::size_t seenBefore = 0;
    for (int read = 0; read < 200; ++read) {
        const std::size_t seen = payload->mutableContent().attachments.size();
        EXPECT_GE(seen, seenBefore);
        seenBefore = seen;
        EXPECT_FALSE(payload->description().empty());
    }
    download.join();
    EXPECT_EQ(payload->ternAttachments().size(), images);
}

}  // namespace
}  // namespace tern
