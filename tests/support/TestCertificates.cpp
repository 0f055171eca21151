#include "tests/support/TestCertificates.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include "tests/support/Process.hpp"

namespace vontu::testing {

std::optional<std::filesystem::path> programOnPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string directory; std::getline(directories, directory, ':');) {
        const auto candidate = std::filesystem::path(directory) / name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return std::nullopt;
}

std::optional<TestCertificates> makeTestCertificates(const std::filesystem::path& openssl,
                                                     const std::filesystem::path& directory,
                                                     const std::string& hostName,
                                                     const std::vector<std::string>& otherHostNames) {
    const TestCertificates made{directory / "ca.pem", directory / "server.pem",
                                directory / "server.key"};
    const auto caKey = directory / "ca.key";
    const auto request = directory / "server.csr";
    const auto extensions = directory / "server.ext";
    std::string names = "DNS:" + hostName;
    for (const auto& other : otherHostNames) names += ",DNS:" + other;
    std::ofstream(extensions) << "subjectAltName=" << names << "\nbasicConstraints=CA:FALSE\n"
                              << "keyUsage=critical,digitalSignature\nextendedKeyUsage=serverAuth\n";
    const std::vector<std::vector<std::string>> steps = {
        {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
         "-days", "2", "-subj", "/CN=Vontu Test CA", "-addext", "basicConstraints=critical,CA:TRUE",
         "-addext", "keyUsage=critical,keyCertSign,cRLSign", "-keyout", caKey, "-out",
         made.caCertificate},
        {"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj",
         "/CN=" + hostName, "-keyout", made.serverKey, "-out", request},
        {"x509", "-req", "-in", request, "-CA", made.caCertificate, "-CAkey", caKey,
         "-CAcreateserial", "-days", "2", "-extfile", extensions, "-out", made.serverCertificate},
    };
    for (const auto& arguments : steps) {
        const auto result = runProcess(openssl, arguments);
        if (result.exitCode != 0) {
            ADD_FAILURE() << "openssl " << arguments[0] << " failed: " << result.err;
            return std::nullopt;
        }
    }
    return made;
}

}  // namespace vontu::testing
