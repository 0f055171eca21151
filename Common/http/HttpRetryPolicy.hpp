#pragma once

#include <optional>

#include "platform/AutoMockable.hpp"

namespace tern {

// How long to wait before the next retry of a request that met a server error.
class HttpRetryPolicy : public vontu::AutoMockable {
public:
    // Seconds to sleep before retrying; absent when no retries are left.
    virtual std::optional<double> nextSleepTime() = 0;
};

}  // namespace tern
