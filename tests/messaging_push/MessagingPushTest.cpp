// The push facade before and after initialisation, its FCM variant, and the user's responses to
// notifications: metrics, image clean-up and deep links through the app's handlers.

#include <gtest/gtest.h>

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

constexpr const char* defaultAction = vontu::platform::kNotificationDefaultActionIdentifier;

NotificationResponse response(json userInfo, std::string action = defaultAction) {
    NotificationResponse made;
    made.actionIdentifier = std::move(action);
    made.notification = request(std::move(userInfo));
    return made;
}

json linkPush(const std::string& link) { return richUserInfo({{"link", link}}); }

class MessagingPushFacadeTest : public ::testing::Test {
protected:
    MessagingPushFacadeTest() { initializeTernOnce(); }

    vontu::testing::TestEnv env_;
    MessagingPush facade_{nullptr, std::make_shared<StubSdkInitializedUtil>(nullptr)};
};

TEST_F(MessagingPushFacadeTest, BeforeInitialisationHandsEverythingBackAtOnce) {
    ContentRecorder recorder;
    const auto push = request(ternUserInfo());
    EXPECT_FALSE(facade_.didReceive(push, recorder.handler()));
    ASSERT_EQ(recorder.contents.size(), 1u);
    EXPECT_EQ(recorder.contents[0], push.content);

    int completions = 0;
    EXPECT_FALSE(facade_.userNotificationCenter(response(linkPush("https://vontu.app/x")),
                                                [&] { ++completions; }));
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(facade_.userNotificationCenter(response(linkPush("https://vontu.app/x"))), nullptr);

    facade_.registerDeviceToken("token-1");
    facade_.trackMetric("delivery-1", Metric::opened, "token-1");
    facade_.serviceExtensionTimeWillExpire();
    EXPECT_EQ(facade_.implementation(), nullptr);
    EXPECT_TRUE(queuedPushMetrics().empty());
    EXPECT_FALSE(Tern::shared()->diGraph()->globalDataStore()->pushDeviceToken());

    // Once the library is initialised the implementation is made, once.
    MessagingPush initialised{nullptr, std::make_shared<StubSdkInitializedUtil>(Tern::shared()->diGraph())};
    const auto created = initialised.implementation();
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(initialised.implementation(), created);
    initialised.trackMetric("delivery-1", Metric::converted, "token-1");
    const auto metrics = queuedPushMetrics();
    ASSERT_EQ(metrics.size(), 1u);
    EXPECT_EQ(metrics[0]["event"], "converted");
}

TEST_F(MessagingPushFacadeTest, TheFcmVariantRegistersOnlyATokenItIsGiven) {
    MessagingPushFCM::initialize();
    auto store = Tern::shared()->diGraph()->globalDataStore();
    MessagingPushFCM::shared().registerDeviceToken(std::nullopt);
    MessagingPushFCM::shared().messaging(std::any(), std::nullopt);
    EXPECT_FALSE(store->pushDeviceToken());

    MessagingPushFCM::shared().registerDeviceToken("fcm-token-1");
    EXPECT_EQ(store->pushDeviceToken(), "fcm-token-1");
    MessagingPushFCM::shared().messaging(std::any(), "fcm-token-2");
    EXPECT_EQ(store->pushDeviceToken(), "fcm-token-2");
}

TEST(NotificationResponseTest, MetricsAndDeepLinksFollowTheActionAndTheLink) {
    initializeTernOnce();
    struct Case {
        std::string name;
        json userInfo;
        std::string action;
        bool takesUniversalLinks;
        json outcome;                             // what handleNotificationOpen reports
        std::vector<std::string> universalLinks;  // offered to the app
        std::vector<std::string> openedUrls;      // opened by the system
        std::optional<std::string> metric;        // queued for the delivery
    };
    const std::string web = "https://vontu.app/sale";
    const json notHandled = {{"handled", false}, {"opened", nullptr}, {"via", nullptr}};
    const json handledNoLink = {{"handled", true}, {"opened", nullptr}, {"via", nullptr}};
    const Case cases[] = {
        {"tap, universal link taken", linkPush(web), defaultAction, true,
         {{"handled", true}, {"opened", web}, {"via", "universal-link"}}, {web}, {}, "opened"},
        {"tap, universal link declined", linkPush(web), defaultAction, false,
         {{"handled", true}, {"opened", web}, {"via", "system"}}, {web}, {web}, "opened"},
        {"tap, app scheme", linkPush("vontu://mail/1"), defaultAction, true,
         {{"handled", true}, {"opened", "vontu://mail/1"}, {"via", "system"}}, {},
         {"vontu://mail/1"}, "opened"},
        {"tap, invalid link", linkPush("not a link"), defaultAction, true, handledNoLink, {}, {},
         "opened"},
        {"custom action", linkPush(web), "archive", true, handledNoLink, {}, {}, "delivered"},
        {"simple Tern push", ternUserInfo(), defaultAction, true, notHandled, {}, {}, "opened"},
        {"not a Tern push", {{"aps", {{"alert", "Hi"}}}}, defaultAction, true, notHandled, {}, {},
         std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // The app's deep-link handlers: what each was offered.
        std::vector<std::string> universalLinks, openedUrls;
        vontu::platform::linux_host::HostSettings app;
        app.continueUserActivity = [&](const std::string& url) {
            universalLinks.push_back(url);
            return c.takesUniversalLinks;
        };
        app.openUrl = [&](const std::string& url) {
            openedUrls.push_back(url);
            return true;
        };
        vontu::testing::TestEnv env(app);

        EXPECT_EQ(handleNotificationOpen(response(c.userInfo, c.action)).toJson(), c.outcome);
        EXPECT_EQ(universalLinks, c.universalLinks);
        EXPECT_EQ(openedUrls, c.openedUrls);
        const auto metrics = queuedPushMetrics();
        ASSERT_EQ(metrics.size(), c.metric ? 1u : 0u);
        if (c.metric) {
            EXPECT_EQ(metrics[0]["event"], *c.metric);
            EXPECT_EQ(metrics[0]["delivery_id"], "delivery-1");
        }
    }
}

TEST(NotificationResponseTest, AnsweringARichPushRemovesTheImagesThisLibraryAttached) {
    initializeTernOnce();
    vontu::testing::TestEnv env;
    vontu::testing::TempDir files;
    auto answered = response(linkPush("https://vontu.app/sale"), "archive");
    auto attach = [&](const std::string& identifier, const std::string& fileName) {
        answered.notification.content.attachments.push_back(
            *vontu::platform::NotificationAttachment::make(identifier,
                                                           writePng(files.path() / fileName)));
        return files.path() / fileName;
    };
    const auto ours = attach("tern_sdk_abcdefghij", "ours.png");
    std::filesystem::remove(attach("tern_sdk_klmnopqrst", "gone.png"));
    const auto theirs = attach("app-image", "theirs.png");

    int completions = 0;
    EXPECT_TRUE(MessagingPush::shared().userNotificationCenter(answered, [&] { ++completions; }));
    EXPECT_EQ(completions, 1);
    EXPECT_FALSE(std::filesystem::exists(ours));
    EXPECT_TRUE(std::filesystem::exists(theirs));
    // A simple push is not this library's to answer: the app completes it.
    EXPECT_FALSE(MessagingPush::shared().userNotificationCenter(response(ternUserInfo()),
                                                                [&] { ++completions; }));
    EXPECT_EQ(completions, 1);
}

}  // namespace
}  // namespace tern
