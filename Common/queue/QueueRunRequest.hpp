#pragma once

#include <functional>

#include "platform/AutoMockable.hpp"

namespace tern {

// Starts runs of the background queue.
class QueueRunRequest : public vontu::AutoMockable {
public:
    using Completion = std::function<void()>;

    // Starts a run on a background thread, or joins the run that is going on; returns at once.
    // onComplete is called when that run has ended.
    virtual void start(Completion onComplete) = 0;
};

}  // namespace tern
