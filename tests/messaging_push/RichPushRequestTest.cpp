// Rich push requests and their process-wide registry, with downloads completed by hand.

#include <gtest/gtest.h>

#include "Common/util/JsonAdapter.hpp"
#include "messaging_push/RichPushRequest.hpp"
#include "messaging_push/RichPushRequestHandler.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/messaging_push/PushTestSupport.hpp"
#include "tests/support/TempDir.hpp"

namespace tern {
namespace {

using namespace testing;

constexpr const char* imageUrl = "https://cdn.example.com/images/banner.png";

class RichPushRequestTest : public ::testing::Test {
protected:
    std::shared_ptr<TernParsedPushPayload> payload(json push) {
        return TernParsedPushPayload::parse(request(ternUserInfo(json{{"push", push}})).content,
                                            adapter_);
    }
    std::shared_ptr<RichPushRequest> richPushRequest(json push) {
        return std::make_shared<RichPushRequest>(recorder_.handler(), payload(std::move(push)),
                                                 client_);
    }
    static std::size_t ternAttachmentCount(const vontu::platform::NotificationContent& content) {
        std::size_t count = 0;
        for (const auto& attachment : content.attachments) {
            if (attachment.identifier.starts_with("tern_sdk_")) ++count;
        }
        return count;
    }

    std::shared_ptr<JsonAdapter> adapter_ =
        std::make_shared<JsonAdapter>(std::make_shared<RecordingLogger>());
    std::shared_ptr<ManualHttpClient> client_ = std::make_shared<ManualHttpClient>();
    ContentRecorder recorder_;
    vontu::testing::TempDir files_;
};

TEST_F(RichPushRequestTest, AttachesTheDownloadedImageThenEndsTheClientAndCompletes) {
    auto richPush = richPushRequest({{"image", imageUrl}, {"link", "https://vontu.app/sale"}});
    richPush->start();
    EXPECT_EQ(client_->downloadedUrls(), std::vector<std::string>{imageUrl});
    EXPECT_TRUE(recorder_.contents().empty());

    client_->completeDownload(0, writePng(files_.path() / "banner.png"));
    ASSERT_EQ(recorder_.contents().size(), 1u);
    const auto delivered = recorder_.contents()[0];
    EXPECT_EQ(ternAttachmentCount(delivered), 1u);
    EXPECT_EQ(delivered.body, "Half price today");
    EXPECT_EQ(client_->cancels(), std::vector<bool>{false});
}

TEST_F(RichPushRequestTest, CompletesAtOnceWithoutAnImageToDownload) {
    const json pushes[] = {
        json::object(),                       // no image at all
        {{"image", "not a url"}},             // not a URL
        {{"link", "https://vontu.app/sale"}}  // a link only
    };
    for (const auto& push : pushes) {
        ContentRecorder recorder;
        auto client = std::make_shared<ManualHttpClient>();
        auto richPush = std::make_shared<RichPushRequest>(recorder.handler(), payload(push), client);
        richPush->start();
        EXPECT_TRUE(client->downloadedUrls().empty()) << push;
        EXPECT_EQ(client->cancels(), std::vector<bool>{false}) << push;
        ASSERT_EQ(recorder.contents().size(), 1u) << push;
        EXPECT_TRUE(recorder.contents()[0].attachments.empty()) << push;
    }
}

TEST_F(RichPushRequestTest, AFailedOrUnusableDownloadDeliversTheTextAlone) {
    std::ofstream(files_.path() / "page.html") << "<html>not an image</html>";
    const std::optional<std::filesystem::path> downloads[] = {std::nullopt,
                                                              files_.path() / "page.html"};
    for (const auto& file : downloads) {
        ContentRecorder recorder;
        auto client = std::make_shared<ManualHttpClient>();
        auto richPush = std::make_shared<RichPushRequest>(
            recorder.handler(), payload({{"image", imageUrl}}), client);
        richPush->start();
        client->completeDownload(0, file);
        ASSERT_EQ(recorder.contents().size(), 1u);
        EXPECT_TRUE(recorder.contents()[0].attachments.empty());
    }
}

TEST_F(RichPushRequestTest, FinishingEarlyDeliversWithoutTheImageAndALateDownloadDeliversAgain) {
    auto richPush = richPushRequest({{"image", imageUrl}});
    richPush->start();
    richPush->finishImmediately();
    ASSERT_EQ(recorder_.contents().size(), 1u);
    EXPECT_TRUE(recorder_.contents()[0].attachments.empty());

    // The system keeps the first content; the second is harmless.
    client_->completeDownload(0, writePng(files_.path() / "banner.png"));
    ASSERT_EQ(recorder_.contents().size(), 2u);
    EXPECT_EQ(ternAttachmentCount(recorder_.contents()[1]), 1u);
    EXPECT_EQ(client_->cancels(), (std::vector<bool>{false, false}));
}

// --- The registry ------------------------------------------------------------------------------

class RichPushRequestHandlerTest : public RichPushRequestTest {
protected:
    RichPushRequestHandlerTest() { graph_->override<HttpClient>(client_); }

