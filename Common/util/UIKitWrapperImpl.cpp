#include "Common/util/UIKitWrapperImpl.hpp"

#include "platform/Env.hpp"

namespace tern {

void UIKitWrapperImpl::open(const Url& url) {
    vontu::platform::Env::current().openUrl(url.absoluteString());
}

bool UIKitWrapperImpl::continueNSUserActivity(const Url& webpageURL) {
    // Universal links are web pages: any other scheme is for the system to open.
    const auto& scheme = webpageURL.scheme();
    if (!scheme || (*scheme != "http" && *scheme != "https")) return false;
    return vontu::platform::Env::current().continueUserActivity(webpageURL.absoluteString());
}

}  // namespace tern
