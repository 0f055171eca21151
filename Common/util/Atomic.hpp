#pragma once

#include <mutex>
#include <utility>

namespace tern {

// A value whose every read and every write is exclusive. Each wrapper has a mutex of its own,
// never shared with another wrapper.
//
// Only single reads and single writes are atomic: a read followed by a write (a test-and-set,
// an increment) is two steps, and a caller that needs them as one holds a Lock around both.
template <typename Value>
class Atomic {
public:
    explicit Atomic(Value wrappedValue) : value_(std::move(wrappedValue)) {}
    Atomic(const Atomic&) = delete;
    Atomic& operator=(const Atomic&) = delete;

    // A copy of the current value.
    Value wrappedValue() const {
        std::lock_guard guard(mutex_);
        return value_;
    }

    void setWrappedValue(Value newValue) {
        std::lock_guard guard(mutex_);
        value_ = std::move(newValue);
    }

private:
    mutable std::mutex mutex_;
    Value value_;
};

}  // namespace tern
