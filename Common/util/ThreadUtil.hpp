#pragma once

#include <functional>

#include "platform/AutoMockable.hpp"

namespace tern {

// The one place where the library sends work to another thread.
class ThreadUtil : public vontu::AutoMockable {
public:
    // Runs block later on a background thread; returns at once.
    virtual void runBackground(std::function<void()> block) = 0;
    // Runs block later on the main thread, after the blocks sent there before it; returns at
    // once, even when called on the main thread.
    virtual void runMain(std::function<void()> block) = 0;
};

}  // namespace tern
