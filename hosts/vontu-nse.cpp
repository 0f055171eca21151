// vontu-nse: plays the operating system for the notification service extension. It reads one
// notification request, hands it to a new extension on a serial "extension queue" while the
// main thread runs the main loop, sends the expiry warning when its time comes, and prints the
// first content delivered, and on request a picture of it as the lock screen shows it.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "extension/NotificationService.hpp"
#include "hosts/ExtensionQueue.hpp"
#include "hosts/HostCommon.hpp"
#include "hosts/PreviewFile.hpp"
#include "hosts/SessionClosingEnv.hpp"
#include "platform/NotificationJson.hpp"

namespace {

using namespace vontu;
using namespace vontu::extension;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr const char* kProgram = "vontu-nse";
constexpr int kExitNothingDelivered = 3;

struct Options {
    platform::linux_host::HostSettings settings;
    std::string input = "-";
    std::string relayUrl;
    double timeLimit = 30;
    double warning = 2;
    bool serve = false;
    std::string preview;  // where to write the picture of the delivered content, if anywhere
    platform::PreviewStyle previewStyle = platform::PreviewStyle::light;
};

// The first delivery of one request; later ones are ignored, as the system ignores them.
class Delivery {
public:
    Delivery() : start_(Clock::now()) {}

    // The expiry warning is being handed to the extension: whatever is delivered from now on
    // is delivered because of it, on the extension queue or on a thread of the push library
    // that the warning set going.
    void noteExpiryWarning() {
        std::lock_guard lock(mutex_);
        expiryWarned_ = true;
    }

    void deliver(const platform::NotificationContent& content) {
        std::lock_guard lock(mutex_);
        if (content_) return;
        content_ = content;
        viaExpiry_ = expiryWarned_;
        elapsed_ = Clock::now() - start_;
        delivered_.notify_all();
    }

    // Waits until a delivery or the deadline; the output line, or absent.
    std::optional<json> waitUntil(Clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        delivered_.wait_until(lock, deadline, [this] { return content_.has_value(); });
        if (!content_) return std::nullopt;
        return json{{"content", platform::toJson(*content_)},
                    {"via", viaExpiry_ ? "expiry" : "handler"},
                    {"elapsed_ms", std::chrono::duration_cast<std::chrono::milliseconds>(elapsed_).count()}};
    }

    std::optional<platform::NotificationContent> content() {
        std::lock_guard lock(mutex_);
        return content_;
    }

    Clock::duration sinceStart() const { return Clock::now() - start_; }

private:
    const Clock::time_point start_;
    std::mutex mutex_;
    std::condition_variable delivered_;
    std::optional<platform::NotificationContent> content_;
    bool expiryWarned_ = false;
    bool viaExpiry_ = false;
    Clock::duration elapsed_{};
};

// Runs one push through a new extension; returns the output line, or absent when nothing
// was delivered within the time limit. A preview path draws the content delivered there.
std::optional<json> runPush(const platform::NotificationRequest& request, const Options& options,
                            const std::string& previewPath, platform::Env& env,
                            hosts::ExtensionQueue& extensionQueue) {
    auto delivery = std::make_shared<Delivery>();
    auto service = std::make_shared<NotificationService>(options.relayUrl);
    ContentHandler handler = [delivery](const platform::NotificationContent& content) {
        delivery->deliver(content);
    };
    extensionQueue.post([service, request, handler] {
        service->didReceiveNotificationRequest(request, handler);
    });
    const double warningAt = std::max(0.0, options.timeLimit - options.warning);
    auto warning = env.scheduleOnMain(warningAt, [service, delivery, &extensionQueue] {
        extensionQueue.post([service, delivery] {
            delivery->noteExpiryWarning();
            service->serviceExtensionTimeWillExpire();
        });
    });
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(options.timeLimit));
    auto output = delivery->waitUntil(deadline);
    warning->invalidate();
    if (output && !previewPath.empty()) {
        // The drawing module is loaded only here: a push that asks for no picture never maps it.
        if (auto written = hosts::writePreview(env, *delivery->content(), options.previewStyle,
                                               previewPath)) {
            (*output)["preview"] = previewPath;
        } else {
            hosts::printError(kProgram, written.error());
            (*output)["preview_error"] = written.error();
        }
    }
    return output;
}

