#include "Common/util/TernSingleScheduleTimer.hpp"

#include <utility>

namespace tern {

TernSingleScheduleTimer::TernSingleScheduleTimer(std::shared_ptr<SimpleTimer> timer)
    : timer_(std::move(timer)) {}

bool TernSingleScheduleTimer::scheduleIfNotAlready(double seconds, std::function<void()> block) {
    return timer_->scheduleIfNotAlready(seconds, std::move(block));
}

void TernSingleScheduleTimer::cancel() { timer_->cancel(); }

}  // namespace tern
