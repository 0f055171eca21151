#pragma once

#include <CLI/CLI.hpp>
#include <expected>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "platform/linux/LinuxEnv.hpp"

namespace vontu::hosts {

// The exit code of every host for input it cannot read or a command line it cannot use.
inline constexpr int kExitBadInput = 2;

// Adds the options every host shares (--home, --system-version, --connect-to, --cacert) to
// the command line, filling settings.
void addPlatformOptions(CLI::App& app, platform::linux_host::HostSettings& settings);

// Reads a whole JSON document from a file, or standard input for "-"; the error is one line.
std::expected<nlohmann::json, std::string> readJsonInput(const std::string& path);

// text as one JSON document; what names it in the one-line error. Documents nested deeper
// than any real push or record are refused: copying or writing them recurses once per level.
std::expected<nlohmann::json, std::string> parseJsonText(std::string_view text,
                                                         const std::string& what);

// A check for a name that becomes one directory of the state root (a bundle or site id):
// not empty, no "/", not "." or "..".
std::string directoryNameProblem(const std::string& value);

// A check for a number of seconds: finite, at least 0 (above 0 unless zeroAllowed), at most a
// day, which is far beyond what any system allows.
CLI::Validator secondsUpToADay(bool zeroAllowed);

// Prints "<program>: <message>" as one line on standard error.
void printError(const std::string& program, const std::string& message);

}  // namespace vontu::hosts
