// tern: the library's tracking interface from a shell. It initialises the library as an app
// would (Tern::initialize, app form), runs one command through the library's facades and exits;
// with --flush it then runs the background queue and waits for that run to end. Queued tasks
// persist under the state root, so a later run sends what an earlier one queued.
//
// Like the other hosts, the main thread runs the platform's main loop while the command runs on
// a thread of its own.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "Common/config/Region.hpp"
#include "Common/queue/Metric.hpp"
#include "Common/queue/Queue.hpp"
#include "Common/queue/QueueStorage.hpp"
#include "Common/storage/StorageNames.hpp"
#include "Common/util/Url.hpp"
#include "TernTracking/Tern.hpp"
#include "hosts/HostCommon.hpp"
#include "messaging_push/NotificationOpen.hpp"
#include "messaging_push_fcm/MessagingPushFCM.hpp"
#include "platform/NotificationJson.hpp"
#include "hosts/SettlingEnv.hpp"
#include "hosts/StoreFailureEnv.hpp"

namespace {

using namespace vontu;
using nlohmann::json;

constexpr const char* kProgram = "tern";
// The command's work, or the queue's, could not be stored.
constexpr int kExitNotStored = 1;

// --- Commands, each with its arguments already checked

struct Identify {
    std::string identifier;
    std::optional<json> attributes;
};
struct ClearIdentify {};
struct TrackEvent {
    std::string name;
    std::optional<json> data;
};
struct TrackScreen {
    std::string name;
    std::optional<json> data;
};
struct RegisterToken {
    std::string token;
};
struct DeleteToken {};
struct ProfileAttributes {
    json attributes;
};
struct DeviceAttributes {
    json attributes;
};
struct TrackMetric {
    std::string deliveryId;
    tern::Metric event;
    std::string deviceToken;
};
struct RegisterFcmToken {
    std::string token;
};
// The user's response to a notification.
struct OpenNotification {
    platform::NotificationResponse response;
};
struct QueueStatusCommand {};
struct QueueRun {};
struct QueueDeleteExpired {};

using Command = std::variant<Identify, ClearIdentify, TrackEvent, TrackScreen, RegisterToken,
                             DeleteToken, RegisterFcmToken, ProfileAttributes, DeviceAttributes,
                             TrackMetric, OpenNotification, QueueStatusCommand, QueueRun, QueueDeleteExpired>;

struct Options {
    platform::linux_host::HostSettings settings;
    std::string siteId;
    std::string apiKey;
    std::string region = "US";
    json config = json::object();
    bool flush = false;
    Command command;
};

// A command line that cannot be used: the one-line message for standard error.
struct UsageError {
    std::string message;
};

// The first non-empty of: the option's value, the environment variable, the build default.
std::string settingOrDefault(const std::string& fromOption, const char* environmentVariable,
                             const char* buildDefault) {
    if (!fromOption.empty()) return fromOption;
    const char* fromEnvironment = std::getenv(environmentVariable);
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') return fromEnvironment;
    return buildDefault;
}

// text as a JSON object; what names the argument in the error.
std::expected<json, UsageError> jsonObjectArgument(const std::string& text,
                                                   const std::string& what) {
    auto parsed = hosts::parseJsonText(text, what);
    if (!parsed) return std::unexpected(UsageError{parsed.error()});
    if (!parsed->is_object()) return std::unexpected(UsageError{what + " is not a JSON object"});
    return std::move(*parsed);
}

std::expected<std::optional<json>, UsageError> optionalJsonObjectArgument(
    const std::optional<std::string>& text, const std::string& what) {
    if (!text) return std::optional<json>();
    auto parsed = jsonObjectArgument(*text, what);
    if (!parsed) return std::unexpected(parsed.error());
    return std::optional<json>(std::move(*parsed));
}

// One line whatever the parser wrote, as every error of a host is.
std::string oneLine(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    for (char& c : text) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    return text;
}

// The command line as given: raw texts, checked afterwards by commandFromArguments.
struct Arguments {
    std::string identifier, name, token, json, deliveryId, event, deviceToken, file, action;
    std::optional<std::string> attributes, data, config;
    std::vector<std::string> universalLinkHosts;
};

struct Subcommands {
    CLI::App* identify;
    CLI::App* clearIdentify;
    CLI::App* track;
    CLI::App* screen;
    CLI::App* registerToken;
    CLI::App* deleteToken;
    CLI::App* fcmToken;
    CLI::App* profileAttributes;
    CLI::App* deviceAttributes;
    CLI::App* metric;
    CLI::App* open;
    CLI::App* queueStatus;
    CLI::App* queueRun;
    CLI::App* queueDeleteExpired;
};

Subcommands addCommands(CLI::App& app, Arguments& arguments) {
    Subcommands commands{};
    commands.identify = app.add_subcommand("identify", "Identify the profile ID");
    commands.identify->add_option("ID", arguments.identifier)->required();
    commands.identify->add_option("--attributes", arguments.attributes,
                                  "Profile attributes (JSON)");

    commands.clearIdentify = app.add_subcommand("clear-identify", "Forget the identified profile");

    commands.track = app.add_subcommand("track", "Track the event NAME");
    commands.track->add_option("NAME", arguments.name)->required();
    commands.track->add_option("--data", arguments.data, "Event data (JSON)");

    commands.screen = app.add_subcommand("screen", "Track a view of the screen NAME");
    commands.screen->add_option("NAME", arguments.name)->required();
    commands.screen->add_option("--data", arguments.data, "Screen view data (JSON)");

    commands.registerToken = app.add_subcommand("register-token", "Register a device token");
    commands.registerToken->add_option("TOKEN", arguments.token)->required();

    commands.deleteToken =
        app.add_subcommand("delete-token", "Remove the device token from the profile");

    commands.fcmToken = app.add_subcommand("fcm-token", "Register an FCM token");
    commands.fcmToken->add_option("TOKEN", arguments.token)->required();

    commands.profileAttributes = app.add_subcommand("profile-attributes", "Set profile attributes");
    commands.profileAttributes->add_option("JSON", arguments.json)->required();

    commands.deviceAttributes = app.add_subcommand("device-attributes", "Set device attributes");
    commands.deviceAttributes->add_option("JSON", arguments.json)->required();

    commands.metric = app.add_subcommand("metric", "Report a push metric");
    commands.metric->add_option("DELIVERY_ID", arguments.deliveryId)->required();
    commands.metric->add_option("EVENT", arguments.event, "delivered, opened or converted")
        ->required();
    commands.metric->add_option("DEVICE_TOKEN", arguments.deviceToken)->required();

    commands.open = app.add_subcommand("open", "Respond to a notification");
    commands.open->add_option("FILE", arguments.file)->required();
    commands.open->add_option("--action", arguments.action, "Action identifier");

    auto* queue = app.add_subcommand("queue", "The background queue");
    queue->require_subcommand(1);
    queue->fallthrough();
    commands.queueStatus = queue->add_subcommand("status", "Print the queued tasks");
    commands.queueRun = queue->add_subcommand("run", "Run the queue and wait for the run");
    commands.queueDeleteExpired = queue->add_subcommand("delete-expired", "Delete expired tasks");

    for (auto* command : {commands.identify, commands.clearIdentify, commands.track,
                          commands.screen, commands.registerToken, commands.deleteToken,
                          commands.fcmToken, commands.profileAttributes,
                          commands.deviceAttributes, commands.metric, commands.open,
                          commands.queueStatus, commands.queueRun,
                          commands.queueDeleteExpired}) {
        // Options of the program may follow the command.
        command->fallthrough();
    }
    return commands;
}

// The parsed subcommand as a Command, its JSON read and its metric known.
std::expected<Command, UsageError> commandFromArguments(const Subcommands& commands,
                                                        const Arguments& arguments) {
    if (commands.identify->parsed()) {
        auto attributes = optionalJsonObjectArgument(arguments.attributes, "--attributes");
        if (!attributes) return std::unexpected(attributes.error());
        return Identify{arguments.identifier, std::move(*attributes)};
    }
    if (commands.clearIdentify->parsed()) return ClearIdentify{};
    if (commands.track->parsed() || commands.screen->parsed()) {
        auto data = optionalJsonObjectArgument(arguments.data, "--data");
        if (!data) return std::unexpected(data.error());
        if (commands.track->parsed()) return TrackEvent{arguments.name, std::move(*data)};
        return TrackScreen{arguments.name, std::move(*data)};
    }
    if (commands.registerToken->parsed()) return RegisterToken{arguments.token};
    if (commands.deleteToken->parsed()) return DeleteToken{};
    if (commands.profileAttributes->parsed() || commands.deviceAttributes->parsed()) {
        auto attributes = jsonObjectArgument(arguments.json, "the attributes");
        if (!attributes) return std::unexpected(attributes.error());
        if (commands.profileAttributes->parsed()) return ProfileAttributes{std::move(*attributes)};
        return DeviceAttributes{std::move(*attributes)};
    }
    if (commands.metric->parsed()) {
        auto event = tern::getEvent(arguments.event);
        if (!event) {
            return std::unexpected(UsageError{"unknown metric " + arguments.event +
                                              " (expected delivered, opened or converted)"});
        }
        return TrackMetric{arguments.deliveryId, *event, arguments.deviceToken};
    }
    if (commands.queueStatus->parsed()) return QueueStatusCommand{};
    if (commands.queueRun->parsed()) return QueueRun{};
    if (commands.queueDeleteExpired->parsed()) return QueueDeleteExpired{};
    if (commands.fcmToken->parsed()) return RegisterFcmToken{arguments.token};
    if (commands.open->parsed()) {
        // The file holds a notification request in vontu-nse's input form.
        auto file = hosts::readJsonInput(arguments.file);
        if (!file) return std::unexpected(UsageError{file.error()});
        auto request = platform::requestFromJson(*file);
        if (!request) return std::unexpected(UsageError{request.error()});
        platform::NotificationResponse response;
        if (!arguments.action.empty()) response.actionIdentifier = arguments.action;
        response.notification = std::move(*request);
        return OpenNotification{std::move(response)};
    }
    return std::unexpected(UsageError{"no command given"});
}

// The app's answers to the links it is asked to open: https links to one of the given hosts
// are its universal links; every other link goes to the system, which always opens it.
void installAppLinkHandlers(platform::linux_host::HostSettings& settings,
                            std::vector<std::string> universalLinkHosts) {
    settings.continueUserActivity = [hosts = std::move(universalLinkHosts)](
                                        const std::string& webpageUrl) {
        const auto url = tern::Url::parse(webpageUrl);
        if (!url || url->scheme() != "https") return false;
        return std::find(hosts.begin(), hosts.end(), url->host()) != hosts.end();
    };
    settings.openUrl = [](const std::string&) { return true; };
}

// Reads the whole command line. Returns the exit code when the program is done already (help,
// or a usage error that was printed).
std::optional<int> parseCommandLine(int argc, char** argv, Options& options) {
    CLI::App app{"The Tern tracking interface from a shell", kProgram};
    hosts::addPlatformOptions(app, options.settings);
    Arguments arguments;
    app.add_option("--site-id", options.siteId, "Site id (else $TERN_SITE_ID, else built in)");
    app.add_option("--api-key", options.apiKey, "API key (else $TERN_API_KEY, else built in)");
    app.add_option("--region", options.region, "Region: US (default) or EU");
    app.add_option("--config", arguments.config, "SDK configuration changes (a JSON object)");
    app.add_option("--bundle-id", options.settings.bundleIdentifier, "Bundle id of the app")
        ->check(hosts::directoryNameProblem);
    app.add_flag("--flush", options.flush, "Run the queue after the command and wait for it");
    app.add_option("--universal-link-host", arguments.universalLinkHosts,
                   "A host whose https links the app takes as universal links (repeatable)");
    auto commands = addCommands(app, arguments);
    app.require_subcommand(1);
    // Words that name no command are collected, so that the error can name them.
    app.allow_extras();
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        auto extras = app.remaining();
        hosts::printError(kProgram, extras.empty() || app.get_subcommands().size() > 0
                                        ? oneLine(error.what())
                                        : "unknown command " + extras.front());
        return hosts::kExitBadInput;
    }
    if (!app.remaining().empty()) {
        hosts::printError(kProgram, "unexpected argument " + app.remaining().front());
        return hosts::kExitBadInput;
    }

