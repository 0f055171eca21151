#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "Common/http/TernHttpClient.hpp"
#include "tests/common/http/ClientHarness.hpp"
#include "tests/common/http/HttpTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using namespace testing;

constexpr const char* trackingHost = "track.test";

// The tracking API over TLS at https://track.test (a certificate from a throw-away CA that the
// platform is told to trust), and an image host at http://cdn.test. Both names, and the
// tracking host in other letter case, lead to loopback servers.
class CredentialsTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto openssl = programOnPath("openssl");
        if (!openssl) GTEST_SKIP() << "the openssl tool is not installed";
        certificates = makeTestCertificates(*openssl, certificateDirectory.path(), trackingHost);
        ASSERT_TRUE(certificates);
        track = std::make_unique<RecordingServer<httplib::SSLServer>>(certificates->serverCertificate.c_str(),
                                                                      certificates->serverKey.c_str());
        const std::string trackPort = std::to_string(track->port());
        vontu::platform::linux_host::HostSettings settings;
        settings.network.connectTo = {
            std::string(trackingHost) + ":443:127.0.0.1:" + trackPort,
            "TRACK.test:443:127.0.0.1:" + trackPort,
            "cdn.test:80:127.0.0.1:" + std::to_string(cdn.port()),
        };
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

    void expectCredentials(const ReceivedRequest& request) {
        EXPECT_EQ(request.header("Authorization"), testAuthorization);
        EXPECT_EQ(request.header("Content-Type"), "application/json; charset=utf-8");
        EXPECT_EQ(request.header("User-Agent"), harness->userAgentUtil->getUserAgentHeaderValue());
    }
    void expectNoCredentials(const ReceivedRequest& request) {
        EXPECT_FALSE(request.header("Authorization"));
        EXPECT_NE(request.header("Content-Type"), "application/json; charset=utf-8");
        EXPECT_NE(request.header("User-Agent"), harness->userAgentUtil->getUserAgentHeaderValue());
    }

    vontu::testing::TempDir certificateDirectory;
    std::optional<TestCertificates> certificates;
    std::unique_ptr<RecordingServer<httplib::SSLServer>> track;
    RecordingServer<httplib::Server> cdn;
    std::unique_ptr<vontu::testing::TestEnv> host;
    std::unique_ptr<ClientHarness> harness;
    std::shared_ptr<TernHttpClient> client;
};

TEST_F(CredentialsTest, GoOnlyToTheTrackingHost) {
    const struct {
        std::string url;
        bool toTrackingServer;
        bool credentials;
    } cases[] = {
        {"https://track.test/api/v1/customers/ann", true, true},
        {"https://TRACK.test/api/v1/customers/ann", true, false},
        {"http://cdn.test/api/v1/customers/ann", false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        const auto trackBefore = track->receivedCount();
        const auto cdnBefore = cdn.receivedCount();
        const auto result = send(*client, requestTo(c.url, "POST", vontu::platform::toBytes("{}")));
        ASSERT_TRUE(result);
        ASSERT_TRUE(result->has_value()) << result->error().description();
        const auto received = c.toTrackingServer ? track->received() : cdn.received();
        ASSERT_EQ(received.size(), (c.toTrackingServer ? trackBefore : cdnBefore) + 1);
        if (c.credentials) {
            expectCredentials(received.back());
        } else {
            expectNoCredentials(received.back());
        }
    }
}

TEST_F(CredentialsTest, DownloadsFromOtherHostsCarryNone) {
    ASSERT_TRUE(download(*client, "http://cdn.test/photo.png"));
    ASSERT_EQ(cdn.receivedCount(), 1u);
    expectNoCredentials(cdn.received().back());

    ASSERT_TRUE(download(*client, "https://track.test/logo.png"));
    ASSERT_EQ(track->receivedCount(), 1u);
    expectCredentials(track->received().back());
}

}  // namespace
}  // namespace tern
