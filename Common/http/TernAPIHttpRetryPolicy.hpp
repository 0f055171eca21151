#pragma once

#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "Common/http/HttpRetryPolicy.hpp"

namespace tern {

// A fixed back-off of 0.1, 0.2, 0.4, 0.8, 1.6 and 3.2 seconds. The budget is never refilled:
// one policy gives at most six retries over its whole life, shared by every request of the
// HTTP client that owns it, so a struggling server is not hammered by retry after retry.
class TernAPIHttpRetryPolicy final : public HttpRetryPolicy {
public:
    static const std::vector<double>& retryPolicy();

    TernAPIHttpRetryPolicy();

    std::optional<double> nextSleepTime() override;

private:
    // Requests of one client complete on different threads; each takes its sleep time alone.
    std::mutex mutex_;
    std::deque<double> retriesLeft_;
};

}  // namespace tern
