#pragma once

#include "Common/util/UIKitWrapper.hpp"

namespace tern {

// UIKitWrapper over the platform's application (vontu::platform::Env).
class UIKitWrapperImpl : public UIKitWrapper {
public:
    void open(const Url& url) override;
    bool continueNSUserActivity(const Url& webpageURL) override;
};

}  // namespace tern
