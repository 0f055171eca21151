#pragma once

#include <functional>

#include "platform/AutoMockable.hpp"

namespace tern {

// A one-shot timer: runs a block once, on the main thread, after a delay.
class SimpleTimer : public vontu::AutoMockable {
public:
    // Schedules block after `seconds`, replacing any pending schedule (whose block then never
    // runs).
    virtual void scheduleAndCancelPrevious(double seconds, std::function<void()> block) = 0;
    // Schedules block after `seconds` unless a schedule made by this operation is still
    // pending. True when this call scheduled it.
    virtual bool scheduleIfNotAlready(double seconds, std::function<void()> block) = 0;
    // Drops the pending schedule, if any.
    virtual void cancel() = 0;
};

}  // namespace tern
