#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "TernTracking/ScreenViewName.hpp"
#include "TernTracking/VisibleViewController.hpp"
#include "tests/tracking_runner/ViewHierarchyDoubles.hpp"

namespace tern::testing {
namespace {

using std::make_shared;

// --- The visible controller below a root

TEST(VisibleViewControllerTest, APlainRootIsItself) {
    auto inbox = make_shared<FakeViewController>("InboxViewController");
    EXPECT_EQ(findVisibleViewController(inbox), inbox);
    EXPECT_EQ(findVisibleViewController(nullptr), nullptr);
}

TEST(VisibleViewControllerTest, FollowsTheSelectedTabAndTheTopOfItsNavigationStack) {
    auto mailboxes = make_shared<FakeViewController>("MailboxesViewController");
    auto thread = make_shared<FakeViewController>("ThreadViewController");
    auto navigation = make_shared<FakeNavigationController>("UINavigationController");
    navigation->stack = {mailboxes, thread};
    auto settings = make_shared<FakeViewController>("SettingsViewController");
    auto tabs = make_shared<FakeTabBarController>("UITabBarController");
    tabs->tabs = {navigation, settings};

    tabs->selected = 0;
    EXPECT_EQ(findVisibleViewController(tabs), thread);
    tabs->selected = 1;
    EXPECT_EQ(findVisibleViewController(tabs), settings);
}

TEST(VisibleViewControllerTest, APresentedControllerWinsOverTheContainer) {
    auto compose = make_shared<FakeViewController>("ComposeViewController");
    auto inbox = make_shared<FakeViewController>("InboxViewController");
    auto tabs = make_shared<FakeTabBarController>("UITabBarController");
    tabs->tabs = {inbox};
    tabs->presented = compose;
    EXPECT_EQ(findVisibleViewController(tabs), compose);

    // A presentation inside a navigation stack shows through the navigation's visible one.
    tabs->presented = nullptr;
    auto attachment = make_shared<FakeViewController>("AttachmentViewController");
    auto navigation = make_shared<FakeNavigationController>("UINavigationController");
    auto message = make_shared<FakeViewController>("MessageViewController");
    message->presented = attachment;
    navigation->stack = {message};
    tabs->tabs = {navigation};
    EXPECT_EQ(findVisibleViewController(tabs), attachment);

    // A presented container is searched like a root.
    auto presentedNavigation = make_shared<FakeNavigationController>("UINavigationController");
    auto account = make_shared<FakeViewController>("AccountViewController");
    presentedNavigation->stack = {account};
    inbox->presented = presentedNavigation;
    tabs->tabs = {inbox};
    EXPECT_EQ(findVisibleViewController(tabs), account);
}

TEST(VisibleViewControllerTest, ContainersWithNothingToShowGiveNothing) {
    auto tabs = make_shared<FakeTabBarController>("UITabBarController");
    tabs->selected = -1;
    EXPECT_EQ(findVisibleViewController(tabs), nullptr);
    auto navigation = make_shared<FakeNavigationController>("UINavigationController");
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

// --- The root of the UI a controller belongs to

struct RootSearch : ::testing::Test {
    std::shared_ptr<FakeViewController> self = make_shared<FakeViewController>("SelfController");
    std::shared_ptr<FakeViewController> ownRoot = make_shared<FakeViewController>("Own");
    std::shared_ptr<FakeViewController> delegateRoot = make_shared<FakeViewController>("Delegate");
    std::shared_ptr<FakeViewController> keyRoot = make_shared<FakeViewController>("Key");
    std::shared_ptr<FakeViewController> sceneRoot = make_shared<FakeViewController>("Scene");
    FakeApplication application;

    std::shared_ptr<FakeScene> scene(Scene::ActivationState state, bool responds,
                                     std::shared_ptr<ViewController> root) {
        auto made = make_shared<FakeScene>();
        made->state = state;
        made->respondsToWindow = responds;
        made->window = windowWithRoot(std::move(root));
        return made;
    }
};

TEST_F(RootSearch, TheControllersOwnWindowComesFirst) {
    self->window = windowWithRoot(ownRoot);
    application.delegatesWindow = windowWithRoot(delegateRoot);
    EXPECT_EQ(findRootViewController(*self, &application), ownRoot);
    EXPECT_EQ(findRootViewController(*self, nullptr), ownRoot);
}

TEST_F(RootSearch, OutsideAWindowTheApplicationIsAskedInOrder) {
    using State = Scene::ActivationState;
    application.scenes = {scene(State::background, true, nullptr),
                          scene(State::foregroundActive, false, nullptr),
                          scene(State::foregroundInactive, true, nullptr),
                          scene(State::foregroundActive, true, sceneRoot)};
    EXPECT_EQ(findRootViewController(*self, &application), sceneRoot);

    application.key = windowWithRoot(keyRoot);
    EXPECT_EQ(findRootViewController(*self, &application), keyRoot);

    application.delegatesWindow = windowWithRoot(delegateRoot);
    EXPECT_EQ(findRootViewController(*self, &application), delegateRoot);
}

TEST_F(RootSearch, NoWindowAnywhereGivesNoRoot) {
    using State = Scene::ActivationState;
    EXPECT_EQ(findRootViewController(*self, &application), nullptr);
    EXPECT_EQ(findRootViewController(*self, nullptr), nullptr);
    application.scenes = {scene(State::background, true, sceneRoot),
                          scene(State::unattached, true, sceneRoot)};
    EXPECT_EQ(findRootViewController(*self, &application), nullptr);
    // A window without a root is no root either.
    application.key = windowWithRoot(nullptr);
    EXPECT_EQ(findRootViewController(*self, &application), nullptr);
}

// --- Screen names

TEST(ScreenViewNameTest, NamesComeFromTheClassNameElseTheTitle) {
    struct Case {
        std::string className;
        std::optional<std::string> title;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {"InboxViewController", std::nullopt, "Inbox"},
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

}  // namespace
}  // namespace tern::testing
