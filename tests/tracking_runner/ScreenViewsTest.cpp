// Automatic screen views: how the visible controller, its root and its name are found in a view
// hierarchy that the app's UI layer reports, and the views tracked when controllers appear and
// disappear.

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "TernTracking/AutomaticScreenViews.hpp"
#include "TernTracking/ScreenViewName.hpp"
#include "TernTracking/TrackEventQueueTaskData.hpp"
#include "TernTracking/VisibleViewController.hpp"
#include "platform/Env.hpp"
#include "tests/tracking/TrackingTestSupport.hpp"

namespace tern::testing {
namespace {

using nlohmann::json;
using std::make_shared;

// A view hierarchy built in memory, as a host app's UI layer would report it.
struct FakeWindow final : Window {
    std::shared_ptr<ViewController> root;
    std::shared_ptr<ViewController> rootViewController() override { return root; }
};

std::shared_ptr<FakeWindow> windowWithRoot(std::shared_ptr<ViewController> root) {
    auto window = make_shared<FakeWindow>();
    window->root = std::move(root);
    return window;
}

template <class Base>
struct FakeControllerOf : Base {
    explicit FakeControllerOf(std::string named, std::optional<std::string> titled = std::nullopt)
        : name(std::move(named)), titleText(std::move(titled)) {}
    std::string className() override { return name; }
    std::optional<std::string> title() override { return titleText; }
    std::shared_ptr<Window> viewWindow() override { return window; }
    std::shared_ptr<ViewController> presentedViewController() override { return presented; }

