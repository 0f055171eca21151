#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/AutoMockable.hpp"

namespace tern {

// The host app's user interface as the automatic screen views see it. The library has no UI of
// its own: the app's UI layer implements these interfaces over its real windows and view
// controllers (UIKit on Apple platforms) and hands the library its application object
// (AutomaticScreenViews.hpp). Every operation is called on the main thread and only reads.

class Window;

// One screen's controller. Containers are the two subclasses below; the search for the visible
// screen tells them apart by their type, so a plain controller implements only this interface.
class ViewController : public vontu::AutoMockable {
public:
    // The name of the controller's class as the UI toolkit knows it, e.g. "InboxViewController";
    // screen views are named after it.
    virtual std::string className() = 0;
    // The title the controller shows, if it has one.
    virtual std::optional<std::string> title() = 0;
    // The window that shows this controller's view; empty while the view is not loaded or not
    // in a window.
    virtual std::shared_ptr<Window> viewWindow() = 0;
    // The controller this one presents modally on top of itself, if any.
    virtual std::shared_ptr<ViewController> presentedViewController() = 0;
};

// A container that shows one of several tabs.
class TabBarController : public ViewController {
public:
    // The controllers of the tabs, in tab order.
    virtual std::vector<std::shared_ptr<ViewController>> viewControllers() = 0;
    // The controller of the selected tab; empty when no tab is selected.
    virtual std::shared_ptr<ViewController> selectedViewController() = 0;
};

// A container that shows the top of a stack of controllers.
class NavigationController : public ViewController {
public:
    // The stack, bottom first.
    virtual std::vector<std::shared_ptr<ViewController>> viewControllers() = 0;
    // The controller on top of the stack, or the one it presents; empty for an empty stack.
    virtual std::shared_ptr<ViewController> visibleViewController() = 0;
};

class Window : public vontu::AutoMockable {
public:
    // The controller whose view fills the window; empty before the app set one.
    virtual std::shared_ptr<ViewController> rootViewController() = 0;
};

// One instance of the app's UI (a scene, on systems with several per app).
class Scene : public vontu::AutoMockable {
public:
    // The system's raw values of a scene's activation state.
    enum class ActivationState { unattached = -1, foregroundActive = 0, foregroundInactive = 1,
                                 background = 2 };

    virtual ActivationState activationState() = 0;
    // Whether the scene's delegate has a "window" property at all.
    virtual bool delegateRespondsToWindow() = 0;
    // That property's value; empty when the delegate has none or it is not set.
    virtual std::shared_ptr<Window> delegateWindow() = 0;
};

// The running application.
class Application : public vontu::AutoMockable {
public:
    // The window of the application delegate; empty when the delegate has no "window" property
    // or it is not set.
    virtual std::shared_ptr<Window> delegateWindow() = 0;
    // The window that receives keyboard events; empty when there is none.
    virtual std::shared_ptr<Window> keyWindow() = 0;
    // The scenes the system has connected to the app, in the system's order.
    virtual std::vector<std::shared_ptr<Scene>> connectedScenes() = 0;
};

}  // namespace tern
