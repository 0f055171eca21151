// Automatic screen views, over a view hierarchy that the app's UI layer reports.

#include <gtest/gtest.h>

#include "TernTracking/AutomaticScreenViews.hpp"
#include "TernTracking/ScreenViewName.hpp"
#include "TernTracking/VisibleViewController.hpp"
#include "platform/Env.hpp"
#include "tests/tracking/TrackingTestSupport.hpp"

namespace tern::testing {
namespace {

using nlohmann::json;
using std::make_shared;
using Ptr = std::shared_ptr<ViewController>;
using Text = std::optional<std::string>;

struct FakeWindow final : Window {
    explicit FakeWindow(Ptr shown = nullptr) : root(std::move(shown)) {}
    Ptr rootViewController() override { return root; }
    Ptr root;
};

// A controller, or a container of the kind Base with its children: tabs showing the selected
// one, or a navigation stack showing its top.
template <class Base>
struct Fake : Base {
    explicit Fake(std::string named, Text titled = {}) : name(named), titleText(titled) {}
    std::string className() override { return name; }
    Text title() override { return titleText; }
    std::shared_ptr<Window> viewWindow() override { return window; }
    Ptr presentedViewController() override { return presented; }
    std::string name;
    Text titleText;
    std::shared_ptr<Window> window;
    Ptr presented;
    std::vector<Ptr> children;
    std::size_t tab = 0;
};
using FakeViewController = Fake<ViewController>;

struct FakeTabs final : Fake<TabBarController> {
    using Fake::Fake;
    std::vector<Ptr> viewControllers() override { return children; }
    Ptr selectedViewController() override { return tab < children.size() ? children[tab] : nullptr; }
};

struct FakeNavigation final : Fake<NavigationController> {
    using Fake::Fake;
    std::vector<Ptr> viewControllers() override { return children; }
    Ptr visibleViewController() override { return children.empty() ? nullptr : children.back(); }
};

struct FakeScene final : Scene {
    FakeScene(ActivationState s, bool withWindow, Ptr root)
        : state(s), hasWindow(withWindow), window(make_shared<FakeWindow>(std::move(root))) {}
    ActivationState activationState() override { return state; }
    bool delegateRespondsToWindow() override { return hasWindow; }
    std::shared_ptr<Window> delegateWindow() override { return window; }
    const ActivationState state;
    const bool hasWindow;
    const std::shared_ptr<Window> window;
};

struct FakeApplication final : Application {
    std::shared_ptr<Window> delegateWindow() override { return delegatesWindow; }
    std::shared_ptr<Window> keyWindow() override { return key; }
    std::vector<std::shared_ptr<Scene>> connectedScenes() override { return scenes; }
    std::shared_ptr<Window> delegatesWindow, key;
    std::vector<std::shared_ptr<Scene>> scenes;
};

TEST(VisibleViewControllerTest, FollowsPresentationsTabsAndNavigationStacks) {
    auto thread = make_shared<FakeViewController>("Thread");
    auto navigation = make_shared<FakeNavigation>("Navigation");
    navigation->children = {make_shared<FakeViewController>("Mailboxes"), thread};
    auto tabs = make_shared<FakeTabs>("Tabs");
    tabs->children = {navigation, make_shared<FakeViewController>("Settings")};
    EXPECT_EQ(findVisibleViewController(tabs), thread);
    tabs->tab = 1;
    EXPECT_EQ(findVisibleViewController(tabs), tabs->children[1]);
    tabs->presented = navigation;
    auto attachment = make_shared<FakeViewController>("Attachment");
    thread->presented = attachment;
    EXPECT_EQ(findVisibleViewController(tabs), attachment);  // presentations win, also in turn
    tabs->presented = nullptr;
    tabs->tab = 2;
    EXPECT_EQ(findVisibleViewController(tabs), nullptr);  // no tab selected
    attachment->presented = thread;
    EXPECT_EQ(findVisibleViewController(thread), nullptr);  // a cycle
    attachment->presented = nullptr;  // break the cycle so both can be freed
}

TEST(RootViewControllerTest, TheOwnWindowElseTheApplicationsWindowsInOrder) {
    using State = Scene::ActivationState;
    auto root = [] { return make_shared<FakeViewController>("Root"); };
    auto ownRoot = root(), delegateRoot = root(), keyRoot = root(), sceneRoot = root();
    FakeViewController self("Self");
    FakeApplication app;
    // The first scene active in the foreground whose delegate has a window property.
    app.scenes = {make_shared<FakeScene>(State::foregroundInactive, true, ownRoot),
                  make_shared<FakeScene>(State::foregroundActive, false, ownRoot),
                  make_shared<FakeScene>(State::foregroundActive, true, sceneRoot)};
    EXPECT_EQ(findRootViewController(self, &app), sceneRoot);
    app.key = make_shared<FakeWindow>(keyRoot);
    EXPECT_EQ(findRootViewController(self, &app), keyRoot);
    app.delegatesWindow = make_shared<FakeWindow>(delegateRoot);
    EXPECT_EQ(findRootViewController(self, &app), delegateRoot);
    self.window = make_shared<FakeWindow>(ownRoot);
    EXPECT_EQ(findRootViewController(self, &app), ownRoot);
}

TEST(ScreenViewNameTest, TheTitleOnlyWhenNothingIsLeftOfTheClassName) {
    FakeViewController empty("ViewController", ""), doubled("ViewViewControllerController", "T");
    EXPECT_EQ(screenViewName(empty), std::nullopt);
    EXPECT_EQ(screenViewName(doubled), "ViewController");  // one pass: pieces that meet stay
}

// One test, in order: the interception is installed once per process and stays.
TEST(AutomaticScreenViewsTest, AppearAndDisappearTrackTheScreenThatIsVisibleThen) {
    auto inbox = make_shared<FakeViewController>("InboxViewController");
    auto application = make_shared<FakeApplication>();
    application->key = make_shared<FakeWindow>(inbox);
    setScreenViewApplication(application);
    Tern::initialize("screens-site", "screens-key", Region::US, [](SdkConfig& config) {
        config.autoTrackScreenViews = true;
        config.autoScreenViewBody = [] { return json{{"source", "automatic"}}; };
        config.trackingApiUrl = "http://127.0.0.1:9";  // the queue does not run
        config.backgroundQueueMinNumberOfTasks = 1000;
    });
    ASSERT_TRUE(cleanupFinished());
    Tern::shared()->identify("viewer");

    auto screenViews = [] {
        auto storage = Tern::shared()->diGraph()->queueStorage();
        std::vector<std::string> names;
        for (const auto& entry : storage->getInventory()) {
            const auto data = vontu::platform::toString(storage->get(entry.taskPersistedId)->data);
            const auto body = json::parse(json::parse(data).value("attributes_json_string", "{}"));
            if (body.value("type", "") != "screen") continue;
            names.push_back(body["name"]);
            EXPECT_EQ(body["data"], (json{{"source", "automatic"}}));
        }
        return names;
    };
    // Calls on the main thread, as the UI layer does; the own method notes the views by then.
    std::vector<std::size_t> seen;
    auto call = [&](auto intercepted, ViewController& controller) {
        std::promise<void> done;
        vontu::platform::Env::current().runOnMain([&] {
            intercepted(controller, [&] { seen.push_back(screenViews().size()); });
            done.set_value();
        });
        done.get_future().wait();
    };
    call(viewControllerDidAppear, *inbox);
    auto compose = make_shared<FakeViewController>("ViewController", "Compose");
    inbox->presented = compose;
    call(viewControllerDidAppear, *compose);
    inbox->presented = nullptr;  // dismissed: disappearing reports the inbox again
    call(viewControllerDidDisappear, *compose);
    EXPECT_EQ(seen, (std::vector<std::size_t>{1, 2, 2}));
    EXPECT_EQ(screenViews(), (std::vector<std::string>{"Inbox", "Compose", "Inbox"}));
}

}  // namespace
}  // namespace tern::testing
