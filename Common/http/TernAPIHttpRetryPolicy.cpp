#include "Common/http/TernAPIHttpRetryPolicy.hpp"

namespace tern {

const std::vector<double>& TernAPIHttpRetryPolicy::retryPolicy() {
    static const std::vector<double> sequence = {0.1, 0.2, 0.4, 0.8, 1.6, 3.2};
    return sequence;
}

TernAPIHttpRetryPolicy::TernAPIHttpRetryPolicy()
    : retriesLeft_(retryPolicy().begin(), retryPolicy().end()) {}

std::optional<double> TernAPIHttpRetryPolicy::nextSleepTime() {
    std::lock_guard guard(mutex_);
    if (retriesLeft_.empty()) return std::nullopt;
    const double next = retriesLeft_.front();
    retriesLeft_.pop_front();
    return next;
}

}  // namespace tern
