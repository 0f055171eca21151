#include "messaging_push/DeepLinkUtilImpl.hpp"

#include <utility>

#include "Common/DIGraph.hpp"

namespace tern {

DeepLinkUtilImpl::DeepLinkUtilImpl(std::shared_ptr<Logger> logger,
                                   std::shared_ptr<UIKitWrapper> uiKitWrapper)
    : logger_(std::move(logger)), uiKitWrapper_(std::move(uiKitWrapper)) {}

void DeepLinkUtilImpl::handleDeepLink(const Url& deepLinkUrl) {
    logger_->info("Found a deep link inside of a push notification.");
    logger_->debug("deep link found in push: " + deepLinkUrl.absoluteString());

    if (uiKitWrapper_->continueNSUserActivity(deepLinkUrl)) return;

    logger_->debug("Opening deep link through system call. Deep link: " +
                   deepLinkUrl.absoluteString());
    uiKitWrapper_->open(deepLinkUrl);
}

std::shared_ptr<DeepLinkUtil> deepLinkUtil(DIGraph& diGraph) {
    return std::make_shared<DeepLinkUtilImpl>(diGraph.logger(), diGraph.uIKitWrapper());
}

}  // namespace tern
