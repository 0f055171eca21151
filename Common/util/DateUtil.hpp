#pragma once

#include "platform/AutoMockable.hpp"
#include "platform/Date.hpp"

namespace tern {

// The library's clock, replaceable in tests.
class DateUtil : public vontu::AutoMockable {
public:
    virtual vontu::platform::Date now() const = 0;
};

}  // namespace tern
