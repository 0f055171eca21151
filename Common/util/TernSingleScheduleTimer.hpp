#pragma once

#include <memory>

#include "Common/util/SimpleTimer.hpp"
#include "Common/util/SingleScheduleTimer.hpp"

namespace tern {

// SingleScheduleTimer over a SimpleTimer.
class TernSingleScheduleTimer final : public SingleScheduleTimer {
public:
    explicit TernSingleScheduleTimer(std::shared_ptr<SimpleTimer> timer);

    bool scheduleIfNotAlready(double seconds, std::function<void()> block) override;
    void cancel() override;

private:
    std::shared_ptr<SimpleTimer> timer_;
};

}  // namespace tern
