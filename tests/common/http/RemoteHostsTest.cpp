#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "tests/common/http/ClientHarness.hpp"
#include "tests/support/RawTcpServer.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestCertificates.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

namespace fs = std::filesystem;
using namespace testing;

constexpr const char* imageBytes = "\x89PNG not really";

std::string contentsOf(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The tracking API at https://track.test (also reached as TRACK.test, and as another host,
// other.test) and an image host at http://cdn.test, which suggests the file name a query gives
// through Content-Disposition.
class RemoteHostsTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto openssl = vontu::testing::programOnPath("openssl");
        if (!openssl) GTEST_SKIP() << "the openssl tool is not installed";
        const auto certificates = vontu::testing::makeTestCertificates(*openssl, certificateDirectory.path(), "track.test", {"other.test"});
        ASSERT_TRUE(certificates);
        track = std::make_unique<RecordingServer<httplib::SSLServer>>(certificates->serverCertificate.c_str(),
                                                                      certificates->serverKey.c_str());
        cdn.respond([](const httplib::Request& request, httplib::Response& response) {
            if (request.has_param("name"))
                response.set_header("Content-Disposition", "attachment; filename=\"" + request.get_param_value("name") + "\"");
            response.set_content(request.path == "/over.png" ? std::string(10u * 1024u * 1024u + 1u, 'x') : imageBytes, "image/png");
        });
        const std::string trackPort = ":443:127.0.0.1:" + std::to_string(track->port());
        vontu::platform::linux_host::HostSettings settings;
        settings.network = {{"track.test" + trackPort, "TRACK.test" + trackPort, "other.test" + trackPort,
                             "cdn.test:80:127.0.0.1:" + std::to_string(cdn.port())},
                            certificates->caCertificate};
        host = std::make_unique<vontu::testing::TestEnv>(settings);
        harness = std::make_unique<ClientHarness>();
        client = harness->makeClient("https://track.test");
    }
    fs::path downloadDirectory() { return *host->env().temporaryDirectory() / "tern_sdk"; }

    vontu::testing::TempDir certificateDirectory;
    std::unique_ptr<RecordingServer<httplib::SSLServer>> track;
    RecordingServer<httplib::Server> cdn;
    std::unique_ptr<vontu::testing::TestEnv> host;
    std::unique_ptr<ClientHarness> harness;
    std::shared_ptr<TernHttpClient> client;
};

// Downloads are the .png addresses.
TEST_F(RemoteHostsTest, CredentialsGoOnlyToTheTrackingHost) {
    const std::pair<std::string, bool> cases[] = {
        {"https://track.test/api/v1/customers/ann", true},
        {"https://TRACK.test/api/v1/customers/ann", false},
        {"http://cdn.test/api/v1/customers/ann", false},
        {"https://track.test/logo.png", true},
        {"http://cdn.test/photo.png", false},
    };
    for (const auto& [url, credentials] : cases) {
        SCOPED_TRACE(url);
        const bool toTrack = url.starts_with("https");
        const auto before = (toTrack ? track->received() : cdn.received()).size();
        if (url.ends_with(".png")) ASSERT_TRUE(download(*client, url));
        else ASSERT_TRUE(send(*client, requestTo(url, "POST", vontu::platform::toBytes("{}"))).value().has_value());
        const auto received = toTrack ? track->received() : cdn.received();
        ASSERT_EQ(received.size(), before + 1);
        harness->expectCredentials(received.back(), credentials);
    }
}

// A redirect out of TLS is not followed (the request fails as the network's fault, to be tried
// again); one to another secure host is followed without the credentials.
TEST_F(RemoteHostsTest, RedirectsNeverLeaveTlsAndLeaveCredentialsBehind) {
    track->respond([](const httplib::Request& request, httplib::Response& response) {
        // 307 repeats the request whole, body and all.
        if (request.path == "/to-clear") response.set_redirect("http://cdn.test/api/v1/customers/ann", 307);
        if (request.path == "/to-other") response.set_redirect("https://other.test/api/v1/customers/ann", 307);
    });
    const auto body = vontu::platform::toBytes(R"({"secret":1})");
    const auto toClear = send(*client, requestTo("https://track.test/to-clear", "POST", body)).value();
    ASSERT_FALSE(toClear.has_value());
    EXPECT_EQ(toClear.error().kind(), HttpRequestError::Kind::noOrBadNetwork);
    EXPECT_TRUE(cdn.received().empty());
    EXPECT_FALSE(download(*client, "https://track.test/to-clear"));
    EXPECT_TRUE(cdn.received().empty());

    ASSERT_TRUE(send(*client, requestTo("https://track.test/to-other", "POST", body)).value().has_value());
    const auto received = track->received();
    ASSERT_EQ(received.back().header("Host"), "other.test");
    EXPECT_EQ(received.back().body, R"({"secret":1})");
    EXPECT_EQ(received.back().header("Authorization"), std::nullopt);
}

TEST_F(RemoteHostsTest, DownloadsKeepOnlyPlainSuggestedNamesAndSmallFilesAndNeverReplaceOne) {
    const struct {
        std::string url;
        std::optional<std::string> fileName;  // absent: refused
    } cases[] = {
        {"http://cdn.test/images/photo.png", "photo.png"},
        {"http://cdn.test/images/photo.png?name=banner.png", "banner.png"},
        {"http://cdn.test/images/caf%C3%A9%20au%20lait.jpg", "caf\xC3\xA9 au lait.jpg"},
        {"http://cdn.test/images/?name=../escaped.png", std::nullopt},
        {"http://cdn.test/images/a%2Fb.png", std::nullopt},
        {"http://cdn.test/images/%2e%2e", std::nullopt},
        {"http://cdn.test/", std::nullopt},
        {"http://cdn.test/over.png", std::nullopt},  // above ten megabytes
        {vontu::testing::RawTcpServer::closedOrigin() + "/nobody.png", std::nullopt},
        {"http://cdn.test/images/photo.png", std::nullopt},  // already there from an earlier download
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        const auto file = download(*client, c.url);
        ASSERT_EQ(file.has_value(), c.fileName.has_value());
        if (!file) continue;
        EXPECT_EQ(*file, downloadDirectory() / *c.fileName);
        EXPECT_EQ(contentsOf(*file), imageBytes);
        std::ofstream(*file) << "earlier";
    }
    EXPECT_EQ(contentsOf(downloadDirectory() / "photo.png"), "earlier");
    EXPECT_FALSE(fs::exists(*host->env().temporaryDirectory() / "escaped.png"));
    EXPECT_FALSE(fs::exists(downloadDirectory() / "a"));
    EXPECT_FALSE(fs::exists(downloadDirectory() / "over.png"));
}

}  // namespace
}  // namespace tern
