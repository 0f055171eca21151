#pragma once

#include "Common/util/Url.hpp"
#include "platform/AutoMockable.hpp"

namespace tern {

// The library's door to the host application, for links.
class UIKitWrapper : public vontu::AutoMockable {
public:
    // Asks the system to open the URL; nothing is reported back.
    virtual void open(const Url& url) = 0;
    // Offers a web URL to the app as a universal link; true when the app took it. URLs whose
    // scheme is not "http" or "https" are refused without asking the app.
    virtual bool continueNSUserActivity(const Url& webpageURL) = 0;
};

}  // namespace tern
