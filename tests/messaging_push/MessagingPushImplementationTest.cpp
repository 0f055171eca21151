// The push module inside the notification service extension: recognising Tern pushes, the
// delivered metric, rich push requests and their registry with downloads completed by hand, and
// the queue run before delivery. (The expiry warning and the real network are checked through
// vontu-nse.)

#include <gtest/gtest.h>

#include <thread>

#include "messaging_push/MessagingPushImplementation.hpp"
#include "messaging_push/RichPushRequest.hpp"
#include "messaging_push/RichPushRequestHandler.hpp"
#include "tests/messaging_push/PushTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using namespace testing;

TEST(RichPushRequest, DeliversOnceAfterTheDownloadWithWhatCouldBeAttachedAndEndsTheClient) {
    vontu::testing::TempDir files;
    const auto png = writePng(files.path() / "banner.png");
    struct Case {
        const char* name;
        json push;
        bool downloads;
        std::optional<std::filesystem::path> file;
        std::size_t attached;
    };
    const Case cases[] = {
        {"downloaded image", {{"image", imageUrl}, {"link", "https://vontu.app/sale"}}, true, png, 1},
        {"failed download", {{"image", imageUrl}}, true, std::nullopt, 0},
        {"no image", {{"link", "https://vontu.app/sale"}}, false, std::nullopt, 0},
        {"image not a URL", {{"image", "not a url"}}, false, std::nullopt, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ContentRecorder recorder;
        auto client = std::make_shared<ManualHttpClient>();
        auto richPush = std::make_shared<RichPushRequest>(recorder.handler(),
                                                          parse(richUserInfo(c.push)), client);
        richPush->start();
        if (c.downloads) {
            EXPECT_EQ(client->urls, std::vector<std::string>{imageUrl});
            EXPECT_TRUE(recorder.contents.empty());
            client->downloads.at(0)(c.file);
        } else {
            EXPECT_TRUE(client->urls.empty());
        }
        ASSERT_EQ(recorder.contents.size(), 1u);
        EXPECT_EQ(recorder.contents[0].attachments.size(), c.attached);
        EXPECT_EQ(recorder.contents[0].body, "Half price today");
        EXPECT_EQ(client->cancels, std::vector<bool>{false});
    }
}

class ExtensionPushTest : public ::testing::Test {
protected:
    ExtensionPushTest() {
        initializeTernOnce();
        graph_->override<HttpClient>(client_);
    }

    std::unique_ptr<MessagingPushImplementation> implementation(bool autoTrackPushEvents = true) {
        SdkConfig config;
        config.autoTrackPushEvents = autoTrackPushEvents;
        auto logger = std::make_shared<RecordingLogger>();
        return std::make_unique<MessagingPushImplementation>(
            testSiteId, logger, std::make_shared<JsonAdapter>(logger), config, queue_,
            std::make_shared<StubSdkInitializedUtil>(graph_), handler_);
    }
    void start(RichPushRequestHandler& handler, const std::string& identifier,
               ContentRecorder& recorder) {
        auto push = request(richUserInfo({{"image", imageUrl}}), identifier);
        handler.startRequest(push, parse(push.content), recorder.handler());
    }

    vontu::testing::TestEnv env_;  // a fresh state root: the queue starts empty
    std::shared_ptr<CountingQueue> queue_ = std::make_shared<CountingQueue>();
    std::shared_ptr<ManualHttpClient> client_ = std::make_shared<ManualHttpClient>();
    std::shared_ptr<DIGraph> graph_ = std::make_shared<DIGraph>(testSiteId, testApiKey, SdkConfig{});
    RichPushRequestHandler handler_{std::make_shared<StubSdkInitializedUtil>(graph_)};
    ContentRecorder recorder_;
};

TEST_F(ExtensionPushTest, IgnoresPushesWithoutBothDeliveryKeysAsStrings) {
    const json userInfos[] = {
        {{"aps", {{"alert", "Hi"}}}},
        {{"TERN-Delivery-ID", "delivery-1"}},
        {{"TERN-Delivery-Token", "device-token-1"}},
        {{"TERN-Delivery-ID", 7}, {"TERN-Delivery-Token", "device-token-1"}},
        {{"TERN-Delivery-ID", "delivery-1"}, {"TERN-Delivery-Token", nullptr}},
        json::array({"TERN-Delivery-ID", "TERN-Delivery-Token"}),
    };
    for (const auto& userInfo : userInfos) {
        EXPECT_FALSE(implementation()->didReceive(request(userInfo), recorder_.handler()))
            << userInfo;
    }
    EXPECT_TRUE(recorder_.contents.empty());
    EXPECT_EQ(queue_->runs, 0);
    EXPECT_TRUE(queuedPushMetrics().empty());
}

TEST_F(ExtensionPushTest, ASimplePushIsDeliveredUnchangedAfterTheQueueRan) {
    struct Case {
        const char* name;
        json userInfo;
        bool autoTrack;
    };
    const Case cases[] = {
        {"no TERN", ternUserInfo(), true},
        {"TERN that does not decode", ternUserInfo(json{{"push", "not an object"}}), true},
        {"automatic tracking off", ternUserInfo(), false},
    };
    int runs = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        vontu::testing::TestEnv env;
        ContentRecorder recorder;
        const auto push = request(c.userInfo);
        EXPECT_TRUE(implementation(c.autoTrack)->didReceive(push, recorder.handler()));
        EXPECT_EQ(queue_->runs, ++runs);
        ASSERT_EQ(recorder.contents.size(), 1u);
        EXPECT_EQ(recorder.contents[0], push.content);
        const auto metrics = queuedPushMetrics();
        ASSERT_EQ(metrics.size(), c.autoTrack ? 1u : 0u);
        if (!c.autoTrack) continue;
        EXPECT_EQ(metrics[0]["event"], "delivered");
        EXPECT_EQ(metrics[0]["delivery_id"], "delivery-1");
        EXPECT_EQ(metrics[0]["device_id"], "device-token-1");
    }
}

