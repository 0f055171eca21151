#pragma once

#include "Common/util/Url.hpp"
#include "platform/AutoMockable.hpp"

namespace tern {

// Opens the deep link of a push that the user tapped.
class DeepLinkUtil : public vontu::AutoMockable {
public:
    virtual void handleDeepLink(const Url& deepLinkUrl) = 0;
};

}  // namespace tern
