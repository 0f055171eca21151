// The push facade before and after initialisation, its FCM variant, and the user's responses to
// notifications. (The common responses and FCM registration are checked through the tern host.)

#include <gtest/gtest.h>

#include <cstring>

#include "messaging_push/MessagingPush.hpp"
#include "messaging_push/NotificationOpen.hpp"
#include "messaging_push_fcm/MessagingPushFCM.hpp"
#include "tests/messaging_push/PushTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using namespace testing;
using vontu::platform::NotificationResponse;

NotificationResponse response(json userInfo, std::string action = vontu::platform::kNotificationDefaultActionIdentifier) {
    NotificationResponse made;
    made.actionIdentifier = std::move(action);
    made.notification = request(std::move(userInfo));
    return made;
}

json linkPush(const std::string& link) { return richUserInfo({{"link", link}}); }

TEST(MessagingPushFacade, BeforeInitialisationHandsEverythingBackAtOnceAndAfterItMakesOneImplementation) {
    initializeTernOnce();
    vontu::testing::TestEnv env;
    MessagingPush facade{nullptr, std::make_shared<StubSdkInitializedUtil>(nullptr)};
    ContentRecorder recorder;
    const auto push = request(ternUserInfo());
    EXPECT_FALSE(facade.didReceive(push, recorder.handler()));
    EXPECT_EQ(recorder.contents, std::vector{push.content});
    int completions = 0;
    EXPECT_FALSE(facade.userNotificationCenter(response(linkPush("https://vontu.app/x")), [&] { ++completions; }));
    EXPECT_EQ(completions, 1);
    facade.registerDeviceToken("token-1");
    facade.trackMetric("delivery-1", Metric::opened, "token-1");
    EXPECT_EQ(facade.implementation(), nullptr);
    EXPECT_TRUE(queuedPushMetrics().empty());
    EXPECT_FALSE(Tern::shared()->diGraph()->globalDataStore()->pushDeviceToken());

    MessagingPush initialised{nullptr, std::make_shared<StubSdkInitializedUtil>(Tern::shared()->diGraph())};
    const auto created = initialised.implementation();
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(initialised.implementation(), created);
    initialised.trackMetric("delivery-1", Metric::converted, "token-1");
    ASSERT_EQ(queuedPushMetrics().size(), 1u);
    EXPECT_EQ(queuedPushMetrics()[0]["event"], "converted");
}

TEST(MessagingPushFacade, TheFcmVariantRegistersNoAbsentToken) {
    initializeTernOnce();
    vontu::testing::TestEnv env;
    MessagingPushFCM::initialize();
    MessagingPushFCM::shared().registerDeviceToken(std::nullopt);
    MessagingPushFCM::shared().messaging(std::any(), std::nullopt);
    EXPECT_FALSE(Tern::shared()->diGraph()->globalDataStore()->pushDeviceToken());
    MessagingPushFCM::shared().messaging(std::any(), "fcm-token-2");
    EXPECT_EQ(Tern::shared()->diGraph()->globalDataStore()->pushDeviceToken(), "fcm-token-2");
}

TEST(NotificationResponseTest, MetricsAndDeepLinksFollowTheLink) {
    initializeTernOnce();
    const struct { json userInfo; json outcome; std::vector<std::string> opened; } cases[] = {
        // An app link is never offered as a universal link: the system opens it. (Web links are
        // checked through the tern host.)
        {linkPush("vontu://mail/1"), {{"handled", true}, {"opened", "vontu://mail/1"}, {"via", "system"}}, {"vontu://mail/1"}},
        // A simple push is the app's to answer, but counts.
        {ternUserInfo(), {{"handled", false}, {"opened", nullptr}, {"via", nullptr}}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.userInfo.dump());
        std::vector<std::string> offered, opened;
        vontu::platform::linux_host::HostSettings app;
        app.continueUserActivity = [&](const std::string& url) { return offered.push_back(url), false; };
        app.openUrl = [&](const std::string& url) { return opened.push_back(url), true; };
        vontu::testing::TestEnv env(app);
        EXPECT_EQ(handleNotificationOpen(response(c.userInfo)).toJson(), c.outcome);
        EXPECT_TRUE(offered.empty());
        EXPECT_EQ(opened, c.opened);
        const auto metrics = queuedPushMetrics();
        ASSERT_EQ(metrics.size(), 1u);
        EXPECT_EQ(metrics[0]["event"], "opened");
    }
}

TEST(NotificationResponseTest, AnsweringARichPushRemovesTheImagesThisLibraryAttached) {
    initializeTernOnce();
    vontu::testing::TestEnv env;
    vontu::testing::TempDir files;
    auto answered = response(linkPush("https://vontu.app/sale"), "archive");
    auto attach = [&](const std::string& identifier, const std::string& fileName) {
        auto attachment = vontu::platform::NotificationAttachment::make(
            identifier, writePng(files.path() / fileName));
        answered.notification.content.attachments.push_back(*attachment);
        return std::filesystem::path(attachment->url.substr(std::strlen("file://")));
    };
    const auto ours = attach("tern_sdk_abcdefghij", "ours.png");
    std::filesystem::remove(attach("tern_sdk_klmnopqrst", "gone.png"));
    const auto theirs = attach("app-image", "theirs.png");
    // Attachments come with the response: ones naming a directory or a relative path are kept.
    const auto folder = files.path() / "folder";
    std::filesystem::create_directories(folder / "inside");
    for (const auto& url : {"file://" + folder.string(), std::string("file://folder")}) {
        answered.notification.content.attachments.push_back({"tern_sdk_uvwxyzabcd", url, "public.png"});
    }
    int completions = 0;
    EXPECT_TRUE(MessagingPush::shared().userNotificationCenter(answered, [&] { ++completions; }));
    EXPECT_EQ(completions, 1);
    EXPECT_FALSE(std::filesystem::exists(ours));
    EXPECT_TRUE(std::filesystem::exists(theirs));
    EXPECT_TRUE(std::filesystem::exists(folder / "inside"));
    EXPECT_FALSE(MessagingPush::shared().userNotificationCenter(response(ternUserInfo()), [&] { ++completions; }));
    EXPECT_EQ(completions, 1);
}

}  // namespace
}  // namespace tern
