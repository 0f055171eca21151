// vontu-defaults: reads and writes defaults suites from a shell, as the main app does.
//
//   vontu-defaults [--home DIR] read SUITE [KEY]
//   vontu-defaults [--home DIR] write SUITE KEY JSON
//   vontu-defaults [--home DIR] delete SUITE [KEY]
//
// Values travel in the JSON form of property lists (platform/PlistJson.hpp). `read` prints one
// line of JSON: the value, or the whole suite as an object. `delete` without a key removes every
// key of the suite.
//
// Exit status: 0 done; 1 the key is missing, or the suite cannot be opened or written;
// 2 bad usage, a bad suite name, JSON that cannot be read or a value with no property-list
// form (nothing is written then). Errors are one line on standard error.
//
// Reading or deleting never creates a suite that does not exist yet.

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "platform/PlistJson.hpp"
#include "platform/linux/StateRoot.hpp"
#include "platform/linux/SqliteDefaultsSuite.hpp"

namespace {

namespace fs = std::filesystem;
using vontu::platform::DefaultsSuite;
using vontu::platform::PlistDictionary;
using vontu::platform::PlistValue;

constexpr int exitFailed = 1;
constexpr int exitUsage = 2;

int fail(int status, const std::string& message) {
    std::cerr << "vontu-defaults: " << message << '\n';
    return status;
}

// A suite name becomes a file name in the preferences directory, so it must stay one file name
// there.
bool isSafeSuiteName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

// Creates every missing directory of the path, owner-only.
bool createPrivateDirectories(const fs::path& path) {
    fs::path partial;
    for (const auto& component : path) {
        partial /= component;
        if (::mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST) return false;
    }
    std::error_code ec;
    return fs::is_directory(path, ec);
}

std::string printed(const PlistValue& value) {
    return vontu::platform::plistToJson(value).dump(-1, ' ', false,
                                                    nlohmann::json::error_handler_t::replace);
}

struct Command {
    std::string name;
    std::string suite;
    std::optional<std::string> key;
    std::string json;
};

class SuiteFile {
public:
    explicit SuiteFile(fs::path preferences, const std::string& suite)
        : preferences_(std::move(preferences)), file_(preferences_ / (suite + ".sqlite")) {}

    bool exists() const {
        std::error_code ec;
        return fs::exists(file_, ec);
    }
    std::shared_ptr<DefaultsSuite> open() const {
        return vontu::platform::linux_host::openSqliteDefaultsSuite(file_);
    }
    std::shared_ptr<DefaultsSuite> openCreating() const {
        if (!createPrivateDirectories(preferences_)) return nullptr;
        return open();
    }

private:
    fs::path preferences_;
    fs::path file_;
};

int readValue(const SuiteFile& file, const Command& command) {
    if (!command.key) {
        if (!file.exists()) {
            std::cout << "{}\n";
            return 0;
        }
        auto suite = file.open();
        if (!suite) return fail(exitFailed, "cannot open suite \"" + command.suite + "\"");
        std::cout << printed(PlistValue(suite->dictionaryRepresentation())) << '\n';
        return 0;
    }
    const auto missing = "no value for key \"" + *command.key + "\" in suite \"" +
                         command.suite + "\"";
    if (!file.exists()) return fail(exitFailed, missing);
    auto suite = file.open();
    if (!suite) return fail(exitFailed, "cannot open suite \"" + command.suite + "\"");
    const auto value = suite->objectForKey(*command.key);
    if (!value) return fail(exitFailed, missing);
    std::cout << printed(*value) << '\n';
    return 0;
}

int writeValue(const SuiteFile& file, const Command& command) {
    const auto json = nlohmann::json::parse(command.json, nullptr, /*allow_exceptions=*/false);
    if (json.is_discarded()) return fail(exitUsage, "the value is not valid JSON");
    const auto value = vontu::platform::plistFromJson(json);
    if (!value) return fail(exitUsage, "the value has no property-list form: " + value.error());

    auto suite = file.openCreating();
    if (!suite) return fail(exitFailed, "cannot open suite \"" + command.suite + "\"");
    if (!suite->setObject(*value, *command.key)) {
        return fail(exitFailed, "cannot write key \"" + *command.key + "\"");
    }
    return 0;
}

int deleteValues(const SuiteFile& file, const Command& command) {
    if (!file.exists()) return 0;
    auto suite = file.open();
    if (!suite) return fail(exitFailed, "cannot open suite \"" + command.suite + "\"");
    if (command.key) {
        if (!suite->removeObject(*command.key)) {
            return fail(exitFailed, "cannot delete key \"" + *command.key + "\"");
        }
        return 0;
    }
    for (const auto& [key, value] : suite->dictionaryRepresentation()) {
        if (!suite->removeObject(key)) return fail(exitFailed, "cannot delete key \"" + key + "\"");
    }
    return 0;
}

// Adds the SUITE and KEY arguments that every command takes.
void addSuiteAndKey(CLI::App& command, Command& parsed, bool keyRequired) {
    command.add_option("SUITE", parsed.suite, "Suite name")->required();
    auto* key = command.add_option_function<std::string>(
        "KEY", [&parsed](const std::string& given) { parsed.key = given; }, "Key");
    if (keyRequired) key->required();
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Reads and writes defaults suites, as the main app does.", "vontu-defaults"};
    std::string home;
    Command command;
    app.add_option("--home", home, "State root (else $VONTU_HOME, $XDG_DATA_HOME/vontu, "
                                   "~/.local/share/vontu)");
    app.require_subcommand(1);

    auto* read = app.add_subcommand("read", "Print a value, or the whole suite, as JSON");
    addSuiteAndKey(*read, command, false);
    auto* write = app.add_subcommand("write", "Store a value given as JSON");
    addSuiteAndKey(*write, command, true);
    write->add_option("JSON", command.json, "The value as JSON")->required();
    auto* remove = app.add_subcommand("delete", "Remove a key, or every key of the suite");
    addSuiteAndKey(*remove, command, false);
    for (auto* subcommand : {read, write, remove}) subcommand->fallthrough();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);  // --help
        return fail(exitUsage, error.what());
    }
    command.name = app.get_subcommands().front()->get_name();

    if (!isSafeSuiteName(command.suite)) {
        return fail(exitUsage, "bad suite name \"" + command.suite + "\"");
    }
    const auto preferences = vontu::platform::linux_host::resolveHome(home) / "preferences";
    const SuiteFile file(preferences, command.suite);
    if (command.name == "read") return readValue(file, command);
    if (command.name == "write") return writeValue(file, command);
    return deleteValues(file, command);
}
