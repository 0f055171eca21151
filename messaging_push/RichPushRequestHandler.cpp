#include "messaging_push/RichPushRequestHandler.hpp"

#include <utility>

#include "Common/DIGraph.hpp"
#include "TernTracking/SdkInitializedUtilImpl.hpp"

namespace tern {

RichPushRequestHandler& RichPushRequestHandler::shared() {
    static auto* handler =
        new RichPushRequestHandler(std::make_shared<SdkInitializedUtilImpl>());
    return *handler;
}

RichPushRequestHandler::RichPushRequestHandler(
    std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil)
    : sdkInitializedUtil_(std::move(sdkInitializedUtil)) {}

void RichPushRequestHandler::startRequest(const vontu::platform::NotificationRequest& request,
                                          std::shared_ptr<TernParsedPushPayload> content,
                                          RichPushRequest::CompletionHandler completionHandler) {
    std::shared_ptr<RichPushRequest> richPushRequest;
    {
        std::lock_guard guard(insertion_);
        const auto initialized = sdkInitializedUtil_->postInitializedData();
        if (!initialized) return;

        richPushRequest = std::make_shared<RichPushRequest>(
            std::move(completionHandler), std::move(content), initialized->diGraph->httpClient());
        auto requests = requests_.wrappedValue();
        requests.emplace(request.identifier, richPushRequest);
        requests_.setWrappedValue(std::move(requests));
    }
    richPushRequest->start();
}

void RichPushRequestHandler::stopAll() {
    for (const auto& [identifier, request] : requests_.wrappedValue()) {
        request->finishImmediately();
    }
}

}  // namespace tern
