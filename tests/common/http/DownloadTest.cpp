#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "Common/http/TernHttpClient.hpp"
#include "tests/common/http/ClientHarness.hpp"
#include "tests/common/http/HttpTestSupport.hpp"
#include "tests/common/http/RawTcpServer.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

namespace fs = std::filesystem;
using namespace testing;

constexpr const char* imageBytes = "\x89PNG not really";

std::string contentsOf(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

vontu::platform::linux_host::HostSettings mappingCdnTo(int port) {
    vontu::platform::linux_host::HostSettings settings;
    settings.network.connectTo = {"cdn.test:80:127.0.0.1:" + std::to_string(port)};
    return settings;
}

// Images come from a host other than the tracking API: cdn.test, mapped to a loopback server
// that suggests file names through Content-Disposition when the query asks for one.
class DownloadTest : public ::testing::Test {
protected:
    DownloadTest() {
        cdn.respond([](const httplib::Request& request, httplib::Response& response) {
            if (request.has_param("name")) {
                response.set_header("Content-Disposition",
                                    "attachment; filename=\"" + request.get_param_value("name") + "\"");
            }
            const auto size = request.has_param("size") ? std::stoul(request.get_param_value("size")) : 0;
            response.set_content(size > 0 ? std::string(size, 'x') : std::string(imageBytes), "image/png");
        });
    }

    fs::path downloadDirectory() { return *host.env().temporaryDirectory() / "tern_sdk"; }

    RecordingServer<httplib::Server> api;
    RecordingServer<httplib::Server> cdn;
    vontu::testing::TestEnv host{mappingCdnTo(cdn.port())};
    ClientHarness harness;
    std::shared_ptr<TernHttpClient> client = harness.makeClient(api.origin());
};

TEST_F(DownloadTest, KeepsTheFileUnderTheSuggestedName) {
    const struct {
        std::string url;
        std::string fileName;
    } cases[] = {
        {"http://cdn.test/images/photo.png", "photo.png"},
        {"http://cdn.test/images/photo.png?name=banner.png", "banner.png"},
        {"http://cdn.test/images/caf%C3%A9%20au%20lait.jpg", "caf\xC3\xA9 au lait.jpg"},
    };
    for (const auto& c : cases) {
        const auto file = download(*client, c.url);
        ASSERT_TRUE(file) << c.url;
        EXPECT_EQ(*file, downloadDirectory() / c.fileName);
        EXPECT_EQ(contentsOf(*file), imageBytes);
    }
    for (const auto& request : cdn.received()) {
        EXPECT_FALSE(request.header("Authorization")) << "no credentials for another host";
        EXPECT_FALSE(request.header("User-Agent") == harness.userAgentUtil->getUserAgentHeaderValue());
    }
}

TEST_F(DownloadTest, RefusesNamesThatAreNotPlainFileNames) {
    const std::string cases[] = {
        "http://cdn.test/images/?name=../escaped.png",
        "http://cdn.test/images/?name=a/b.png",
        "http://cdn.test/images/?name=..",
        "http://cdn.test/images/a%2Fb.png",
        "http://cdn.test/images/%2e%2e",
        "http://cdn.test/",
    };
    for (const auto& url : cases) {
        EXPECT_FALSE(download(*client, url)) << url;
    }
    const auto temporaryDirectory = *host.env().temporaryDirectory();
    EXPECT_FALSE(fs::exists(temporaryDirectory / "escaped.png"));
    EXPECT_FALSE(fs::exists(downloadDirectory() / "a"));
}

TEST_F(DownloadTest, LeavesAnEarlierFileOfTheSameNameAlone) {
    fs::create_directories(downloadDirectory());
    std::ofstream(downloadDirectory() / "photo.png") << "earlier";
    EXPECT_FALSE(download(*client, "http://cdn.test/images/photo.png"));
    EXPECT_EQ(contentsOf(downloadDirectory() / "photo.png"), "earlier");
}

TEST_F(DownloadTest, RefusesFilesAboveTenMegabytes) {
    constexpr std::size_t limit = 10u * 1024u * 1024u;
    EXPECT_TRUE(download(*client, "http://cdn.test/limit.png?size=" + std::to_string(limit)));
    EXPECT_FALSE(download(*client, "http://cdn.test/over.png?size=" + std::to_string(limit + 1)));
    EXPECT_FALSE(fs::exists(downloadDirectory() / "over.png"));
}

TEST_F(DownloadTest, AServerThatIsNotThereGivesNoFile) {
    std::string closedOrigin;
    {
        const RawTcpServer gone("");
        closedOrigin = gone.origin();
    }
    EXPECT_FALSE(download(*client, closedOrigin + "/photo.png"));
}

}  // namespace
}  // namespace tern