    if (arguments.config) {
        auto config = jsonObjectArgument(*arguments.config, "--config");
        if (!config) {
            hosts::printError(kProgram, config.error().message);
            return hosts::kExitBadInput;
        }
        options.config = std::move(*config);
    }
    auto command = commandFromArguments(commands, arguments);
    if (!command) {
        hosts::printError(kProgram, command.error().message);
        return hosts::kExitBadInput;
    }
    options.command = std::move(*command);
    installAppLinkHandlers(options.settings, arguments.universalLinkHosts);
    options.siteId = settingOrDefault(options.siteId, "TERN_SITE_ID", TERN_SITE_ID);
    options.apiKey = settingOrDefault(options.apiKey, "TERN_API_KEY", TERN_API_KEY);
    // The site id names the library's directory for the site.
    if (const auto problem = hosts::directoryNameProblem(options.siteId); !problem.empty()) {
        hosts::printError(kProgram, "the site id " + problem);
        return hosts::kExitBadInput;
    }
    return std::nullopt;
}

// --- Running a command

void printLine(const json& output) {
    std::string line = output.dump() + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

// Runs the background queue once and returns when that run has ended.
void runQueueAndWait(tern::Queue& queue) {
    std::promise<void> ended;
    queue.run([&ended] { ended.set_value(); });
    ended.get_future().wait();
}

// {"queueId", "numTasksInQueue", "tasks": [the inventory entries as the storage writes them]}
json queueStatus(tern::DIGraph& graph) {
    auto inventory = graph.queueStorage()->getInventory();
    auto adapter = graph.jsonAdapter();
    json tasks = json::array();
    for (const auto& entry : inventory) {
        tasks.push_back(adapter->toDictionary(entry).value_or(json(nullptr)));
    }
    return json{{"queueId", graph.siteId()},
                {"numTasksInQueue", inventory.size()},
                {"tasks", std::move(tasks)}};
}

// Sends one command to the initialised library.
void runCommand(const Command& command, tern::Tern& tern, tern::DIGraph& graph) {
    struct Runner {
        tern::Tern& tern;
        tern::DIGraph& graph;

        void operator()(const Identify& c) {
            if (c.attributes) {
                tern.identify(c.identifier, *c.attributes);
            } else {
                tern.identify(c.identifier);
            }
        }
        void operator()(const ClearIdentify&) { tern.clearIdentify(); }
        void operator()(const TrackEvent& c) {
            if (c.data) {
                tern.track(c.name, *c.data);
            } else {
                tern.track(c.name);
            }
        }
        void operator()(const TrackScreen& c) {
            if (c.data) {
                tern.screen(c.name, *c.data);
            } else {
                tern.screen(c.name);
            }
        }
        void operator()(const RegisterToken& c) { tern.registerDeviceToken(c.token); }
        void operator()(const DeleteToken&) { tern.deleteDeviceToken(); }
        void operator()(const RegisterFcmToken& c) {
            tern::MessagingPushFCM::shared().registerDeviceToken(c.token);
        }
        void operator()(const OpenNotification& c) {
            printLine(tern::handleNotificationOpen(c.response).toJson());
        }
        void operator()(const ProfileAttributes& c) { tern.setProfileAttributes(c.attributes); }
        void operator()(const DeviceAttributes& c) { tern.setDeviceAttributes(c.attributes); }
        void operator()(const TrackMetric& c) {
            tern.trackMetric(c.deliveryId, c.event, c.deviceToken);
        }
        void operator()(const QueueStatusCommand&) { printLine(queueStatus(graph)); }
        void operator()(const QueueRun&) { runQueueAndWait(*graph.queue()); }
        void operator()(const QueueDeleteExpired&) { graph.queue()->deleteExpiredTasks(); }
    };
    std::visit(Runner{tern, graph}, command);
}

// Initialises the library, runs the command and, with --flush, the queue; returns once all the
// work they started has ended. Exits non-zero when something could not be stored: the library
// drops a task it cannot write, and the user must not take it as queued.
int initializeAndRun(const Options& options, hosts::SettlingEnv& env,
                     hosts::StoreFailureEnv& storage) {
    tern::Tern::initialize(options.siteId, options.apiKey, tern::getRegion(options.region),
                           [&options](tern::SdkConfig& config) { config.modify(options.config); });
    // The app's push module: the FCM variant's set-up, which is the push module's own.
    tern::MessagingPushFCM::initialize();
    auto tern = tern::Tern::shared();
    auto graph = tern->diGraph();
    // The start-up clean-up runs in the background: let it end before the queue is touched.
    env.waitUntilSettled();
    runCommand(options.command, *tern, *graph);
    env.waitUntilSettled();
    if (options.flush) {
        runQueueAndWait(*graph->queue());
        env.waitUntilSettled();
    }
    if (const auto failure = storage.firstFailure()) {
        hosts::printError(kProgram, "not stored: " + *failure);
        return kExitNotStored;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    // Everything is checked before the library starts: a bad command line queues nothing.
    if (auto exitCode = parseCommandLine(argc, argv, options)) return *exitCode;

    auto linuxEnv = std::make_unique<platform::linux_host::LinuxEnv>(options.settings);
    // The site's files: its queue.
    hosts::StoreFailureEnv storage(*linuxEnv, linuxEnv->applicationSupportDirectory().value_or("/") /
                                                  tern::libraryDirectoryName / options.siteId);
    hosts::SettlingEnv env(storage);
    platform::Env::setCurrent(&env);
    int exitCode = 0;
    std::thread worker([&] {
        exitCode = initializeAndRun(options, env, storage);
        linuxEnv->stopMainLoop();
    });
    linuxEnv->runMainLoop();
    worker.join();
    // The platform goes before the process exits: its threads end here, while the libraries
    // they used (OpenSSL keeps state per thread) are still there to release what they held.
    // The library's shared object is never destroyed, so nothing reaches the platform later.
    linuxEnv.reset();
    return exitCode;
}
