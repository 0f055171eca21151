// The push module inside the notification service extension: recognising Tern pushes, the
// delivered metric, rich content, the queue run before delivery, and the expiry warning.

#include <gtest/gtest.h>

#include "messaging_push/MessagingPushImplementation.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/messaging_push/PushTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using namespace testing;
using Level = RecordingLogger::Level;
using Line = RecordingLogger::Line;

constexpr const char* imageUrl = "https://cdn.example.com/images/banner.png";
constexpr const char* queueRunLine =
    "running all background queue tasks and waiting until complete to prevent OS from killing "
    "notification service extension before all HTTP requests have been performed";

class MessagingPushImplementationTest : public ::testing::Test {
protected:
    MessagingPushImplementationTest() {
        initializeTernOnce();
        graph_->override<HttpClient>(client_);
    }

    std::unique_ptr<MessagingPushImplementation> implementation(bool autoTrackPushEvents = true) {
        SdkConfig config;
        config.autoTrackPushEvents = autoTrackPushEvents;
        return std::make_unique<MessagingPushImplementation>(
            testSiteId, logger_, std::make_shared<JsonAdapter>(logger_), config, queue_,
            std::make_shared<StubSdkInitializedUtil>(graph_), handler_);
    }

    static std::vector<Line> recognisedTernPush(const json& userInfo) {
        return {{Level::info, "did receive notification request. Checking if message was a push "
                              "sent from Tern..."},
                {Level::debug, "notification request: " + userInfo.dump()},
                {Level::info, "push was sent from Tern. Processing the request..."}};
    }
    static std::vector<Line> trackedDelivery() {
        return {{Level::info, "automatically tracking push metric: delivered"},
                {Level::debug, "parsed deliveryId delivery-1, deviceToken: device-token-1"}};
    }
    static std::vector<Line> queueRunThenDone() {
        return {{Level::debug, queueRunLine},
                {Level::debug, "all background queue tasks done running."},
                {Level::info, "Tern push processing is done!"}};
    }
    static std::vector<Line> joined(std::initializer_list<std::vector<Line>> parts) {
        std::vector<Line> all;
        for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
        return all;
    }

    vontu::testing::TestEnv env_;  // a fresh state root: the queue starts empty
    std::shared_ptr<RecordingLogger> logger_ = std::make_shared<RecordingLogger>();
    std::shared_ptr<CountingQueue> queue_ = std::make_shared<CountingQueue>();
    std::shared_ptr<ManualHttpClient> client_ = std::make_shared<ManualHttpClient>();
    std::shared_ptr<DIGraph> graph_ =
        std::make_shared<DIGraph>(testSiteId, testApiKey, SdkConfig{});
    RichPushRequestHandler handler_{std::make_shared<StubSdkInitializedUtil>(graph_)};
    ContentRecorder recorder_;
    vontu::testing::TempDir files_;
};

TEST_F(MessagingPushImplementationTest, IgnoresPushesWithoutBothDeliveryKeys) {
    const json userInfos[] = {
        {{"aps", {{"alert", "Hi"}}}},
        {{"TERN-Delivery-ID", "delivery-1"}},
        {{"TERN-Delivery-Token", "device-token-1"}},
        {{"TERN-Delivery-ID", 7}, {"TERN-Delivery-Token", "device-token-1"}},
        {{"TERN-Delivery-ID", "delivery-1"}, {"TERN-Delivery-Token", nullptr}},
        json::array({"TERN-Delivery-ID", "TERN-Delivery-Token"}),
    };
    for (const auto& userInfo : userInfos) {
        auto logger = std::make_shared<RecordingLogger>();
        logger_ = logger;
        EXPECT_FALSE(implementation()->didReceive(request(userInfo), recorder_.handler()))
            << userInfo;
        EXPECT_EQ(logger->lines(),
                  (std::vector<Line>{
                      {Level::info, "did receive notification request. Checking if message was "
                                    "a push sent from Tern..."},
                      {Level::debug, "notification request: " + userInfo.dump()},
                      {Level::info, "the notification was not sent by Tern. Ignoring "
                                    "notification request."}}))
            << userInfo;
    }
    EXPECT_TRUE(recorder_.contents().empty());
    EXPECT_EQ(queue_->runs(), 0);
    EXPECT_TRUE(queuedPushMetrics().empty());
}

