#include "Common/queue/TernQueueRequestManager.hpp"

#include <mutex>
#include <utility>

namespace tern {

void TernQueueRequestManager::requestComplete() {
    std::vector<Completion> waiting;
    {
        std::lock_guard guard(*lock_);
        waiting = callbacks_.wrappedValue();
        callbacks_.setWrappedValue({});
        isRunningRequest_.setWrappedValue(false);
    }
    // Outside the lock: a callback may well ask for the next run.
    for (const auto& callback : waiting) {
        if (callback) callback();
    }
}

bool TernQueueRequestManager::startRequest(Completion onComplete) {
    std::lock_guard guard(*lock_);
    const bool wasRunning = isRunningRequest_.wrappedValue();
    auto callbacks = callbacks_.wrappedValue();
    callbacks.push_back(std::move(onComplete));
    callbacks_.setWrappedValue(std::move(callbacks));
    if (!wasRunning) isRunningRequest_.setWrappedValue(true);
    return wasRunning;
}

}  // namespace tern
