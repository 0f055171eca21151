#pragma once

#include "Common/util/DateUtil.hpp"
#include "platform/Env.hpp"

namespace tern {

// The platform's clock.
class SdkDateUtil : public DateUtil {
public:
    vontu::platform::Date now() const override { return vontu::platform::Env::current().now(); }
};

}  // namespace tern
