#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vontu::testing {

// The first executable of that name on PATH.
std::optional<std::filesystem::path> programOnPath(const std::string& name);

// A throw-away CA and a server certificate signed by it, for one host name and any others.
struct TestCertificates {
    std::filesystem::path caCertificate;
    std::filesystem::path serverCertificate;
    std::filesystem::path serverKey;
};

// Makes them in directory with the openssl tool; absent, with a test failure added, when a
// step fails.
std::optional<TestCertificates> makeTestCertificates(const std::filesystem::path& openssl,
                                                     const std::filesystem::path& directory,
                                                     const std::string& hostName,
                                                     const std::vector<std::string>& otherHostNames = {});

}  // namespace vontu::testing
