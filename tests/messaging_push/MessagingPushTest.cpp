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

json linkPush(const std::string& link) { return ternUserInfo(json{{"push", {{"link", link}}}}); }

// --- Before and after initialisation -----------------------------------------------------------

class MessagingPushFacadeTest : public ::testing::Test {
protected:
    MessagingPushFacadeTest() { initializeTernOnce(); }

    vontu::testing::TestEnv env_;
    std::shared_ptr<StubSdkInitializedUtil> util_ = std::make_shared<StubSdkInitializedUtil>(nullptr);
    MessagingPush facade_{nullptr, util_};
};

TEST_F(MessagingPushFacadeTest, BeforeInitialisationHandsEverythingBackAtOnce) {
    ContentRecorder recorder;
    const auto push = request(ternUserInfo());
    EXPECT_FALSE(facade_.didReceive(push, recorder.handler()));
    ASSERT_EQ(recorder.contents().size(), 1u);
    EXPECT_EQ(recorder.contents()[0], push.content);

    int completions = 0;
    EXPECT_FALSE(facade_.userNotificationCenter(response(linkPush("https://vontu.app/x")),
                                                [&] { ++completions; }));
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(facade_.userNotificationCenter(response(linkPush("https://vontu.app/x"))), nullptr);

    facade_.registerDeviceToken("token-1");
    facade_.trackMetric("delivery-1", Metric::opened, "token-1");
    facade_.deleteDeviceToken();
    facade_.serviceExtensionTimeWillExpire();
    EXPECT_EQ(facade_.implementation(), nullptr);
    EXPECT_TRUE(queuedPushMetrics().empty());
    EXPECT_FALSE(Tern::shared()->diGraph()->globalDataStore()->pushDeviceToken());
}

TEST_F(MessagingPushFacadeTest, TheImplementationIsCreatedOnceTheLibraryIsInitialised) {
    EXPECT_EQ(facade_.implementation(), nullptr);
    util_->setDiGraph(Tern::shared()->diGraph());
    const auto created = facade_.implementation();
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(facade_.implementation(), created);

    facade_.trackMetric("delivery-1", Metric::converted, "token-1");
    const auto metrics = queuedPushMetrics();
    ASSERT_EQ(metrics.size(), 1u);
    EXPECT_EQ(metrics[0]["event"], "converted");
}

TEST_F(MessagingPushFacadeTest, AfterInitialisationATernPushIsDeliveredByTheLibrary) {
    ContentRecorder recorder;
    const auto push = request(ternUserInfo());
    EXPECT_TRUE(MessagingPush::shared().didReceive(push, recorder.handler()));
    // Delivered once the queue has run (its request to the unreachable API fails quickly).
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.contents()[0], push.content);

    ContentRecorder declined;
    EXPECT_FALSE(MessagingPush::shared().didReceive(request({{"aps", {{"alert", "Hi"}}}}),
                                                    declined.handler()));
    EXPECT_TRUE(declined.contents().empty());
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

    MessagingPushFCM::shared().trackMetric("delivery-1", Metric::delivered, "fcm-token-2");
    EXPECT_EQ(queuedPushMetrics().size(), 1u);
}

// --- Responses and deep links ------------------------------------------------------------------

// The app's deep-link handlers: what each was offered, and whether universal links are taken.
struct AppHandlers {
    bool takesUniversalLinks = false;
    std::vector<std::string> universalLinks;
    std::vector<std::string> openedUrls;

    vontu::platform::linux_host::HostSettings settings() {
        vontu::platform::linux_host::HostSettings settings;
        settings.continueUserActivity = [this](const std::string& url) {
            universalLinks.push_back(url);
            return takesUniversalLinks;
        };
        settings.openUrl = [this](const std::string& url) {
            openedUrls.push_back(url);
            return true;
        };
        return settings;
    }
};

