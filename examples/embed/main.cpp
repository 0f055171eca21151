// Embeds the Tern library as an app would: the Linux platform, the library initialised with
// the tracking URL from the command line, a profile identified and an event tracked, and the
// background queue run until the tracking API has taken both.
//
//   embed TRACKING_URL STATE_DIRECTORY     exits 0 once both requests were taken, else 1

#include <cstdio>
#include <future>
#include <string>
#include <thread>

#include "TernTracking/Tern.hpp"
#include "Common/DIGraph.hpp"
#include "platform/linux/LinuxEnv.hpp"

namespace {

// Runs the queue once and waits until that run has ended.
void runQueue(tern::Tern& tern) {
    std::promise<void> ended;
    tern.diGraph()->queue()->run([&ended] { ended.set_value(); });
    ended.get_future().wait();
}

bool queueIsEmpty(tern::Tern& tern) {
    return tern.diGraph()->queueStorage()->getInventory().size() == 0;
}

int identifyTrackAndSend(const std::string& trackingUrl) {
    tern::Tern::initialize("example-site", "example-key", tern::Region::US,
                           [&trackingUrl](tern::SdkConfig& config) {
                               config.trackingApiUrl = trackingUrl;
                           });
    auto tern = tern::Tern::shared();
    tern->identify("example-user");
    tern->track("example_event", nlohmann::json{{"source", "embed"}});
    // A task the API did not take stays queued; a few runs give a slow start a chance.
    for (int run = 0; run < 3 && !queueIsEmpty(*tern); ++run) runQueue(*tern);
    return queueIsEmpty(*tern) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: embed TRACKING_URL STATE_DIRECTORY\n");
        return 2;
    }
    vontu::platform::linux_host::HostSettings settings;
    settings.home = argv[2];
    vontu::platform::linux_host::LinuxEnv env(settings);
    vontu::platform::Env::setCurrent(&env);

    // The platform's main loop runs on the main thread, as an app's does; the app's work on
    // another.
    int exitCode = 1;
    std::thread app([&] {
        exitCode = identifyTrackAndSend(argv[1]);
        env.stopMainLoop();
    });
    env.runMainLoop();
    app.join();
    return exitCode;
}
