#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>

namespace vontu::testing {

// Collects the first value a completion receives, from any thread, and counts its calls so
// that a test can check "exactly once" or "never".
template <class Value>
class CompletionRecorder {
public:
    std::function<void(Value)> completion() {
        return [state = state_](Value value) {
            std::lock_guard guard(state->mutex);
            if (state->calls++ == 0) state->promise.set_value(std::move(value));
        };
    }
    // The first value, or absent when none came within the deadline.
    std::optional<Value> await(std::chrono::milliseconds deadline = std::chrono::seconds(30)) {
        if (state_->future.wait_for(deadline) != std::future_status::ready) return std::nullopt;
        return state_->future.get();
    }
    int calls() const {
        std::lock_guard guard(state_->mutex);
        return state_->calls;
    }

private:
    struct State {
        std::mutex mutex;
        int calls = 0;
        std::promise<Value> promise;
        std::future<Value> future = promise.get_future();
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace vontu::testing
