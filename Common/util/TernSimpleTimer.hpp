#pragma once

#include <memory>
#include <string>

#include "Common/util/Atomic.hpp"
#include "Common/util/Lock.hpp"
#include "Common/util/Logger.hpp"
#include "Common/util/SimpleTimer.hpp"
#include "platform/Env.hpp"

namespace tern {

// SimpleTimer on the platform's main-thread timers.
//
// Callers may come from any thread. The state that decides whether scheduleIfNotAlready
// schedules (the "already scheduled" flag) is read and set under this timer's own lock; the
// platform timer itself is created, invalidated and fired only on the main thread. The jobs sent
// to the main thread hold the timer weakly, so a timer that is destroyed with a schedule pending
// never runs its block.
//
// Always owned by a std::shared_ptr (create it with make()): the main-thread jobs find the
// timer through it.
class TernSimpleTimer final : public SimpleTimer,
                              public std::enable_shared_from_this<TernSimpleTimer> {
    struct Passkey {};

public:
    static std::shared_ptr<TernSimpleTimer> make(std::shared_ptr<Logger> logger);
    TernSimpleTimer(Passkey, std::shared_ptr<Logger> logger);
    ~TernSimpleTimer() override;
    TernSimpleTimer(const TernSimpleTimer&) = delete;
    TernSimpleTimer& operator=(const TernSimpleTimer&) = delete;

    void scheduleAndCancelPrevious(double seconds, std::function<void()> block) override;
    bool scheduleIfNotAlready(double seconds, std::function<void()> block) override;
    void cancel() override;

    // Ten random lower-case letters; every log line of this timer carries them.
    const std::string& instanceIdentifier() const { return instanceIdentifier_; }

private:
    // Main thread only.
    void replaceTimer(double seconds, std::function<void()> block);
    void timerFired(const std::function<void()>& block);
    void invalidateTimer();

    void log(const std::string& message);

    Atomic<bool> timerAlreadyScheduled_{false};
    std::shared_ptr<Lock> lock_ = Lock::unsafeInit();
    // The pending platform timer. Touched on the main thread only, and by the destructor once no
    // main-thread job can reach this object any more.
    std::shared_ptr<vontu::platform::TimerHandle> timer_;
    std::shared_ptr<Logger> logger_;
    std::string instanceIdentifier_;
};

}  // namespace tern
