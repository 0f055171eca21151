// vontu-nse on pushes sent through Tern, as a process: the tracking API is a TLS server on
// 127.0.0.1 reached as the production host "track.tern.dev:443" (--connect-to, with a test CA
// given by --cacert), and the push's image comes from a plain HTTP server on 127.0.0.1.

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>

#include <nlohmann/json.hpp>

#include "platform/Crypto.hpp"
#include "tests/common/http/HttpTestSupport.hpp"
#include "tests/support/Process.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestCertificates.hpp"

namespace vontu {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tern::testing::Gate;
using tern::testing::RecordingServer;

constexpr const char* trackingHost = "track.tern.dev";
constexpr const char* libraryGlobalSuite = "dev.tern.sdk.ios.vontu.NotificationService.shared";
// A whole 1x1 PNG: the attachment check reads the file's leading bytes.
constexpr const char* pngBase64 =
    "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwADhgGAWjR9awAAAABJRU5ErkJggg==";

class VontuNseTernPush : public ::testing::Test {
protected:
    void SetUp() override {
        if (!certificates_) {
            static testing::TempDir directory;  // made once for the whole run
            const auto openssl = testing::programOnPath("openssl");
            if (openssl) certificates_ = testing::makeTestCertificates(*openssl, directory.path(), trackingHost);
        }
        if (!certificates_) GTEST_SKIP() << "no test certificates: is the openssl tool installed?";
        tracking_ = std::make_unique<RecordingServer<httplib::SSLServer>>(
            certificates_->serverCertificate.c_str(), certificates_->serverKey.c_str());
        tracking_->respondWith(200, "{}");
        images_ = std::make_unique<RecordingServer<httplib::Server>>();
        images_->respond([gate = imageGate_](const httplib::Request&, httplib::Response& response) {
            gate->waitOpen();
            response.set_content(image(), "image/png");
        });
    }
    void TearDown() override {
        imageGate_->open();
        trackingGate_->open();
        images_.reset();
        tracking_.reset();
    }

    static std::string image() {
        const auto bytes = platform::base64Decode(pngBase64);
        return bytes ? platform::toString(*bytes) : std::string();
    }
    std::string imageUrl() const {
        return "http://127.0.0.1:" + std::to_string(images_->port()) + "/images/banner.png";
    }

    // push: one request, or for --serve the text of its input lines.
    testing::ProcessResult nse(std::vector<std::string> args, const json& push,
                               const std::map<std::string, std::string>& environment = {}) {
        const std::string port = std::to_string(tracking_->port());
        const bool serving = std::ranges::find(args, "--serve") != args.end();
        args.insert(args.begin(),
                    {"--home", home_.path().string(), "--cacert", certificates_->caCertificate.string(),
                     "--connect-to", std::string(trackingHost) + ":443:127.0.0.1:" + port});
        if (!serving) args.push_back("-");
        return testing::runProcess(testing::builtProgram("hosts/vontu-nse"), args,
                                   serving ? push.get<std::string>() : push.dump(), environment);
    }
    testing::ProcessResult defaults(std::vector<std::string> args) {
        args.insert(args.begin(), {"--home", home_.path().string()});
        return testing::runProcess(testing::builtProgram("hosts/vontu-defaults"), args);
    }
    static json output(const testing::ProcessResult& result) {
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return json::parse(result.out, nullptr, false);
    }

    json richPush() const {
        return {{"aps", {{"alert", {{"title", "Sale"}, {"body", "Half price today"}}}, {"mutable-content", 1}}},
                {"TERN-Delivery-ID", "delivery-1"},
                {"TERN-Delivery-Token", "device-token-1"},
                {"TERN", {{"push", {{"image", imageUrl()}, {"link", "https://vontu.app/sale"}}}}}};
    }

    static inline std::optional<testing::TestCertificates> certificates_;

