#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "TernTracking/AutomaticScreenViews.hpp"
#include "TernTracking/Tern.hpp"
#include "TernTracking/TrackEventQueueTaskData.hpp"
#include "tests/support/TestEnv.hpp"
#include "tests/tracking_runner/ViewHierarchyDoubles.hpp"

namespace tern::testing {
namespace {

using nlohmann::json;
using std::make_shared;

struct ScreenView {
    std::string name;
    json data;
    bool operator==(const ScreenView&) const = default;
};

void PrintTo(const ScreenView& view, std::ostream* out) {
    *out << view.name << " " << view.data.dump();
}

// The screen views queued so far, oldest first.
std::vector<ScreenView> queuedScreenViews() {
    auto graph = Tern::shared()->diGraph();
    auto storage = graph->queueStorage();
    std::vector<ScreenView> views;
    for (const auto& entry : storage->getInventory()) {
        if (entry.taskType != "trackEvent") continue;
        auto task = storage->get(entry.taskPersistedId);
        auto data = graph->jsonAdapter()->fromJson<TrackEventQueueTaskData>(task.value().data);
        auto body = json::parse(data.value().attributesJsonString);
        if (body["type"] == "screen") views.push_back({body["name"], body["data"]});
    }
    return views;
}

// Initialises the library for the test's site and waits for the start-up clean-up, which
// works on the same queue files in the background.
void initialize(bool autoTrackScreenViews, std::function<json()> body = {}) {
    Tern::initialize("screens-site", "screens-key", Region::US, [&](SdkConfig& config) {
        config.autoTrackScreenViews = autoTrackScreenViews;
        config.autoScreenViewBody = body;
        // No run: the tasks stay in the queue for the test to read.
        config.backgroundQueueMinNumberOfTasks = 1000;
        config.trackingApiUrl = "http://127.0.0.1:9";
    });
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (Tern::shared()->cleanupRepository() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    ASSERT_EQ(Tern::shared()->cleanupRepository(), nullptr);
}

// One test, in order: the interception is installed once per process and stays.
TEST(AutomaticScreenViewsTest, AppearAndDisappearTrackTheScreenThatIsVisibleThen) {
    vontu::testing::TestEnv env;
    auto window = make_shared<FakeWindow>();
    auto inbox = make_shared<FakeViewController>("InboxViewController");
    auto navigation = make_shared<FakeNavigationController>("UINavigationController");
    navigation->stack = {inbox};
    window->root = navigation;
    inbox->window = window;
    auto application = make_shared<FakeApplication>();
    application->key = window;
    setScreenViewApplication(application);

    std::vector<std::string> calls;
    auto appear = [&](ViewController& controller) {
        env.onMainAndWait([&] {
            viewControllerDidAppear(controller, [&] {
                calls.push_back("own appear after " + std::to_string(queuedScreenViews().size()));
            });
        });
    };
    auto disappear = [&](ViewController& controller) {
        env.onMainAndWait([&] {
            viewControllerDidDisappear(controller, [&] {
                calls.push_back("own disappear after " +
                                std::to_string(queuedScreenViews().size()));
            });
        });
    };

    // Left at its default the option installs nothing: only the controller's own methods run.
    initialize(false);
    Tern::shared()->identify("viewer");
    EXPECT_FALSE(isAutomaticScreenViewTrackingInstalled());
    appear(*inbox);
    disappear(*inbox);
    EXPECT_TRUE(queuedScreenViews().empty());
    EXPECT_EQ(calls, (std::vector<std::string>{"own appear after 0", "own disappear after 0"}));

    initialize(true);
    EXPECT_TRUE(isAutomaticScreenViewTrackingInstalled());
    calls.clear();
    appear(*inbox);
    EXPECT_EQ(queuedScreenViews(), (std::vector<ScreenView>{{"Inbox", json::object()}}));

    // A controller presented over the inbox, then dismissed: disappearing reports the inbox
    // again, after the controller's own method.
    auto compose = make_shared<FakeViewController>("ComposeViewController");
    compose->window = window;
    inbox->presented = compose;
    appear(*compose);
    inbox->presented = nullptr;
    compose->window = nullptr;
    disappear(*compose);
    EXPECT_EQ(calls, (std::vector<std::string>{"own appear after 1", "own appear after 2",
                                               "own disappear after 2"}));
    EXPECT_EQ(queuedScreenViews(), (std::vector<ScreenView>{{"Inbox", json::object()},
                                                            {"Compose", json::object()},
                                                            {"Inbox", json::object()}}));

    // No name, no screen view: a class called just "ViewController" without a title.
    auto untitled = make_shared<FakeViewController>("ViewController");
    navigation->stack = {inbox, untitled};
    appear(*untitled);
    EXPECT_EQ(queuedScreenViews().size(), 3u);
    untitled->titleText = "Settings";
    appear(*untitled);
    EXPECT_EQ(queuedScreenViews().back(), (ScreenView{"Settings", json::object()}));

    // The configured body goes with every automatic screen view.
    initialize(true, [] { return json{{"source", "automatic"}}; });
    appear(*untitled);
    EXPECT_EQ(queuedScreenViews().back(), (ScreenView{"Settings", {{"source", "automatic"}}}));

    setScreenViewApplication(nullptr);
    window->root = nullptr;  // the controllers hold the window: break the cycle
}

}  // namespace
}  // namespace tern::testing
