#pragma once

#include <memory>

#include "TernTracking/ViewHierarchy.hpp"

namespace tern {

// The root view controller of the UI that `viewController` belongs to: its own window's root
// when its view is loaded and in a window. Otherwise the application's: the delegate's window,
// else the key window, else the window of the first foreground-active scene whose delegate has
// a "window" property. Empty when none of these gives a root (application may be empty).
std::shared_ptr<ViewController> findRootViewController(ViewController& viewController,
                                                       Application* application);

// The controller whose screen the user sees, found from root down: a presented controller
// wins, a tab container leads to its selected tab, a navigation container to its visible
// controller, and any other controller is the answer itself. Empty when root is empty or a
// container has nothing to show.
std::shared_ptr<ViewController> findVisibleViewController(std::shared_ptr<ViewController> root);

}  // namespace tern