    testing::TempDir home_;
    std::shared_ptr<Gate> imageGate_ = std::make_shared<Gate>();
    std::shared_ptr<Gate> trackingGate_ = std::make_shared<Gate>();
    std::unique_ptr<RecordingServer<httplib::SSLServer>> tracking_;
    std::unique_ptr<RecordingServer<httplib::Server>> images_;
};

TEST_F(VontuNseTernPush, ARichPushIsTrackedAndShownWithItsImage) {
    imageGate_->open();
    const long before = std::time(nullptr);
    auto result = output(nse({}, richPush()));
    const long after = std::time(nullptr);

    EXPECT_EQ(result["via"], "handler");
    EXPECT_EQ(result["content"]["title"], "Sale");
    EXPECT_EQ(result["content"]["body"], "Half price today");
    const auto& attachments = result["content"]["attachments"];
    ASSERT_EQ(attachments.size(), 1u) << result.dump();
    EXPECT_TRUE(std::regex_match(attachments[0]["identifier"].get<std::string>(),
                                 std::regex("tern_sdk_[a-z]{10}")));
    EXPECT_EQ(attachments[0]["type"], "public.png");
    const std::string url = attachments[0]["url"];
    ASSERT_TRUE(url.starts_with("file://"));
    std::ifstream attached(url.substr(7), std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(attached), {}), image());

    const auto images = images_->received();
    ASSERT_EQ(images.size(), 1u);
    EXPECT_EQ(images[0].path, "/images/banner.png");
    // The metric request exactly as the tracking API must receive it, sent during the run.
    const auto metrics = tracking_->received();
    ASSERT_EQ(metrics.size(), 1u);
    const auto& metric = metrics[0];
    EXPECT_EQ(metric.method, "POST");
    EXPECT_EQ(metric.path, "/push/events");
    EXPECT_EQ(metric.header("Authorization"), "Basic " + platform::base64Encode(std::string(TERN_SITE_ID) + ":" + TERN_API_KEY));
    EXPECT_EQ(metric.header("Content-Type"), "application/json; charset=utf-8");
    const auto userAgent = metric.header("User-Agent").value_or("");
    EXPECT_TRUE(userAgent.starts_with("Tern iOS Client/2.1.2 (")) << userAgent;
    std::smatch timestamp;
    ASSERT_TRUE(std::regex_match(metric.body, timestamp,
                                 std::regex(R"(\{"delivery_id":"delivery-1","device_id":"device-token-1",)"
                                            R"("event":"delivered","timestamp":(\d+)\})")))
        << metric.body;
    EXPECT_GE(std::stol(timestamp[1]), before);
    EXPECT_LE(std::stol(timestamp[1]), after);

    // A later push whose image has the same file name shows its image too: the first
    // attachment took its file over, so the downloaded name was free again.
    auto again = output(nse({}, richPush()));
    ASSERT_EQ(again["content"]["attachments"].size(), 1u) << again.dump();
    EXPECT_NE(again["content"]["attachments"][0]["url"], url);
}

TEST_F(VontuNseTernPush, APushThatIsNotTernsGoesTheMailWayWithoutLoadingTheNetwork) {
    auto written = defaults({"write", "group.ios.vontu", "Track_m1",
                             R"({"title": "Read!", "body": "B", "read_by": {"bob@x": "Bob read it"}})"});
    ASSERT_EQ(written.exitCode, 0) << written.err;
    const json readReceipt = {
        {"aps", {{"category", "ReadNotif"}, {"md5", "m1"}, {"read_by", "bob@x"},
                 {"alert", {{"title", "T"}, {"body", "B"}}}}},
        {"TERN-Delivery-ID", "delivery-1"}};  // without its token: not a Tern push

    // The dynamic loader names every library it maps.
    auto process = nse({}, readReceipt, {{"LD_DEBUG", "files"}});
    auto result = output(process);
    EXPECT_EQ(result["content"]["body"], "Bob read it");
    EXPECT_EQ(process.err.find("libcurl"), std::string::npos);
    EXPECT_EQ(process.err.find("libvontu_urlsession_curl"), std::string::npos);
    EXPECT_TRUE(tracking_->received().empty());
}

