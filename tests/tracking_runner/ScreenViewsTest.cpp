// Automatic screen views: how the visible controller, its root and its name are found in a view
// hierarchy that the app's UI layer reports, and the views tracked when controllers appear and
// disappear.

#include <gtest/gtest.h>

#include <future>

#include "TernTracking/AutomaticScreenViews.hpp"
#include "TernTracking/ScreenViewName.hpp"
#include "TernTracking/VisibleViewController.hpp"
#include "platform/Env.hpp"
#include "tests/tracking/TrackingTestSupport.hpp"

namespace tern::testing {
namespace {

using nlohmann::json;
using std::make_shared;
using Controllers = std::vector<std::shared_ptr<ViewController>>;
using Text = std::optional<std::string>;

// A view hierarchy built in memory, as a host app's UI layer would report it.
struct FakeWindow final : Window {
    explicit FakeWindow(std::shared_ptr<ViewController> r = nullptr) : root(std::move(r)) {}
    std::shared_ptr<ViewController> rootViewController() override { return root; }
    std::shared_ptr<ViewController> root;
};

// A controller, or a container of the kind Base: tabs with the selected one, or a navigation
// stack whose top shows, or what the top presents.
template <class Base>
struct Fake : Base {
    explicit Fake(std::string named, Text titled = std::nullopt)
        : name(std::move(named)), titleText(std::move(titled)) {}
    std::string className() override { return name; }
    Text title() override { return titleText; }
    std::shared_ptr<Window> viewWindow() override { return window; }
    std::shared_ptr<ViewController> presentedViewController() override { return presented; }
    Controllers viewControllers() { return children; }
    std::shared_ptr<ViewController> selectedViewController() {
        return selected >= 0 && selected < std::ssize(children) ? children[selected] : nullptr;
    }
    std::shared_ptr<ViewController> visibleViewController() {
        if (children.empty()) return nullptr;
        auto presentedByTop = children.back()->presentedViewController();
        return presentedByTop ? presentedByTop : children.back();
    }

