#include "TernTracking/AutomaticScreenViews.hpp"

#include <atomic>
#include <mutex>

#include "Common/util/AnyEncodable.hpp"
#include "TernTracking/ScreenViewData.hpp"
#include "TernTracking/ScreenViewName.hpp"
#include "TernTracking/Tern.hpp"
#include "TernTracking/VisibleViewController.hpp"

namespace tern {
namespace {

std::atomic<bool> trackingInstalled{false};

// The UI layer may hand over its application from any thread, before or after installation.
std::mutex applicationMutex;
std::shared_ptr<Application> screenViewApplication;

std::shared_ptr<Application> currentApplication() {
    std::lock_guard guard(applicationMutex);
    return screenViewApplication;
}

// The app may configure a body for automatic screen views; it belongs to the configuration of
// the current initialisation, so it is read from the shared object's graph at each view.
void trackScreen(const std::string& name) {
    auto tern = Tern::shared();
    auto graph = tern->diGraph();
    if (graph && graph->sdkConfig().autoScreenViewBody) {
        tern->screen(name, graph->sdkConfig().autoScreenViewBody());
        return;
    }
    if (auto implementation = tern->implementation()) {
        implementation->screen(name, AnyEncodable(ScreenViewData{}));
    }
}

}  // namespace

void installAutomaticScreenViewTracking() { trackingInstalled.store(true); }

bool isAutomaticScreenViewTrackingInstalled() { return trackingInstalled.load(); }

void setScreenViewApplication(std::shared_ptr<Application> application) {
    std::lock_guard guard(applicationMutex);
    screenViewApplication = std::move(application);
}

void viewControllerDidAppear(ViewController& viewController,
                             const std::function<void()>& ownViewDidAppear) {
    if (isAutomaticScreenViewTrackingInstalled()) trackVisibleScreenView(viewController);
    if (ownViewDidAppear) ownViewDidAppear();
}

void viewControllerDidDisappear(ViewController& viewController,
                                const std::function<void()>& ownViewDidDisappear) {
    if (ownViewDidDisappear) ownViewDidDisappear();
    if (isAutomaticScreenViewTrackingInstalled()) trackVisibleScreenView(viewController);
}

void trackVisibleScreenView(ViewController& viewController) {
    auto application = currentApplication();
    auto visible =
        findVisibleViewController(findRootViewController(viewController, application.get()));
    if (!visible) return;
    if (auto name = screenViewName(*visible)) trackScreen(*name);
}

}  // namespace tern
