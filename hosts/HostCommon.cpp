#include "hosts/HostCommon.hpp"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <regex>
#include <sstream>

#include "platform/FileName.hpp"

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

namespace {

// Deeper than any push payload (4 KB) or record the hosts take.
constexpr int deepestJson = 512;

std::optional<std::string> readWhole(const std::string& path) {
    std::string text;
    if (path == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
        return text;
    }
    // A directory opens as a stream and fails only when read, by throwing.
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) return std::nullopt;
    try {
        std::ifstream in(path, std::ios::binary);
        if (!in) return std::nullopt;
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        if (in.bad()) return std::nullopt;
    } catch (const std::exception&) {
        return std::nullopt;
    }
    return text;
}

}  // namespace

std::expected<nlohmann::json, std::string> readJsonInput(const std::string& path) {
    const auto text = readWhole(path);
    if (!text) return std::unexpected("cannot read " + path);
    return parseJsonText(*text, path == "-" ? std::string("standard input") : path);
}

std::expected<nlohmann::json, std::string> parseJsonText(std::string_view text,
                                                         const std::string& what) {
    bool tooDeep = false;
    auto json = nlohmann::json::parse(
        text,
        [&tooDeep](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
            if (depth > deepestJson) tooDeep = true;
            return !tooDeep;  // once too deep, nothing more is kept
        },
        false);
    if (json.is_discarded()) return std::unexpected(what + " is not JSON");
    if (tooDeep) return std::unexpected(what + " is nested too deeply");
    return json;
}

std::string directoryNameProblem(const std::string& value) {
    if (value.empty()) return "must not be empty";
    return platform::isSingleFileName(value) ? "" : "must be a single name, without \"/\"";
}

CLI::Validator secondsUpToADay(bool zeroAllowed) {
    return CLI::Validator(
        [zeroAllowed](std::string& text) -> std::string {
            constexpr double aDay = 24 * 3600;
            double seconds = 0;
            if (!CLI::detail::lexical_cast(text, seconds) || !std::isfinite(seconds) ||
                seconds < 0 || (seconds == 0 && !zeroAllowed) || seconds > aDay) {
                return zeroAllowed ? "expected seconds from 0 to 86400"
                                   : "expected seconds above 0, at most 86400";
            }
            return "";
        },
        "SECONDS");
}

void printError(const std::string& program, const std::string& message) {
    std::string line = program + ": " + message + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace vontu::hosts