TEST_F(VontuNseTernPush, TheExpiryWarningDeliversARichPushWithoutItsSlowImage) {
    // The image never comes before the warning (at 2 of 3 seconds).
    auto result = output(nse({"--time-limit", "3", "--warning", "1"}, richPush()));

    EXPECT_EQ(result["via"], "expiry");
    EXPECT_GE(result["elapsed_ms"].get<double>(), 1500);
    EXPECT_EQ(result["content"]["body"], "Half price today");
    EXPECT_TRUE(result["content"]["attachments"].empty());
    // The metric went out before the content was handed over.
    EXPECT_EQ(tracking_->received().size(), 1u);
}

// A tracking API that takes the delivered metric and never answers costs the user nothing: the
// expiry warning delivers the push with its image, and the metric stays queued for a later run.
TEST_F(VontuNseTernPush, ATrackingApiThatNeverAnswersStillGetsThePushDeliveredAtExpiry) {
    tracking_->respond([gate = trackingGate_](const httplib::Request&, httplib::Response& response) {
        gate->waitOpen();
        response.set_content("{}", "application/json");
    });
    imageGate_->open();
    auto result = output(nse({"--time-limit", "5", "--warning", "1"}, richPush()));

    EXPECT_EQ(result["via"], "expiry");
    EXPECT_GE(result["elapsed_ms"].get<double>(), 3500);
    EXPECT_EQ(result["content"]["attachments"].size(), 1u);
    EXPECT_EQ(tracking_->received().size(), 1u);
    std::size_t queued = 0;
    for (const auto& file : fs::recursive_directory_iterator(home_.path() / "apps")) {
        queued += file.path().parent_path().filename() == "tasks";
    }
    EXPECT_EQ(queued, 1u);
}

// The system may hand one push to the extension twice; a reused process delivers it each time.
TEST_F(VontuNseTernPush, AReusedProcessDeliversAPushWhoseIdentifierItSawBefore) {
    imageGate_->open();
    const json request = {{"identifier", "push-1"},
                          {"content", {{"title", "Sale"}, {"body", "Half price today"}, {"userInfo", richPush()}}}};
    auto result = nse({"--serve", "--time-limit", "10"}, request.dump() + "\n" + request.dump() + "\n");
    ASSERT_EQ(result.exitCode, 0) << result.err;
    std::istringstream lines(result.out);
    int delivered = 0;
    for (std::string line; std::getline(lines, line); ++delivered) {
        json output = json::parse(line, nullptr, false);
        EXPECT_EQ(output["via"], "handler") << line;
        EXPECT_EQ(output["content"]["attachments"].size(), 1u) << line;
    }
    EXPECT_EQ(delivered, 2);
}

TEST_F(VontuNseTernPush, APausedLibrarySendsNothingButStillDelivers) {
    // The library keeps the end of the pause as seconds since 1970.
    const double inAnHour = static_cast<double>(std::time(nullptr)) + 3600.5;
    auto written = defaults({"write", libraryGlobalSuite, "httpRequestsPauseEnds",
                             json(inAnHour).dump()});
    ASSERT_EQ(written.exitCode, 0) << written.err;
    imageGate_->open();

    auto result = output(nse({}, richPush()));
    EXPECT_EQ(result["via"], "handler");
    EXPECT_EQ(result["content"]["attachments"].size(), 1u);
    EXPECT_TRUE(tracking_->received().empty());
}

TEST_F(VontuNseTernPush, OnSystem12TheLibraryIsNeverAsked) {
    imageGate_->open();
    auto result = output(nse({"--system-version", "12.0"}, richPush()));

    // The mail path (checked in vontu-nse's own tests): no image, no metric.
    EXPECT_EQ(result["via"], "handler");
    EXPECT_TRUE(result["content"]["attachments"].empty());
    EXPECT_TRUE(images_->received().empty());
    EXPECT_TRUE(tracking_->received().empty());
    // The library was never initialised: it made no directory of its own.
    EXPECT_FALSE(fs::exists(home_.path() / "apps" / "ios.vontu.NotificationService" / "support" /
                            "dev.tern"));
}

}  // namespace
}  // namespace vontu
