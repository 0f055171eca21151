#pragma once

#include <memory>

#include "Common/util/Logger.hpp"
#include "Common/util/UIKitWrapper.hpp"
#include "messaging_push/DeepLinkUtil.hpp"

namespace tern {

class DIGraph;

// Offers the link to the host app as a universal link first; only when the app does not take
// it is it opened through the system.
class DeepLinkUtilImpl final : public DeepLinkUtil {
public:
    DeepLinkUtilImpl(std::shared_ptr<Logger> logger, std::shared_ptr<UIKitWrapper> uiKitWrapper);

    void handleDeepLink(const Url& deepLinkUrl) override;

private:
    const std::shared_ptr<Logger> logger_;
    const std::shared_ptr<UIKitWrapper> uiKitWrapper_;
};

// The graph's deep-link utility: a new DeepLinkUtilImpl over the graph's logger and UIKit
// wrapper (so an override of either reaches it).
std::shared_ptr<DeepLinkUtil> deepLinkUtil(DIGraph& diGraph);

}  // namespace tern
