#include "TernTracking/VisibleViewController.hpp"

namespace tern {
namespace {

std::shared_ptr<Window> firstForegroundActiveSceneWindow(Application& application) {
    for (const auto& scene : application.connectedScenes()) {
        if (!scene) continue;
        if (scene->activationState() == Scene::ActivationState::foregroundActive &&
            scene->delegateRespondsToWindow()) {
            return scene->delegateWindow();
        }
    }
    return nullptr;
}

std::shared_ptr<Window> applicationWindow(Application& application) {
    if (auto window = application.delegateWindow()) return window;
    if (auto window = application.keyWindow()) return window;
    return firstForegroundActiveSceneWindow(application);
}

}  // namespace

std::shared_ptr<ViewController> findRootViewController(ViewController& viewController,
                                                       Application* application) {
    if (auto ownWindow = viewController.viewWindow()) return ownWindow->rootViewController();
    if (application == nullptr) return nullptr;
    auto window = applicationWindow(*application);
    return window ? window->rootViewController() : nullptr;
}

std::shared_ptr<ViewController> findVisibleViewController(std::shared_ptr<ViewController> root) {
    // A loop rather than recursion: the depth is the app's, and a cycle of presentations that a
    // broken UI layer might report must not exhaust the stack. No real hierarchy is this deep.
    constexpr int maximumDepth = 1000;
    auto current = std::move(root);
    for (int depth = 0; current && depth < maximumDepth; ++depth) {
        if (auto presented = current->presentedViewController()) {
            current = std::move(presented);
        } else if (auto* tabs = dynamic_cast<TabBarController*>(current.get())) {
            current = tabs->selectedViewController();
        } else if (auto* navigation = dynamic_cast<NavigationController*>(current.get())) {
            current = navigation->visibleViewController();
        } else {
            return current;
        }
    }
    return nullptr;
}

}  // namespace tern