    void start(RichPushRequestHandler& handler, const std::string& identifier,
               ContentRecorder& recorder) {
        auto push = request(ternUserInfo(json{{"push", {{"image", imageUrl}}}}), identifier);
        handler.startRequest(push, TernParsedPushPayload::parse(push.content, adapter_),
                             recorder.handler());
    }

    std::shared_ptr<DIGraph> graph_ =
        std::make_shared<DIGraph>(testSiteId, testApiKey, SdkConfig{});
    RichPushRequestHandler handler_{std::make_shared<StubSdkInitializedUtil>(graph_)};
};

TEST_F(RichPushRequestHandlerTest, IgnoresASecondRequestWithTheSameIdentifier) {
    ContentRecorder first, second;
    start(handler_, "request-1", first);
    start(handler_, "request-1", second);
    EXPECT_EQ(client_->downloadedUrls().size(), 1u);

    handler_.stopAll();
    EXPECT_EQ(first.contents().size(), 1u);
    EXPECT_TRUE(second.contents().empty());
}

TEST_F(RichPushRequestHandlerTest, StopAllFinishesEveryRequestAndKeepsThemRegistered) {
    ContentRecorder a, b;
    start(handler_, "request-a", a);
    start(handler_, "request-b", b);
    EXPECT_EQ(client_->downloadedUrls().size(), 2u);

    handler_.stopAll();
    ASSERT_EQ(a.contents().size(), 1u);
    ASSERT_EQ(b.contents().size(), 1u);
    EXPECT_TRUE(a.contents()[0].attachments.empty());

    // Completed requests stay: a second stop finishes them again, and their identifiers are
    // still taken.
    handler_.stopAll();
    EXPECT_EQ(a.contents().size(), 2u);
    ContentRecorder again;
    start(handler_, "request-a", again);
    handler_.stopAll();
    EXPECT_TRUE(again.contents().empty());
}

TEST_F(RichPushRequestHandlerTest, DoesNothingBeforeTheLibraryIsInitialised) {
    RichPushRequestHandler uninitialised(std::make_shared<StubSdkInitializedUtil>(nullptr));
    ContentRecorder recorder;
    start(uninitialised, "request-1", recorder);
    uninitialised.stopAll();
    EXPECT_TRUE(client_->downloadedUrls().empty());
    EXPECT_TRUE(recorder.contents().empty());
}

TEST_F(RichPushRequestHandlerTest, RequestsFromManyThreadsAreEachRegisteredOnce) {
    constexpr int threads = 4;
    constexpr int identifiers = 8;
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
    EXPECT_EQ(client_->downloadedUrls().size(), static_cast<std::size_t>(identifiers));

    handler_.stopAll();
    std::size_t delivered = 0;
    for (const auto& recorder : recorders) delivered += recorder.contents().size();
    EXPECT_EQ(delivered, static_cast<std::size_t>(identifiers));
}

}  // namespace
}  // namespace tern
