#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/linux/CurlUrlSession.hpp"
#include "tests/platform/urlsession/LoopbackServer.hpp"
#include "tests/support/Process.hpp"
#include "tests/support/TempDir.hpp"

namespace vontu::platform::linux_host {
namespace {

namespace fs = std::filesystem;
using vontu::testing::OutcomeRecorder;

constexpr const char* serverHost = "thathost";

std::optional<fs::path> programOnPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string directory; std::getline(directories, directory, ':');) {
        const fs::path candidate = fs::path(directory) / name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return std::nullopt;
}

// A throw-away CA and a certificate for serverHost signed by it, made with the openssl tool.
struct TestCertificates {
    fs::path caCertificate;
    fs::path serverCertificate;
    fs::path serverKey;
};

std::optional<TestCertificates> makeTestCertificates(const fs::path& openssl, const fs::path& directory) {
    const TestCertificates made{directory / "ca.pem", directory / "server.pem", directory / "server.key"};
    const fs::path caKey = directory / "ca.key";
    const fs::path request = directory / "server.csr";
    const fs::path extensions = directory / "server.ext";
    std::ofstream(extensions) << "subjectAltName=DNS:" << serverHost << "\nbasicConstraints=CA:FALSE\n"
                              << "keyUsage=critical,digitalSignature\nextendedKeyUsage=serverAuth\n";
    const std::vector<std::vector<std::string>> steps = {
        {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
         "-subj", "/CN=Vontu Test CA", "-addext", "basicConstraints=critical,CA:TRUE", "-addext",
         "keyUsage=critical,keyCertSign,cRLSign", "-keyout", caKey, "-out", made.caCertificate},
        {"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj",
         std::string("/CN=") + serverHost, "-keyout", made.serverKey, "-out", request},
        {"x509", "-req", "-in", request, "-CA", made.caCertificate, "-CAkey", caKey, "-CAcreateserial", "-days", "2",
         "-extfile", extensions, "-out", made.serverCertificate},
    };
    for (const auto& arguments : steps) {
        const auto result = vontu::testing::runProcess(openssl, arguments);
        if (result.exitCode != 0) {
            ADD_FAILURE() << "openssl " << arguments[0] << " failed: " << result.err;
            return std::nullopt;
        }
    }
    return made;
}

TEST(CurlUrlSessionTlsTest, VerifiesCertificatesAgainstTheExtraCa) {
    const auto openssl = programOnPath("openssl");
    if (!openssl) GTEST_SKIP() << "the openssl tool is not installed";
    vontu::testing::TempDir temp;
    const auto certificates = makeTestCertificates(*openssl, temp.path());
    ASSERT_TRUE(certificates);

    vontu::testing::BasicLoopbackServer<httplib::SSLServer> server(
        [](httplib::Server& routes) {
            routes.Get("/hello", [](const httplib::Request&, httplib::Response& response) {
                response.set_content("secure", "text/plain");
            });
        },
        certificates->serverCertificate.c_str(), certificates->serverKey.c_str());
    const std::string port = std::to_string(server.port());

    struct Case {
        fs::path extraCaFile;
        std::optional<UrlError::Code> expected;  // absent: succeeds
    };
    const Case cases[] = {
        {certificates->caCertificate, std::nullopt},
        {{}, UrlError::Code::secureConnectionFailed},
        {temp.path() / "missing.pem", UrlError::Code::other},
    };
    for (const Case& c : cases) {
        NetworkOptions network;
        network.connectTo = {std::string(serverHost) + ":" + port + ":127.0.0.1:" + port};
        network.extraCaFile = c.extraCaFile;
        auto session = makeCurlUrlSession({}, network, temp.path() / "downloads");
        UrlRequest request;
        request.url = "https://" + std::string(serverHost) + ":" + port + "/hello";
        OutcomeRecorder recorder;
        session->dataTask(request, recorder.dataCompletion());
        const auto outcome = recorder.await();
        ASSERT_TRUE(outcome);
        ASSERT_EQ(outcome->error.has_value(), c.expected.has_value())
            << c.extraCaFile << ": " << (outcome->error ? outcome->error->localizedDescription : "no error");
        if (c.expected) {
            EXPECT_EQ(outcome->error->code, *c.expected) << outcome->error->localizedDescription;
        } else {
            EXPECT_EQ(outcome->data, toBytes("secure"));
            EXPECT_EQ(outcome->response->url, request.url);
        }
    }
}

}  // namespace
}  // namespace vontu::platform::linux_host