    std::string name;
    Text titleText;
    std::shared_ptr<Window> window;
    std::shared_ptr<ViewController> presented;
    Controllers children;
    int selected = 0;
};
using FakeViewController = Fake<ViewController>;

struct FakeScene final : Scene {
    FakeScene(ActivationState s, bool responds, std::shared_ptr<ViewController> root)
        : state(s), respondsToWindow(responds), window(make_shared<FakeWindow>(std::move(root))) {}
    ActivationState activationState() override { return state; }
    bool delegateRespondsToWindow() override { return respondsToWindow; }
    std::shared_ptr<Window> delegateWindow() override { return window; }
    ActivationState state;
    bool respondsToWindow;
    std::shared_ptr<Window> window;
};

struct FakeApplication final : Application {
    std::shared_ptr<Window> delegateWindow() override { return delegatesWindow; }
    std::shared_ptr<Window> keyWindow() override { return key; }
    std::vector<std::shared_ptr<Scene>> connectedScenes() override { return scenes; }
    std::shared_ptr<Window> delegatesWindow, key;
    std::vector<std::shared_ptr<Scene>> scenes;
};

TEST(VisibleViewControllerTest, FollowsPresentationsTabsAndNavigationStacks) {
    auto thread = make_shared<FakeViewController>("ThreadViewController");
    auto navigation = make_shared<Fake<NavigationController>>("UINavigationController");
    navigation->children = {make_shared<FakeViewController>("MailboxesViewController"), thread};
    auto settings = make_shared<FakeViewController>("SettingsViewController");
    auto tabs = make_shared<Fake<TabBarController>>("UITabBarController");
    tabs->children = {navigation, settings};
    EXPECT_EQ(findVisibleViewController(nullptr), nullptr);
    EXPECT_EQ(findVisibleViewController(tabs), thread);
    tabs->selected = 1;
    EXPECT_EQ(findVisibleViewController(tabs), settings);

    // A presentation wins over the container, and a presented container is searched in turn.
    tabs->presented = navigation;
    EXPECT_EQ(findVisibleViewController(tabs), thread);
    // A presentation inside a navigation stack shows through the navigation's visible one.
    auto attachment = make_shared<FakeViewController>("AttachmentViewController");
    thread->presented = attachment;
    EXPECT_EQ(findVisibleViewController(tabs), attachment);

    // Containers with nothing to show, and a presentation cycle, give nothing.
    tabs->presented = nullptr;
    tabs->selected = -1;
    EXPECT_EQ(findVisibleViewController(tabs), nullptr);
    navigation->children.clear();
    EXPECT_EQ(findVisibleViewController(navigation), nullptr);
    attachment->presented = thread;
    EXPECT_EQ(findVisibleViewController(thread), nullptr);
    attachment->presented = nullptr;  // break the cycle so both can be freed
}

TEST(RootViewControllerTest, TheOwnWindowElseTheApplicationsWindowsInOrder) {
    using State = Scene::ActivationState;
    auto root = [] { return make_shared<FakeViewController>("Root"); };
    auto ownRoot = root(), delegateRoot = root(), keyRoot = root(), sceneRoot = root();
    FakeViewController self("SelfController");
    FakeApplication app;

    // No window anywhere, or only scenes that are not active in the foreground: no root.
    EXPECT_EQ(findRootViewController(self, &app), nullptr);
    EXPECT_EQ(findRootViewController(self, nullptr), nullptr);
    app.scenes = {make_shared<FakeScene>(State::foregroundInactive, true, sceneRoot),
                  make_shared<FakeScene>(State::foregroundActive, false, sceneRoot)};
    EXPECT_EQ(findRootViewController(self, &app), nullptr);

    app.scenes.push_back(make_shared<FakeScene>(State::foregroundActive, true, sceneRoot));
    EXPECT_EQ(findRootViewController(self, &app), sceneRoot);
    app.key = make_shared<FakeWindow>();  // a window without a root is no root
    EXPECT_EQ(findRootViewController(self, &app), nullptr);
    app.key = make_shared<FakeWindow>(keyRoot);
    EXPECT_EQ(findRootViewController(self, &app), keyRoot);
    app.delegatesWindow = make_shared<FakeWindow>(delegateRoot);
    EXPECT_EQ(findRootViewController(self, &app), delegateRoot);
    self.window = make_shared<FakeWindow>(ownRoot);
    EXPECT_EQ(findRootViewController(self, &app), ownRoot);
}

TEST(ScreenViewNameTest, NamesComeFromTheClassNameElseTheTitle) {
    const struct { std::string className; Text title, expected; } cases[] = {
        {"InboxViewController", "Mail", "Inbox"},
        {"ViewController", "Compose", "Compose"},
        {"ViewController", "", std::nullopt},  // no title at all: the automatic views below
        {"MailViewControllerListViewController", std::nullopt, "MailList"},
        // Removal is one pass over the original text: pieces that meet after it stay.
        {"ViewViewControllerController", std::nullopt, "ViewController"},
    };
    for (const auto& each : cases) {
        FakeViewController controller(each.className, each.title);
        EXPECT_EQ(screenViewName(controller), each.expected) << each.className;
    }
}

// The screen views queued so far, oldest first, as "name data".
std::vector<std::string> queuedScreenViews() {
    auto storage = Tern::shared()->diGraph()->queueStorage();
    std::vector<std::string> views;
    for (const auto& entry : storage->getInventory()) {
        auto task = storage->get(entry.taskPersistedId);
        auto data = json::parse(vontu::platform::toString(task->data));
        auto body = json::parse(data["attributes_json_string"].get<std::string>());
        if (body["type"] == "screen") views.push_back(body["name"].get<std::string>() + " " +
                                                      body["data"].dump());
    }
    return views;
}

// Initialises the library for the test's site, with a queue that does not run.
void initialize(bool autoTrackScreenViews, std::function<json()> body = {}) {
    Tern::initialize("screens-site", "screens-key", Region::US, [&](SdkConfig& config) {
        config.autoTrackScreenViews = autoTrackScreenViews;
        config.autoScreenViewBody = body;
        config.backgroundQueueMinNumberOfTasks = 1000;
        config.trackingApiUrl = "http://127.0.0.1:9";
    });
    ASSERT_TRUE(cleanupFinished());
}

// One test, in order: the interception is installed once per process and stays.
TEST(AutomaticScreenViewsTest, AppearAndDisappearTrackTheScreenThatIsVisibleThen) {
    auto inbox = make_shared<FakeViewController>("InboxViewController");
    auto window = make_shared<FakeWindow>(inbox);
    auto application = make_shared<FakeApplication>();
    application->key = window;
    setScreenViewApplication(application);

    // Each call of a controller's own method notes how many screen views were queued by then.
    // The calls come on the platform's main thread, as the UI layer makes them.
    std::vector<std::string> calls;
    auto call = [&](auto intercepted, const std::string& what, ViewController& controller) {
        std::promise<void> done;
        vontu::platform::Env::current().runOnMain([&] {
            intercepted(controller, [&] {
                calls.push_back(what + " after " + std::to_string(queuedScreenViews().size()));
            });
            done.set_value();
        });
        done.get_future().wait();
    };
    auto appear = [&](ViewController& c) { call(viewControllerDidAppear, "appear", c); };
    auto disappear = [&](ViewController& c) { call(viewControllerDidDisappear, "disappear", c); };

    // Left at its default the option installs nothing: only the controller's own methods run.
    initialize(false);
    Tern::shared()->identify("viewer");
    appear(*inbox);
    disappear(*inbox);
    EXPECT_EQ(calls, (std::vector<std::string>{"appear after 0", "disappear after 0"}));

    initialize(true);
    calls.clear();
    appear(*inbox);
    // A controller presented over the inbox, then dismissed: disappearing reports the inbox
    // again, after the controller's own method.
    auto compose = make_shared<FakeViewController>("ComposeViewController");
    inbox->presented = compose;
    appear(*compose);
    inbox->presented = nullptr;
    disappear(*compose);
    EXPECT_EQ(calls, (std::vector<std::string>{"appear after 1", "appear after 2",
                                               "disappear after 2"}));
    EXPECT_EQ(queuedScreenViews(),
              (std::vector<std::string>{"Inbox {}", "Compose {}", "Inbox {}"}));

    // No name, no screen view; the configured body goes with every automatic screen view.
    auto untitled = make_shared<FakeViewController>("ViewController");
    window->root = untitled;
    appear(*untitled);
    EXPECT_EQ(queuedScreenViews().size(), 3u);
    untitled->titleText = "Settings";
    initialize(true, [] { return json{{"source", "automatic"}}; });
    appear(*untitled);
    EXPECT_EQ(queuedScreenViews().back(), R"(Settings {"source":"automatic"})");

    setScreenViewApplication(nullptr);
}

}  // namespace
}  // namespace tern::testing