void printLine(const json& output) {
    std::string line = output.dump() + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

// Reads one request a line and answers one output a line, reusing this process for each. A
// request may name a file for its picture in a "preview" member beside the request's own.
void serve(const Options& options, platform::Env& env, hosts::ExtensionQueue& queue) {
    std::string line;
    while (std::getline(std::cin, line)) {
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        auto parsed = hosts::parseJsonText(line, "the line");
        // The picture's path is the host's, not part of the push.
        std::string previewPath;
        if (parsed && parsed->is_object()) {
            if (auto member = parsed->find("preview");
                member != parsed->end() && member->is_string()) {
                previewPath = member->get<std::string>();
            }
            parsed->erase("preview");
        }
        auto request = parsed ? platform::requestFromJson(*parsed)
                              : std::expected<platform::NotificationRequest, std::string>(
                                    std::unexpected(parsed.error()));
        if (!request) {
            hosts::printError(kProgram, request.error());
            printLine({{"error", request.error()}});
            continue;
        }
        auto output = runPush(*request, options, previewPath, env, queue);
        printLine(output ? *output : json{{"error", "nothing delivered within the time limit"}});
    }
}

// http or https, "://" and a host name or a bracketed IPv6 address, and nothing else. (Checked
// by hand: compiling a std::regex cost a tenth of a read receipt's whole run.)
bool isSchemeAndHost(std::string_view url) {
    for (std::string_view scheme : {"http://", "https://"}) {
        if (!url.starts_with(scheme)) continue;
        const std::string_view host = url.substr(scheme.size());
        if (host.starts_with('[')) {
            return host.size() > 2 && host.ends_with(']') &&
                   host.substr(1, host.size() - 2).find_first_not_of(
                       "0123456789ABCDEFabcdef:.") == std::string_view::npos;
        }
        return !host.empty() && host.find_first_of("/:?#@ \t\n\v\f\r") == std::string_view::npos;
    }
    return false;
}

int parseCommandLine(int argc, char** argv, Options& options) {
    CLI::App app{"Runs the notification service extension on one push", kProgram};
    options.settings.bundleIdentifier = "ios.vontu.NotificationService";
    hosts::addPlatformOptions(app, options.settings);
    app.add_option("--relay-url", options.relayUrl, "Mail relay server base URL");
    app.add_option("--time-limit", options.timeLimit, "Seconds the system allows")
        ->check(hosts::secondsUpToADay(false));
    app.add_option("--warning", options.warning, "Seconds before the limit of the expiry warning")
        ->check(hosts::secondsUpToADay(true));
    app.add_option("--bundle-id", options.settings.bundleIdentifier, "Bundle id of the extension")
        ->check(hosts::directoryNameProblem);
    auto* serve = app.add_flag("--serve", options.serve, "Read one request a line from standard input");
    app.add_option("--preview", options.preview, "Write the delivered notification as a PNG")
        ->excludes(serve);
    const std::map<std::string, platform::PreviewStyle> styles{
        {"light", platform::PreviewStyle::light}, {"dark", platform::PreviewStyle::dark}};
    app.add_option("--preview-style", options.previewStyle, "Colours of the picture")
        ->transform(CLI::CheckedTransformer(styles));
    app.add_option("input", options.input, "Request file, or - for standard input")
        ->excludes(serve);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        hosts::printError(kProgram, error.what());
        return hosts::kExitBadInput;
    }
    if (options.relayUrl.empty()) {
        const char* fromEnv = std::getenv("VONTU_RELAY_URL");
        options.relayUrl = fromEnv != nullptr && *fromEnv != '\0' ? fromEnv : VONTU_RELAY_URL;
    }
    // The extension adds the relay's fixed port and path to the base URL: a base URL with a
    // port or path of its own would make every fetch fail without a word.
    if (!isSchemeAndHost(options.relayUrl)) {
        hosts::printError(kProgram, "the relay URL " + options.relayUrl +
                                        " is not a scheme and host alone (port 9001 is added)");
        return hosts::kExitBadInput;
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (int exitCode = parseCommandLine(argc, argv, options); exitCode >= 0) return exitCode;

    // Bad input is refused before the platform starts: nothing is delivered or stored.
    std::optional<platform::NotificationRequest> request;
    if (!options.serve) {
        auto json = hosts::readJsonInput(options.input);
        auto parsed = json ? platform::requestFromJson(*json)
                           : std::expected<platform::NotificationRequest, std::string>(
                                 std::unexpected(json.error()));
        if (!parsed) {
            hosts::printError(kProgram, parsed.error());
            return hosts::kExitBadInput;
        }
        request = std::move(*parsed);
    }

    auto linuxEnv = std::make_unique<platform::linux_host::LinuxEnv>(options.settings);
    hosts::SessionClosingEnv env(*linuxEnv);
    platform::Env::setCurrent(&env);
    int exitCode = 0;
    {
        hosts::ExtensionQueue extensionQueue;
        std::thread controller([&] {
            if (options.serve) {
                serve(options, env, extensionQueue);
            } else if (auto output =
                           runPush(*request, options, options.preview, env, extensionQueue)) {
                printLine(*output);
            } else {
                hosts::printError(kProgram, "nothing was delivered within the time limit");
                exitCode = kExitNothingDelivered;
            }
            linuxEnv->stopMainLoop();
        });
        linuxEnv->runMainLoop();
        controller.join();
        extensionQueue.stop();
    }
    // The content is out: what the extension still has going is of no more use. Its sessions
    // are closed first, so that their threads end while the network stack is there; then the
    // platform goes, waiting for its background threads. The push library's objects live on
    // (they are never destroyed) but nothing is left to run them.
    env.closeAllSessions();
    linuxEnv.reset();
    return exitCode;
}
