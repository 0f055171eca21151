#pragma once

#include <functional>

#include "platform/AutoMockable.hpp"

namespace tern {

// Keeps queue runs to one at a time in the process, and collects the callbacks of everybody
// who asked for a run while one was going on.
class QueueRequestManager : public vontu::AutoMockable {
public:
    using Completion = std::function<void()>;

    // The run has ended: back to idle, then every collected callback is called, in the order
    // in which they came, on the calling thread.
    virtual void requestComplete() = 0;
    // Adds onComplete to the callbacks of the run. True when a run was already going on (the
    // caller must not start another); false when the caller has just become the one to start
    // it.
    virtual bool startRequest(Completion onComplete) = 0;
};

}  // namespace tern