TEST_F(MessagingPushImplementationTest, ASimplePushIsTrackedAndDeliveredUnchangedAfterTheQueueRan) {
    // Without "TERN", or with one that does not decode: both are simple pushes.
    const json userInfos[] = {ternUserInfo(), ternUserInfo(json{{"push", "not an object"}})};
    for (const auto& userInfo : userInfos) {
        vontu::testing::TestEnv env;
        auto logger = std::make_shared<RecordingLogger>();
        logger_ = logger;
        ContentRecorder recorder;
        const auto push = request(userInfo);
        EXPECT_TRUE(implementation()->didReceive(push, recorder.handler()));

        ASSERT_EQ(recorder.contents().size(), 1u);
        EXPECT_EQ(recorder.contents()[0], push.content);
        // The adapter's own error about the undecodable payload aside.
        std::vector<Line> messages;
        for (const auto& line : logger->lines()) {
            if (line.level != Level::error) messages.push_back(line);
        }
        EXPECT_EQ(messages,
                  joined({recognisedTernPush(userInfo), trackedDelivery(),
                          {{Level::info, "the push was a simple push, not a rich push. "
                                         "Processing is complete."}},
                          queueRunThenDone()}));
        const auto metrics = queuedPushMetrics();
        ASSERT_EQ(metrics.size(), 1u);
        EXPECT_EQ(metrics[0]["event"], "delivered");
        EXPECT_EQ(metrics[0]["delivery_id"], "delivery-1");
        EXPECT_EQ(metrics[0]["device_id"], "device-token-1");
    }
    EXPECT_EQ(queue_->runs(), 2);
}

TEST_F(MessagingPushImplementationTest, WithoutAutomaticPushTrackingNothingIsTracked) {
    EXPECT_TRUE(implementation(false)->didReceive(request(ternUserInfo()), recorder_.handler()));
    EXPECT_EQ(recorder_.contents().size(), 1u);
    EXPECT_TRUE(queuedPushMetrics().empty());
    for (const auto& message : logger_->messages(Level::info)) {
        EXPECT_NE(message, "automatically tracking push metric: delivered");
    }
}

TEST_F(MessagingPushImplementationTest, ARichPushIsDeliveredWithItsImageOnceTheQueueRan) {
    const auto userInfo = ternUserInfo(json{{"push", {{"image", imageUrl}}}});
    EXPECT_TRUE(implementation()->didReceive(request(userInfo), recorder_.handler()));
    EXPECT_TRUE(recorder_.contents().empty());
    EXPECT_EQ(queue_->runs(), 0);

    client_->completeDownload(0, writePng(files_.path() / "banner.png"));
    ASSERT_EQ(recorder_.contents().size(), 1u);
    EXPECT_EQ(recorder_.contents()[0].attachments.size(), 1u);
    EXPECT_EQ(queue_->runs(), 1);

    const auto lines = logger_->lines();
    ASSERT_EQ(lines.size(), 11u);
    EXPECT_EQ(std::vector<Line>(lines.begin(), lines.begin() + 5),
              joined({recognisedTernPush(userInfo), trackedDelivery()}));
    EXPECT_EQ(lines[5], (Line{Level::info, "Parsing notification request to display rich "
                                           "content such as images, deep links, etc."}));
    EXPECT_EQ(lines[6].level, Level::debug);
    EXPECT_TRUE(lines[6].message.starts_with("push content: TernParsedPushPayload("))
        << lines[6].message;
    EXPECT_EQ(lines[7].level, Level::debug);
    EXPECT_TRUE(lines[7].message.starts_with("rich push was composed {")) << lines[7].message;
    EXPECT_TRUE(lines[7].message.ends_with("}.")) << lines[7].message;
    EXPECT_EQ(std::vector<Line>(lines.begin() + 8, lines.end()), queueRunThenDone());
}

TEST_F(MessagingPushImplementationTest, TheExpiryWarningDeliversRichPushesWithoutTheirImages) {
    auto push = implementation();
    EXPECT_TRUE(push->didReceive(request(ternUserInfo(json{{"push", {{"image", imageUrl}}}})),
                                 recorder_.handler()));
    push->serviceExtensionTimeWillExpire();

    ASSERT_EQ(recorder_.contents().size(), 1u);
    EXPECT_TRUE(recorder_.contents()[0].attachments.empty());
    EXPECT_EQ(queue_->runs(), 1);
    const auto info = logger_->messages(Level::info);
    EXPECT_NE(std::find(info.begin(), info.end(),
                        "notification service time will expire. Stopping all notification "
                        "requests early."),
              info.end());
}

}  // namespace
}  // namespace tern
