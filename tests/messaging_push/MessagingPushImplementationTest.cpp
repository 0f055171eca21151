// The push module inside the notification service extension, with downloads completed by hand.
// (The delivered metric's request, the expiry warning and the real network are checked through
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
    const struct { const char* name; json push; bool downloads; std::optional<std::filesystem::path> file; } cases[] = {
        {"downloaded image", {{"image", imageUrl}}, true, png},
        {"failed download", {{"image", imageUrl}}, true, std::nullopt},
        {"no image", {{"link", "https://vontu.app/sale"}}, false, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ContentRecorder recorder;
        auto client = std::make_shared<ManualHttpClient>();
        auto richPush = std::make_shared<RichPushRequest>(recorder.handler(), parse(richUserInfo(c.push)), client);
        richPush->start();
        EXPECT_EQ(client->urls.size(), c.downloads ? 1u : 0u);
        if (c.downloads) {
            EXPECT_TRUE(recorder.contents.empty());
            client->downloads.at(0)(c.file);
        }
        ASSERT_EQ(recorder.contents.size(), 1u);
        EXPECT_EQ(recorder.contents[0].attachments.size(), c.file ? 1u : 0u);
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
        return std::make_unique<MessagingPushImplementation>(testSiteId, logger, std::make_shared<JsonAdapter>(logger),
                                                             config, queue_, std::make_shared<StubSdkInitializedUtil>(graph_), handler_,
                                                             deliveries_);
    }
    void start(RichPushRequestHandler& handler, const std::string& identifier, ContentRecorder& recorder) {
        auto push = request(richUserInfo({{"image", imageUrl}}), identifier);
        handler.startRequest(push, parse(push.content), recorder.handler());
    }

    vontu::testing::TestEnv env_;  // a fresh state root: the queue starts empty
    std::shared_ptr<CountingQueue> queue_ = std::make_shared<CountingQueue>();
    std::shared_ptr<ManualHttpClient> client_ = std::make_shared<ManualHttpClient>();
    std::shared_ptr<DIGraph> graph_ = std::make_shared<DIGraph>(testSiteId, testApiKey, SdkConfig{});
    RichPushRequestHandler handler_{std::make_shared<StubSdkInitializedUtil>(graph_)};
    PendingPushDeliveries deliveries_;
    ContentRecorder recorder_;
};

TEST_F(ExtensionPushTest, IgnoresPushesWithoutBothDeliveryKeysAsStrings) {
    const json userInfos[] = {
        {{"TERN-Delivery-ID", 7}, {"TERN-Delivery-Token", "device-token-1"}},
        {{"TERN-Delivery-ID", "delivery-1"}, {"TERN-Delivery-Token", nullptr}},
        json::array({"TERN-Delivery-ID", "TERN-Delivery-Token"}),
    };
    for (const auto& userInfo : userInfos) {
        EXPECT_FALSE(implementation()->didReceive(request(userInfo), recorder_.handler())) << userInfo;
    }
    EXPECT_TRUE(recorder_.contents.empty());
    EXPECT_EQ(queue_->runs, 0);
    EXPECT_TRUE(queuedPushMetrics().empty());
}

TEST_F(ExtensionPushTest, APushWithoutARichPartIsDeliveredUnchangedAfterTheQueueRan) {
    int runs = 0;
    for (const bool autoTrack : {true, false}) {
        SCOPED_TRACE(autoTrack);
        vontu::testing::TestEnv env;
        ContentRecorder recorder;
        const auto push = request(ternUserInfo(json{{"push", "not an object"}}));
        EXPECT_TRUE(implementation(autoTrack)->didReceive(push, recorder.handler()));
        EXPECT_EQ(queue_->runs, ++runs);
        EXPECT_EQ(recorder.contents, std::vector{push.content});
        EXPECT_EQ(queuedPushMetrics().size(), autoTrack ? 1u : 0u);
    }
}

