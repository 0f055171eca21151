#pragma once

#include <string>

#include "platform/AutoMockable.hpp"

namespace tern {

// The User-Agent header value that every API request carries.
class UserAgentUtil : public vontu::AutoMockable {
public:
    virtual std::string getUserAgentHeaderValue() const = 0;
};

}  // namespace tern