TEST_F(ExtensionPushTest, ARichPushIsDeliveredWithItsImageOnceTheQueueRan) {
    vontu::testing::TempDir files;
    EXPECT_TRUE(implementation()->didReceive(request(richUserInfo({{"image", imageUrl}})),
                                             recorder_.handler()));
    EXPECT_EQ(queuedPushMetrics().size(), 1u);
    EXPECT_TRUE(recorder_.contents.empty());
    EXPECT_EQ(queue_->runs, 0);

    client_->downloads.at(0)(writePng(files.path() / "banner.png"));
    ASSERT_EQ(recorder_.contents.size(), 1u);
    EXPECT_EQ(recorder_.contents[0].attachments.size(), 1u);
    EXPECT_EQ(queue_->runs, 1);
}

TEST_F(ExtensionPushTest, EachIdentifierStartsOnceAndStopAllFinishesEveryRequestEarly) {
    vontu::testing::TempDir files;
    ContentRecorder a, duplicate, b;
    start(handler_, "request-a", a);
    start(handler_, "request-a", duplicate);
    start(handler_, "request-b", b);
    EXPECT_EQ(client_->urls.size(), 2u);

    handler_.stopAll();
    ASSERT_EQ(a.contents.size(), 1u);
    EXPECT_EQ(b.contents.size(), 1u);
    EXPECT_TRUE(duplicate.contents.empty());
    EXPECT_TRUE(a.contents[0].attachments.empty());
    // A late download delivers again: harmless, as the system keeps the first content.
    client_->downloads.at(0)(writePng(files.path() / "banner.png"));
    ASSERT_EQ(a.contents.size(), 2u);
    EXPECT_EQ(a.contents[1].attachments.size(), 1u);
    EXPECT_EQ(client_->cancels, std::vector<bool>(3, false));

    // Finished requests stay registered: a second stop finishes them again, and their
    // identifiers are still taken.
    ContentRecorder again;
    start(handler_, "request-a", again);
    handler_.stopAll();
    EXPECT_EQ(a.contents.size(), 3u);
    EXPECT_TRUE(again.contents.empty());
}

TEST_F(ExtensionPushTest, DoesNothingBeforeTheLibraryIsInitialised) {
    RichPushRequestHandler uninitialised(std::make_shared<StubSdkInitializedUtil>(nullptr));
    ContentRecorder recorder;
    start(uninitialised, "request-1", recorder);
    uninitialised.stopAll();
    EXPECT_TRUE(client_->urls.empty());
    EXPECT_TRUE(recorder.contents.empty());
}

TEST_F(ExtensionPushTest, RequestsFromManyThreadsAreEachRegisteredOnce) {
    constexpr int threads = 4, identifiers = 8;
    std::vector<ContentRecorder> recorders(threads * identifiers);
    std::vector<std::thread> starters;
    for (int t = 0; t < threads; ++t) {
        starters.emplace_back([&, t] {
            for (int i = 0; i < identifiers; ++i) {
                start(handler_, "request-" + std::to_string(i),
                      recorders[static_cast<std::size_t>(t * identifiers + i)]);
            }
        });
    }
    for (auto& starter : starters) starter.join();
    EXPECT_EQ(client_->urls.size(), static_cast<std::size_t>(identifiers));

    handler_.stopAll();
    std::size_t delivered = 0;
    for (const auto& recorder : recorders) delivered += recorder.contents.size();
    EXPECT_EQ(delivered, static_cast<std::size_t>(identifiers));
}

}  // namespace
}  // namespace tern
