#pragma once

#include <functional>
#include <memory>

#include "TernTracking/ViewHierarchy.hpp"

namespace tern {

// Automatic screen views: with them installed, every time a view controller of the app appears
// or disappears, the screen the user now sees is tracked as a screen view named after its
// controller (ScreenViewName.hpp).
//
// On Apple platforms the library exchanges the view-controller class's "viewDidAppear:" and
// "viewDidDisappear:" with "tern_swizzled_UIKit_viewDidAppear:" and
// "tern_swizzled_UIKit_viewDidDisappear:". Here the app's UI layer plays that part: it hands the
// library its application object once and routes both methods of its controllers through the
// two entry points below. Until the tracking is installed they only run the controller's own
// method. All of this runs on the main thread.

// Turns the tracking on, for the life of the process. Called by Tern::initialize (app form)
// when the configuration asks for automatic screen views; calling it again changes nothing.
void installAutomaticScreenViewTracking();
bool isAutomaticScreenViewTrackingInstalled();

// The application whose windows are searched when a controller's view is not in a window.
// May be empty (the default): then only controllers in a window are found.
void setScreenViewApplication(std::shared_ptr<Application> application);

// Replaces viewDidAppear of viewController: the screen view is tracked first, then the
// controller's own method runs.
void viewControllerDidAppear(ViewController& viewController,
                             const std::function<void()>& ownViewDidAppear);
// Replaces viewDidDisappear of viewController: the controller's own method runs first, then the
// screen view is tracked; after a dismissal that reports the screen that shows again.
void viewControllerDidDisappear(ViewController& viewController,
                                const std::function<void()>& ownViewDidDisappear);

// The screen-view step alone: finds the visible controller from viewController's UI and tracks
// it. Nothing happens when there is no root, no visible controller or no name.
void trackVisibleScreenView(ViewController& viewController);

}  // namespace tern