// However the queue fares, the expiry warning hands every push its best content at once, and
// once only: the original of a simple push, the composed content of a rich one (its image
// attached when it came in time).
TEST_F(ExtensionPushTest, AtExpiryEachPushIsDeliveredWithItsBestContentWhateverTheQueueDoes) {
    queue_->holdRuns = true;
    auto push = implementation();
    ContentRecorder simple, rich, richWithImage;
    const auto simpleRequest = request(ternUserInfo(json{{"push", "not an object"}}), "simple");
    ASSERT_TRUE(push->didReceive(simpleRequest, simple.handler()));
    ASSERT_TRUE(push->didReceive(request(richUserInfo({{"image", imageUrl}}), "rich"), rich.handler()));
    ASSERT_TRUE(push->didReceive(request(richUserInfo({{"image", imageUrl}}), "rich-with-image"),
                                 richWithImage.handler()));
    vontu::testing::TempDir files;
    client_->downloads.at(1)(writePng(files.path() / "banner.png"));
    EXPECT_EQ(queue_->held.size(), 2u);  // the simple push's run, and the one after the image
    EXPECT_TRUE(simple.contents.empty() && rich.contents.empty() && richWithImage.contents.empty());

    push->serviceExtensionTimeWillExpire();
    EXPECT_EQ(simple.contents, std::vector{simpleRequest.content});
    ASSERT_EQ(rich.contents.size(), 1u);
    EXPECT_TRUE(rich.contents[0].attachments.empty());
    ASSERT_EQ(richWithImage.contents.size(), 1u);
    EXPECT_EQ(richWithImage.contents[0].attachments.size(), 1u);

    for (const auto& run : queue_->held) run();  // the runs end after all: nothing more
    push->serviceExtensionTimeWillExpire();
    EXPECT_EQ(simple.contents.size() + rich.contents.size() + richWithImage.contents.size(), 3u);
    queue_->held.clear();  // each run holds the queue
}

// The system may hand one push twice: the second request is composed and delivered as well.
TEST_F(ExtensionPushTest, EveryRequestStartsAlsoARepeatedIdentifierAndStopAllFinishesThemEarly) {
    ContentRecorder a, repeated, b;
    start(handler_, "request-a", a);
    start(handler_, "request-a", repeated);
    start(handler_, "request-b", b);
    EXPECT_EQ(client_->urls.size(), 3u);
    handler_.stopAll();
    EXPECT_EQ(a.contents.size(), 1u);
    EXPECT_EQ(repeated.contents.size(), 1u);
    EXPECT_EQ(b.contents.size(), 1u);
    EXPECT_EQ(client_->cancels, std::vector<bool>(3, false));
    // Finished requests stay registered: a second stop finishes them again.
    handler_.stopAll();
    EXPECT_EQ(a.contents.size(), 2u);
}

TEST_F(ExtensionPushTest, DoesNothingBeforeTheLibraryIsInitialised) {
    RichPushRequestHandler uninitialised(std::make_shared<StubSdkInitializedUtil>(nullptr));
    start(uninitialised, "request-1", recorder_);
    uninitialised.stopAll();
    EXPECT_TRUE(client_->urls.empty());
    EXPECT_TRUE(recorder_.contents.empty());
}

TEST_F(ExtensionPushTest, RequestsFromManyThreadsAreEachRegistered) {
    constexpr std::size_t threads = 4, identifiers = 8;
    std::vector<ContentRecorder> recorders(threads * identifiers);
    std::vector<std::thread> starters;
    for (std::size_t t = 0; t < threads; ++t) {
        starters.emplace_back([&, t] {
            for (std::size_t i = 0; i < identifiers; ++i) start(handler_, "request-" + std::to_string(i), recorders[t * identifiers + i]);
        });
    }
    for (auto& starter : starters) starter.join();
    EXPECT_EQ(client_->urls.size(), threads * identifiers);
    handler_.stopAll();
    for (const auto& recorder : recorders) EXPECT_EQ(recorder.contents.size(), 1u);
}

}  // namespace
}  // namespace tern
