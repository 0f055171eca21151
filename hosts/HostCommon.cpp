#include "hosts/HostCommon.hpp"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string_view>

#include "platform/FileName.hpp"

namespace vontu::hosts {

namespace {

// Checked by hand: compiling a std::regex at start cost a push more than parsing its payload.
bool isDigits(std::string_view text) { return text.find_first_not_of("0123456789") == text.npos; }

// One to three dot-separated numbers, such as 17.0.
bool isVersion(std::string_view text) {
    for (int part = 0; part < 3; ++part) {
        const auto dot = text.find('.');
        const auto number = text.substr(0, dot);
        if (number.empty() || !isDigits(number)) return false;
        if (dot == text.npos) return true;
        text.remove_prefix(dot + 1);
    }
    return false;
}

// HOST:PORT:ADDR:PORT as curl's --connect-to takes it, the ports possibly empty and ADDR
// possibly a bracketed IPv6 address.
bool isConnectToEntry(std::string_view entry) {
    const auto first = entry.find(':');
    if (first == entry.npos) return false;
    const auto second = entry.find(':', first + 1);
    if (second == entry.npos || !isDigits(entry.substr(first + 1, second - first - 1))) return false;
    const auto target = entry.substr(second + 1);
    const auto last = target.rfind(':');
    if (last == target.npos || !isDigits(target.substr(last + 1))) return false;
    const auto address = target.substr(0, last);
    const bool bracketed = address.size() >= 2 && address.starts_with('[') && address.ends_with(']') &&
                           address.substr(1, address.size() - 2).find(']') == address.npos;
    return bracketed || address.find(':') == address.npos;
}

}  // namespace

void addPlatformOptions(CLI::App& app, platform::linux_host::HostSettings& settings) {
    app.add_option("--home", settings.home, "State root (else $VONTU_HOME, $XDG_DATA_HOME/vontu)");
    app.add_option("--system-version", settings.systemVersion, "System version the host reports")
        ->check([](const std::string& value) -> std::string {
            return isVersion(value) ? "" : "expected a version such as 17.0";
        });
    app.add_option("--connect-to", settings.network.connectTo,
                   "HOST:PORT:ADDR:PORT, as curl's option (repeatable)")
        ->allow_extra_args(false)
        ->check([](const std::string& value) -> std::string {
            return isConnectToEntry(value) ? "" : "expected HOST:PORT:ADDR:PORT";
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
