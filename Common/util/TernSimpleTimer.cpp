#include "Common/util/TernSimpleTimer.hpp"

#include <utility>

#include "Common/util/DoubleDescription.hpp"
#include "platform/Crypto.hpp"

namespace tern {

using vontu::platform::Env;

namespace {

std::string randomLowercaseLetters(std::size_t count) {
    std::string letters;
    letters.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        letters.push_back(static_cast<char>('a' + vontu::platform::randomBelow(26)));
    }
    return letters;
}

}  // namespace

std::shared_ptr<TernSimpleTimer> TernSimpleTimer::make(std::shared_ptr<Logger> logger) {
    return std::make_shared<TernSimpleTimer>(Passkey{}, std::move(logger));
}

TernSimpleTimer::TernSimpleTimer(Passkey, std::shared_ptr<Logger> logger)
    : logger_(std::move(logger)), instanceIdentifier_(randomLowercaseLetters(10)) {}

TernSimpleTimer::~TernSimpleTimer() {
    // A pending schedule must not outlive the timer. Invalidating is safe from any thread, and
    // the fire callback holds this object only weakly, so the block can no longer run.
    if (timer_) timer_->invalidate();
}

void TernSimpleTimer::scheduleAndCancelPrevious(double seconds, std::function<void()> block) {
    std::lock_guard guard(*lock_);
    Env::current().runOnMain(
        [weakSelf = weak_from_this(), seconds, block = std::move(block)]() mutable {
            if (auto self = weakSelf.lock()) self->replaceTimer(seconds, std::move(block));
        });
}

bool TernSimpleTimer::scheduleIfNotAlready(double seconds, std::function<void()> block) {
    std::lock_guard guard(*lock_);
    if (timerAlreadyScheduled_.wrappedValue()) {
        log("already scheduled to run. Skipping request.");
        return false;
    }
    timerAlreadyScheduled_.setWrappedValue(true);
    scheduleAndCancelPrevious(seconds, std::move(block));  // takes lock_ again, recursively
    return true;
}

void TernSimpleTimer::cancel() {
    std::lock_guard guard(*lock_);
    timerAlreadyScheduled_.setWrappedValue(false);
    Env::current().runOnMain([weakSelf = weak_from_this()] {
        if (auto self = weakSelf.lock()) {
            self->log("timer is being cancelled");
            self->invalidateTimer();
        }
    });
}

void TernSimpleTimer::replaceTimer(double seconds, std::function<void()> block) {
    invalidateTimer();
    log("making a timer for " + doubleDescription(seconds) + " seconds.");
    timer_ = Env::current().scheduleOnMain(
        seconds, [weakSelf = weak_from_this(), block = std::move(block)] {
            if (auto self = weakSelf.lock()) self->timerFired(block);
        });
}

void TernSimpleTimer::timerFired(const std::function<void()>& block) {
    // The flag is cleared first, so that the block may schedule this timer again.
    timerAlreadyScheduled_.setWrappedValue(false);
    timer_.reset();
    log("timer is done! It's been reset.");
    if (block) block();
}

void TernSimpleTimer::invalidateTimer() {
    if (timer_) timer_->invalidate();
    timer_.reset();
}

void TernSimpleTimer::log(const std::string& message) {
    logger_->debug("Timer (" + instanceIdentifier_ + ") " + message);
}

}  // namespace tern
