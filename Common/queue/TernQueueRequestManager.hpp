#pragma once

#include <memory>
#include <vector>

#include "Common/queue/QueueRequestManager.hpp"
#include "Common/util/Atomic.hpp"
#include "Common/util/Lock.hpp"

namespace tern {

// The dependency graph keeps one of these for the process, so the timer's run, an explicit
// run and a run started by another component never overlap.
//
// Safe from any thread. Each of startRequest() and requestComplete() reads and changes both
// values as one step under one lock: checked and set separately, two threads starting at the
// same instant could both see "not running" and start two runs, and two callbacks appended at
// once could lose one.
class TernQueueRequestManager final : public QueueRequestManager {
public:
    void requestComplete() override;
    bool startRequest(Completion onComplete) override;

    bool isRunningRequest() const { return isRunningRequest_.wrappedValue(); }

private:
    Atomic<bool> isRunningRequest_{false};
    Atomic<std::vector<Completion>> callbacks_{{}};
    const std::shared_ptr<Lock> lock_ = Lock::unsafeInit();
};

}  // namespace tern
