#include "messaging_push/NotificationOpen.hpp"

#include <memory>
#include <utility>

#include "Common/DIGraph.hpp"
#include "TernTracking/SdkInitializedUtilImpl.hpp"
#include "messaging_push/MessagingPush.hpp"

namespace tern {

namespace {

// Passes every call on to the graph's wrapper and notes which way a link went.
class ObservingUIKitWrapper final : public UIKitWrapper {
public:
    explicit ObservingUIKitWrapper(std::shared_ptr<UIKitWrapper> target)
        : target_(std::move(target)) {}

    void open(const Url& url) override {
        target_->open(url);
        note(url, "system");
    }

    bool continueNSUserActivity(const Url& webpageURL) override {
        const bool taken = target_->continueNSUserActivity(webpageURL);
        if (taken) note(webpageURL, "universal-link");
        return taken;
    }

    void recordInto(OpenOutcome& outcome) const {
        outcome.opened = opened_;
        outcome.via = via_;
    }

private:
    void note(const Url& url, std::string via) {
        opened_ = url.absoluteString();
        via_ = std::move(via);
    }

    const std::shared_ptr<UIKitWrapper> target_;
    std::optional<std::string> opened_;
    std::optional<std::string> via_;
};

}  // namespace

nlohmann::json OpenOutcome::toJson() const {
    return nlohmann::json{{"handled", handled},
                          {"opened", opened ? nlohmann::json(*opened) : nlohmann::json(nullptr)},
                          {"via", via ? nlohmann::json(*via) : nlohmann::json(nullptr)}};
}

OpenOutcome handleNotificationOpen(const vontu::platform::NotificationResponse& response) {
    OpenOutcome outcome;
    const auto initialized = SdkInitializedUtilImpl().postInitializedData();
    if (!initialized) {
        outcome.handled = MessagingPush::shared().userNotificationCenter(response, [] {});
        return outcome;
    }

    // The deep link is opened through the graph's UIKit wrapper, within the call below; the
    // observer stands in for it only that long, and the wrapper in use before comes back.
    DIGraph& graph = *initialized->diGraph;
    const auto previous = graph.uIKitWrapper();
    const auto observer = std::make_shared<ObservingUIKitWrapper>(previous);
    graph.override<UIKitWrapper>(observer);
    outcome.handled = MessagingPush::shared().userNotificationCenter(response, [] {});
    graph.override<UIKitWrapper>(previous);

    observer->recordInto(outcome);
    return outcome;
}

}  // namespace tern
