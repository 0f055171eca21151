// The Tern part of a push: recognising it, and the content it will be delivered as.

#include <gtest/gtest.h>

#include <thread>

#include "tests/messaging_push/PushTestSupport.hpp"
#include "tests/support/TempDir.hpp"

namespace tern {
namespace {

using namespace testing;
using vontu::platform::NotificationAttachment;

TEST(TernParsedPushPayload, RecognisesOnlyAWellFormedTernPart) {
    const json null = nullptr;
    struct Case {
        const char* name;
        json userInfo;
        bool parsed;
        std::optional<std::string> link, image;
    };
    const Case cases[] = {
        {"link and image",
         richUserInfo({{"link", "vontu://inbox/42"}, {"image", "https://cdn.example.com/a.png"}}),
         true, "vontu://inbox/42", "https://cdn.example.com/a.png"},
        {"neither", richUserInfo(json::object()), true, {}, {}},
        {"null members are missing", richUserInfo({{"link", null}, {"image", null}}), true, {}, {}},
        {"unknown members, no delivery keys",
         {{"TERN", {{"push", {{"link", "https://vontu.app/x"}, {"badge", 3}}}, {"version", 2}}}},
         true, "https://vontu.app/x", {}},
        {"texts that are no URLs", richUserInfo({{"link", "not a link"}, {"image", "no url"}}),
         true, {}, "no url"},
        {"no TERN: a simple push", ternUserInfo(), false, {}, {}},
        {"user info not an object", json::array({"TERN"}), false, {}, {}},
        {"TERN a string", {{"TERN", "{\"push\":{}}"}}, false, {}, {}},
        {"TERN without push", {{"TERN", {{"link", "app://a"}}}}, false, {}, {}},
        {"push a string", {{"TERN", {{"push", "app://a"}}}}, false, {}, {}},
        {"link a number", richUserInfo({{"link", 42}}), false, {}, {}},
        {"image an object", richUserInfo({{"image", {{"url", "https://x/y.png"}}}}), false, {}, {}},
        {"link not UTF-8", richUserInfo({{"link", "app://\xff"}}), false, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto payload = parse(c.userInfo);
        ASSERT_EQ(payload != nullptr, c.parsed);
        if (!payload) continue;
        auto link = payload->deepLink();
        EXPECT_EQ(link ? std::optional(link->absoluteString()) : std::nullopt, c.link);
        EXPECT_EQ(payload->imageUrlString(), c.image);
    }
}

TEST(TernParsedPushPayload, OnlyReadablePngsAreAttachedEachUnderAFreshIdentifier) {
    vontu::testing::TempDir dir;
    const auto image = writePng(dir.path() / "download.png");
    std::ofstream(dir.path() / "page.png") << "<html>404 Not Found</html>";
    auto content = request(richUserInfo({{"image", imageUrl}})).content;
    content.attachments.push_back(*NotificationAttachment::make("brand-logo", image));
    auto payload = parse(content);
    ASSERT_NE(payload, nullptr);

    for (const auto& unusable : {dir.path() / "page.png", dir.path() / "missing.png", dir.path()}) {
        payload->addImage(unusable);
    }
    EXPECT_EQ(payload->mutableContent().attachments.size(), 1u);
    EXPECT_TRUE(payload->ternAttachments().empty());

    // Each attachment takes its file over, so each download can use the same name.
    payload->addImage(writePng(image));
    payload->addImage(writePng(image));
    const auto all = payload->mutableContent().attachments;
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].identifier, "brand-logo");
    EXPECT_EQ(payload->ternAttachments(), (std::vector{all[1], all[2]}));
    EXPECT_NE(all[1].identifier, all[2].identifier);
    EXPECT_EQ(all[1].url, "file://" + (dir.path() / (all[1].identifier + ".png")).string());
    EXPECT_FALSE(std::filesystem::exists(image));
    EXPECT_EQ(payload->originalContent().attachments.size(), 1u);
}

// A download may complete while the content is delivered from another thread on expiry: both
// sides see a whole content, with or without the image.
TEST(TernParsedPushPayload, ImageMayArriveWhileTheContentIsBeingDelivered) {
    vontu::testing::TempDir dir;
    auto payload = parse(richUserInfo({{"image", imageUrl}}));
    ASSERT_NE(payload, nullptr);

    constexpr std::size_t images = 20;
    std::vector<std::filesystem::path> downloads;
    for (std::size_t i = 0; i < images; ++i) {
        downloads.push_back(writePng(dir.path() / ("download-" + std::to_string(i) + ".png")));
    }
    std::thread download([&] {
        for (const auto& image : downloads) payload->addImage(image);
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
