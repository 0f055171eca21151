#pragma once

#include <CLI/CLI.hpp>
#include <expected>
#include <string>

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

// Prints "<program>: <message>" as one line on standard error.
void printError(const std::string& program, const std::string& message);

}  // namespace vontu::hosts
