#pragma once

#include <functional>

#include "platform/AutoMockable.hpp"

namespace tern {

// A timer that refuses a second schedule while one is pending. The dependency graph shares one
// among all its users, so they share one pending schedule.
class SingleScheduleTimer : public vontu::AutoMockable {
public:
    // True when this call scheduled block; false when a schedule was already pending.
    virtual bool scheduleIfNotAlready(double seconds, std::function<void()> block) = 0;
    virtual void cancel() = 0;
};

}  // namespace tern
