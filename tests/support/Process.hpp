#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vontu::testing {

struct ProcessResult {
    int exitCode = -1;  // the exit status, or 128 + signal
    std::string out;
    std::string err;
};

// Runs a program to its end with the given arguments and standard input, collecting its
// output. Extra environment variables are added to the test's own environment. A process
// still running after timeoutSeconds is killed (exitCode 128 + SIGKILL).
ProcessResult runProcess(const std::filesystem::path& program, const std::vector<std::string>& args,
                         const std::string& input = {},
                         const std::map<std::string, std::string>& extraEnv = {},
                         double timeoutSeconds = 120);

// A program built in this build tree, e.g. builtProgram("hosts/vontu-nse").
std::filesystem::path builtProgram(const std::string& relativePath);

}  // namespace vontu::testing
