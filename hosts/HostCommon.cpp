#include "hosts/HostCommon.hpp"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>
#include <sstream>

namespace vontu::hosts {

void addPlatformOptions(CLI::App& app, platform::linux_host::HostSettings& settings) {
    app.add_option("--home", settings.home, "State root (else $VONTU_HOME, $XDG_DATA_HOME/vontu)");
    app.add_option("--system-version", settings.systemVersion, "System version the host reports")
        ->check([](const std::string& value) -> std::string {
            static const std::regex version(R"(\d+(\.\d+){0,2})");
            return std::regex_match(value, version) ? "" : "expected a version such as 17.0";
        });
    app.add_option("--connect-to", settings.network.connectTo,
                   "HOST:PORT:ADDR:PORT, as curl's option (repeatable)")
        ->allow_extra_args(false)
        ->check([](const std::string& value) -> std::string {
            static const std::regex entry(R"([^:]*:\d*:[^:]*:\d*|[^:]*:\d*:\[[^\]]*\]:\d*)");
            return std::regex_match(value, entry) ? "" : "expected HOST:PORT:ADDR:PORT";
        });
    app.add_option("--cacert", settings.network.extraCaFile, "An extra trusted CA (PEM file)")
        ->check(CLI::ExistingFile);
}

std::expected<nlohmann::json, std::string> readJsonInput(const std::string& path) {
    std::string text;
    if (path == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
        std::ifstream in(path, std::ios::binary);
        if (!in) return std::unexpected("cannot read " + path);
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        if (in.bad()) return std::unexpected("cannot read " + path);
    }
    auto json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded()) {
        return std::unexpected((path == "-" ? std::string("standard input") : path) +
                               " is not JSON");
    }
    return json;
}

void printError(const std::string& program, const std::string& message) {
    std::string line = program + ": " + message + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace vontu::hosts