TEST(NotificationResponseTest, MetricsAndDeepLinksFollowTheActionAndTheLink) {
    initializeTernOnce();
    struct Case {
        std::string name;
        json userInfo;
        std::string action;
        bool takesUniversalLinks;
        json outcome;                                 // what handleNotificationOpen reports
        std::vector<std::string> universalLinks;      // offered to the app
        std::vector<std::string> openedUrls;          // opened by the system
        std::optional<std::string> metric;            // queued for the delivery
    };
    const std::string web = "https://vontu.app/sale";
    const Case cases[] = {
        {"tap, universal link taken", linkPush(web), defaultAction, true,
         {{"handled", true}, {"opened", web}, {"via", "universal-link"}}, {web}, {}, "opened"},
        {"tap, universal link declined", linkPush(web), defaultAction, false,
         {{"handled", true}, {"opened", web}, {"via", "system"}}, {web}, {web}, "opened"},
        {"tap, app scheme", linkPush("vontu://mail/1"), defaultAction, true,
         {{"handled", true}, {"opened", "vontu://mail/1"}, {"via", "system"}}, {},
         {"vontu://mail/1"}, "opened"},
        {"tap, invalid link", linkPush("not a link"), defaultAction, true,
         {{"handled", true}, {"opened", nullptr}, {"via", nullptr}}, {}, {}, "opened"},
        {"custom action", linkPush(web), "archive", true,
         {{"handled", true}, {"opened", nullptr}, {"via", nullptr}}, {}, {}, "delivered"},
        {"simple Tern push", ternUserInfo(), defaultAction, true,
         {{"handled", false}, {"opened", nullptr}, {"via", nullptr}}, {}, {}, "opened"},
        {"not a Tern push", {{"aps", {{"alert", "Hi"}}}}, defaultAction, true,
         {{"handled", false}, {"opened", nullptr}, {"via", nullptr}}, {}, {}, std::nullopt},
    };
    for (const auto& c : cases) {
        AppHandlers app;
        app.takesUniversalLinks = c.takesUniversalLinks;
        vontu::testing::TestEnv env(app.settings());

        EXPECT_EQ(handleNotificationOpen(response(c.userInfo, c.action)).toJson(), c.outcome)
            << c.name;
        EXPECT_EQ(app.universalLinks, c.universalLinks) << c.name;
        EXPECT_EQ(app.openedUrls, c.openedUrls) << c.name;
        const auto metrics = queuedPushMetrics();
        ASSERT_EQ(metrics.size(), c.metric ? 1u : 0u) << c.name;
        if (c.metric) {
            EXPECT_EQ(metrics[0]["event"], *c.metric) << c.name;
            EXPECT_EQ(metrics[0]["delivery_id"], "delivery-1") << c.name;
        }
    }
}

TEST(NotificationResponseTest, TheCompletionIsCalledOnlyForTernRichPushes) {
    initializeTernOnce();
    vontu::testing::TestEnv env;
    int completions = 0;
    EXPECT_TRUE(MessagingPush::shared().userNotificationCenter(
        response(linkPush("vontu://mail/1"), "archive"), [&] { ++completions; }));
    EXPECT_EQ(completions, 1);
    EXPECT_FALSE(MessagingPush::shared().userNotificationCenter(response(ternUserInfo()),
                                                                [&] { ++completions; }));
    EXPECT_EQ(completions, 1);
}

TEST(NotificationResponseTest, TheImagesThisLibraryAttachedAreRemoved) {
    initializeTernOnce();
    vontu::testing::TestEnv env;
    vontu::testing::TempDir files;
    auto answered = response(linkPush("https://vontu.app/sale"));
    auto attach = [&](const std::string& identifier, const std::string& fileName) {
        auto attachment = vontu::platform::NotificationAttachment::make(
            identifier, writePng(files.path() / fileName));
        answered.notification.content.attachments.push_back(*attachment);
        return files.path() / fileName;
    };
    const auto ours = attach("tern_sdk_abcdefghij", "ours.png");
    const auto alreadyGone = attach("tern_sdk_klmnopqrst", "gone.png");
    const auto theirs = attach("app-image", "theirs.png");
    std::filesystem::remove(alreadyGone);

    const auto payload = MessagingPush::shared().userNotificationCenter(answered);
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->ternAttachments().size(), 2u);
    EXPECT_FALSE(std::filesystem::exists(ours));
    EXPECT_TRUE(std::filesystem::exists(theirs));
}

}  // namespace
}  // namespace tern
