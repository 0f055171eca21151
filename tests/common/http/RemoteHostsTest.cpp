// The client against named hosts: the tracking API over TLS, and images from another host.

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/common/http/ClientHarness.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestCertificates.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

namespace fs = std::filesystem;
using namespace testing;

constexpr const char* imageBytes = "\x89PNG not really";
constexpr std::size_t tenMegabytes = 10u * 1024u * 1024u;

std::string contentsOf(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

// The tracking API at https://track.test (a certificate from a throw-away CA that the platform
// is told to trust) and an image host at http://cdn.test, which suggests a file name through
// Content-Disposition when the query gives one. Both names, and the tracking host in other
// letter case, lead to loopback servers.
class RemoteHostsTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto openssl = vontu::testing::programOnPath("openssl");
        if (!openssl) GTEST_SKIP() << "the openssl tool is not installed";
        const auto certificates =
            vontu::testing::makeTestCertificates(*openssl, certificateDirectory.path(), "track.test");
        ASSERT_TRUE(certificates);
        track = std::make_unique<RecordingServer<httplib::SSLServer>>(certificates->serverCertificate.c_str(),
                                                                      certificates->serverKey.c_str());
        cdn.respond([](const httplib::Request& request, httplib::Response& response) {
            if (request.has_param("name")) {
                response.set_header("Content-Disposition",
                                    "attachment; filename=\"" + request.get_param_value("name") + "\"");
            }
            const auto size = request.has_param("size") ? std::stoul(request.get_param_value("size")) : 0;
            response.set_content(size > 0 ? std::string(size, 'x') : std::string(imageBytes), "image/png");
        });
        const std::string trackPort = std::to_string(track->port());
        vontu::platform::linux_host::HostSettings settings;
        settings.network.connectTo = {"track.test:443:127.0.0.1:" + trackPort, "TRACK.test:443:127.0.0.1:" + trackPort,
                                      "cdn.test:80:127.0.0.1:" + std::to_string(cdn.port())};
        settings.network.extraCaFile = certificates->caCertificate;
        host = std::make_unique<vontu::testing::TestEnv>(settings);
        harness = std::make_unique<ClientHarness>();
        client = harness->makeClient("https://track.test");
    }
    void TearDown() override {
        client.reset();
        harness.reset();
        host.reset();
    }

    fs::path downloadDirectory() { return *host->env().temporaryDirectory() / "tern_sdk"; }

    vontu::testing::TempDir certificateDirectory;
    std::unique_ptr<RecordingServer<httplib::SSLServer>> track;
    RecordingServer<httplib::Server> cdn;
    std::unique_ptr<vontu::testing::TestEnv> host;
    std::unique_ptr<ClientHarness> harness;
    std::shared_ptr<TernHttpClient> client;
};

TEST_F(RemoteHostsTest, CredentialsGoOnlyToTheTrackingHost) {
    const struct {
        std::string url;
        bool isDownload;
        bool toTrackingServer;
        bool credentials;
    } cases[] = {
        {"https://track.test/api/v1/customers/ann", false, true, true},
        {"https://TRACK.test/api/v1/customers/ann", false, true, false},
        {"http://cdn.test/api/v1/customers/ann", false, false, false},
        {"https://track.test/logo.png", true, true, true},
        {"http://cdn.test/photo.png", true, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        const auto before = c.toTrackingServer ? track->receivedCount() : cdn.receivedCount();
        if (c.isDownload) {
            ASSERT_TRUE(download(*client, c.url));
        } else {
            const auto result = send(*client, requestTo(c.url, "POST", vontu::platform::toBytes("{}")));
            ASSERT_TRUE(result && result->has_value()) << (result ? result->error().description() : "none");
        }
        const auto received = c.toTrackingServer ? track->received() : cdn.received();
        ASSERT_EQ(received.size(), before + 1);
        harness->expectCredentials(received.back(), c.credentials);
    }
}

TEST_F(RemoteHostsTest, DownloadsKeepOnlyPlainSuggestedNamesAndNeverReplaceAFile) {
    const struct {
        std::string url;
        std::optional<std::string> fileName;  // absent: refused
    } cases[] = {
        {"http://cdn.test/images/photo.png", "photo.png"},
        {"http://cdn.test/images/photo.png?name=banner.png", "banner.png"},
        {"http://cdn.test/images/caf%C3%A9%20au%20lait.jpg", "caf\xC3\xA9 au lait.jpg"},
        {"http://cdn.test/images/?name=../escaped.png", std::nullopt},
        {"http://cdn.test/images/?name=a/b.png", std::nullopt},
        {"http://cdn.test/images/?name=..", std::nullopt},
        {"http://cdn.test/images/a%2Fb.png", std::nullopt},
        {"http://cdn.test/images/%2e%2e", std::nullopt},
        {"http://cdn.test/", std::nullopt},
        // Already there from an earlier download.
        {"http://cdn.test/images/photo.png", std::nullopt},
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
}

TEST_F(RemoteHostsTest, DownloadsFailAboveTenMegabytesAndWithoutAServer) {
    EXPECT_TRUE(download(*client, "http://cdn.test/limit.png?size=" + std::to_string(tenMegabytes)));
    EXPECT_FALSE(download(*client, "http://cdn.test/over.png?size=" + std::to_string(tenMegabytes + 1)));
    EXPECT_FALSE(fs::exists(downloadDirectory() / "over.png"));
    EXPECT_FALSE(download(*client, RawTcpServer::closedOrigin() + "/photo.png"));
}

}  // namespace
}  // namespace tern
