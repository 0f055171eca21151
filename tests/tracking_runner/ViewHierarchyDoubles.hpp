#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "TernTracking/ViewHierarchy.hpp"

namespace tern::testing {

// A view hierarchy built in memory, as a host app's UI layer would report it.

struct FakeWindow final : Window {
    std::shared_ptr<ViewController> root;
    std::shared_ptr<ViewController> rootViewController() override { return root; }
};

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
    std::shared_ptr<ViewController> visibleViewController() override {
        if (stack.empty()) return nullptr;
        auto top = stack.back();
        auto presentedByTop = top->presentedViewController();
        return presentedByTop ? presentedByTop : top;
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
    std::shared_ptr<Window> delegatesWindow;
    std::shared_ptr<Window> key;
    std::vector<std::shared_ptr<Scene>> scenes;
    std::shared_ptr<Window> delegateWindow() override { return delegatesWindow; }
    std::shared_ptr<Window> keyWindow() override { return key; }
    std::vector<std::shared_ptr<Scene>> connectedScenes() override { return scenes; }
};

inline std::shared_ptr<FakeWindow> windowWithRoot(std::shared_ptr<ViewController> root) {
    auto window = std::make_shared<FakeWindow>();
    window->root = std::move(root);
    return window;
}

}  // namespace tern::testing