    std::string name;
    std::optional<std::string> titleText;
    std::shared_ptr<Window> window;
    std::shared_ptr<ViewController> presented;
};
using FakeViewController = FakeControllerOf<ViewController>;

struct FakeTabBarController final : FakeControllerOf<TabBarController> {
    using FakeControllerOf::FakeControllerOf;
    std::vector<std::shared_ptr<ViewController>> viewControllers() override { return tabs; }
    std::shared_ptr<ViewController> selectedViewController() override {
        return selected >= 0 && selected < static_cast<int>(tabs.size()) ? tabs[selected] : nullptr;
    }
    std::vector<std::shared_ptr<ViewController>> tabs;
    int selected = 0;
};

struct FakeNavigationController final : FakeControllerOf<NavigationController> {
    using FakeControllerOf::FakeControllerOf;
    std::vector<std::shared_ptr<ViewController>> viewControllers() override { return stack; }
    // The top of the stack, or what the top presents.
    std::shared_ptr<ViewController> visibleViewController() override {
        if (stack.empty()) return nullptr;
        auto presentedByTop = stack.back()->presentedViewController();
        return presentedByTop ? presentedByTop : stack.back();
    }
    std::vector<std::shared_ptr<ViewController>> stack;
};

struct FakeScene final : Scene {
    ActivationState state = ActivationState::foregroundActive;
    bool respondsToWindow = true;
    std::shared_ptr<Window> window;
    ActivationState activationState() override { return state; }
    bool delegateRespondsToWindow() override { return respondsToWindow; }
    std::shared_ptr<Window> delegateWindow() override { return window; }
};

struct FakeApplication final : Application {
    std::shared_ptr<Window> delegatesWindow, key;
    std::vector<std::shared_ptr<Scene>> scenes;
    std::shared_ptr<Window> delegateWindow() override { return delegatesWindow; }
    std::shared_ptr<Window> keyWindow() override { return key; }
    std::vector<std::shared_ptr<Scene>> connectedScenes() override { return scenes; }
};

TEST(VisibleViewControllerTest, FollowsPresentationsTabsAndNavigationStacks) {
    auto mailboxes = make_shared<FakeViewController>("MailboxesViewController");
    auto thread = make_shared<FakeViewController>("ThreadViewController");
    auto navigation = make_shared<FakeNavigationController>("UINavigationController");
    navigation->stack = {mailboxes, thread};
    auto settings = make_shared<FakeViewController>("SettingsViewController");
    auto tabs = make_shared<FakeTabBarController>("UITabBarController");
    tabs->tabs = {navigation, settings};

    EXPECT_EQ(findVisibleViewController(settings), settings);
    EXPECT_EQ(findVisibleViewController(nullptr), nullptr);
    EXPECT_EQ(findVisibleViewController(tabs), thread);
    tabs->selected = 1;
    EXPECT_EQ(findVisibleViewController(tabs), settings);

    // A presentation wins over the container, and a presented container is searched in turn.
    auto account = make_shared<FakeViewController>("AccountViewController");
    auto presentedNavigation = make_shared<FakeNavigationController>("UINavigationController");
    presentedNavigation->stack = {account};
    tabs->presented = presentedNavigation;
    EXPECT_EQ(findVisibleViewController(tabs), account);

    // A presentation inside a navigation stack shows through the navigation's visible one.
    tabs->presented = nullptr;
    tabs->selected = 0;
    auto attachment = make_shared<FakeViewController>("AttachmentViewController");
    thread->presented = attachment;
    EXPECT_EQ(findVisibleViewController(tabs), attachment);

    // Containers with nothing to show give nothing.
    tabs->selected = -1;
    EXPECT_EQ(findVisibleViewController(tabs), nullptr);
    navigation->stack.clear();
    EXPECT_EQ(findVisibleViewController(navigation), nullptr);
}

TEST(VisibleViewControllerTest, APresentationCycleEndsTheSearchWithNothing) {
    auto first = make_shared<FakeViewController>("FirstViewController");
    auto second = make_shared<FakeViewController>("SecondViewController");
    first->presented = second;
    second->presented = first;
    EXPECT_EQ(findVisibleViewController(first), nullptr);
    second->presented = nullptr;  // break the cycle so both can be freed
}

TEST(RootViewControllerTest, TheOwnWindowElseTheApplicationsWindowsInOrder) {
    using State = Scene::ActivationState;
    auto self = make_shared<FakeViewController>("SelfController");
    auto ownRoot = make_shared<FakeViewController>("Own");
    auto delegateRoot = make_shared<FakeViewController>("Delegate");
    auto keyRoot = make_shared<FakeViewController>("Key");
    auto sceneRoot = make_shared<FakeViewController>("Scene");
    auto scene = [](State state, bool responds, std::shared_ptr<ViewController> root) {
        auto made = make_shared<FakeScene>();
        made->state = state;
        made->respondsToWindow = responds;
        made->window = windowWithRoot(std::move(root));
        return made;
    };
    FakeApplication application;

    // No window anywhere, or only scenes that are not active in the foreground: no root.
    EXPECT_EQ(findRootViewController(*self, &application), nullptr);
    EXPECT_EQ(findRootViewController(*self, nullptr), nullptr);
    application.scenes = {scene(State::background, true, sceneRoot),
                          scene(State::unattached, true, sceneRoot),
                          scene(State::foregroundActive, false, sceneRoot),
                          scene(State::foregroundInactive, true, sceneRoot)};
    EXPECT_EQ(findRootViewController(*self, &application), nullptr);

    application.scenes.push_back(scene(State::foregroundActive, true, sceneRoot));
    EXPECT_EQ(findRootViewController(*self, &application), sceneRoot);
    application.key = windowWithRoot(nullptr);  // a window without a root is no root
    EXPECT_EQ(findRootViewController(*self, &application), nullptr);
    application.key = windowWithRoot(keyRoot);
    EXPECT_EQ(findRootViewController(*self, &application), keyRoot);
    application.delegatesWindow = windowWithRoot(delegateRoot);
    EXPECT_EQ(findRootViewController(*self, &application), delegateRoot);

    self->window = windowWithRoot(ownRoot);
    EXPECT_EQ(findRootViewController(*self, &application), ownRoot);
    EXPECT_EQ(findRootViewController(*self, nullptr), ownRoot);
}

TEST(ScreenViewNameTest, NamesComeFromTheClassNameElseTheTitle) {
    struct Case {
        std::string className;
        std::optional<std::string> title;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {"InboxViewController", "Mail", "Inbox"},
        {"Settings", std::nullopt, "Settings"},
        {"ViewController", "Compose", "Compose"},
        {"ViewController", std::nullopt, std::nullopt},
        {"ViewController", "", std::nullopt},
        {"ViewControllerViewController", "Twice", "Twice"},
        {"MailViewControllerListViewController", std::nullopt, "MailList"},
        // Removal is one pass over the original text: pieces that meet after it stay.
        {"ViewViewControllerController", std::nullopt, "ViewController"},
        {"", "Untitled", "Untitled"},
    };
    for (const auto& each : cases) {
        FakeViewController controller(each.className, each.title);
        EXPECT_EQ(screenViewName(controller), each.expected)
            << each.className << " / " << each.title.value_or("(no title)");
    }
}

// The screen views queued so far, oldest first, as "name data".
std::vector<std::string> queuedScreenViews() {
    auto graph = Tern::shared()->diGraph();
    auto storage = graph->queueStorage();
    std::vector<std::string> views;
    for (const auto& entry : storage->getInventory()) {
        auto task = storage->get(entry.taskPersistedId);
        auto data = graph->jsonAdapter()->fromJson<TrackEventQueueTaskData>(task.value().data);
        auto body = json::parse(data.value().attributesJsonString);
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

// Runs block on the platform's main thread, where the UI layer calls in, and waits for it.
void onMain(const std::function<void()>& block) {
    std::promise<void> done;
    vontu::platform::Env::current().runOnMain([&] {
        block();
        done.set_value();
    });
    done.get_future().wait();
}

// One test, in order: the interception is installed once per process and stays.
TEST(AutomaticScreenViewsTest, AppearAndDisappearTrackTheScreenThatIsVisibleThen) {
    auto window = make_shared<FakeWindow>();
    auto inbox = make_shared<FakeViewController>("InboxViewController");
    auto navigation = make_shared<FakeNavigationController>("UINavigationController");
    navigation->stack = {inbox};
    window->root = navigation;
    inbox->window = window;
    auto application = make_shared<FakeApplication>();
    application->key = window;
    setScreenViewApplication(application);

    // Each call of a controller's own method notes how many screen views were queued by then.
    std::vector<std::string> calls;
    auto own = [&](const std::string& what) {
        return [&calls, what] {
            calls.push_back(what + " after " + std::to_string(queuedScreenViews().size()));
        };
    };
    auto appear = [&](ViewController& controller) {
        onMain([&] { viewControllerDidAppear(controller, own("appear")); });
    };
    auto disappear = [&](ViewController& controller) {
        onMain([&] { viewControllerDidDisappear(controller, own("disappear")); });
    };

    // Left at its default the option installs nothing: only the controller's own methods run.
    initialize(false);
    Tern::shared()->identify("viewer");
    EXPECT_FALSE(isAutomaticScreenViewTrackingInstalled());
    appear(*inbox);
    disappear(*inbox);
    EXPECT_EQ(calls, (std::vector<std::string>{"appear after 0", "disappear after 0"}));

    initialize(true);
    EXPECT_TRUE(isAutomaticScreenViewTrackingInstalled());
    calls.clear();
    appear(*inbox);

    // A controller presented over the inbox, then dismissed: disappearing reports the inbox
    // again, after the controller's own method.
    auto compose = make_shared<FakeViewController>("ComposeViewController");
    compose->window = window;
    inbox->presented = compose;
    appear(*compose);
    inbox->presented = nullptr;
    compose->window = nullptr;
    disappear(*compose);
    EXPECT_EQ(calls, (std::vector<std::string>{"appear after 1", "appear after 2",
                                               "disappear after 2"}));
    EXPECT_EQ(queuedScreenViews(),
              (std::vector<std::string>{"Inbox {}", "Compose {}", "Inbox {}"}));

    // No name, no screen view: a class called just "ViewController" without a title.
    auto untitled = make_shared<FakeViewController>("ViewController");
    navigation->stack = {inbox, untitled};
    appear(*untitled);
    EXPECT_EQ(queuedScreenViews().size(), 3u);

    // The configured body goes with every automatic screen view.
    untitled->titleText = "Settings";
    initialize(true, [] { return json{{"source", "automatic"}}; });
    appear(*untitled);
    EXPECT_EQ(queuedScreenViews().back(), R"(Settings {"source":"automatic"})");

    setScreenViewApplication(nullptr);
    window->root = nullptr;  // the controllers hold the window: break the cycle
}

}  // namespace
}  // namespace tern::testing
