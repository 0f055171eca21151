#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/util/TernSimpleTimer.hpp"
#include "Common/util/TernSingleScheduleTimer.hpp"
#include "Common/util/TernThreadUtil.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using namespace std::chrono_literals;
using testing::RecordingLogger;

constexpr auto generousDeadline = 10s;

// Counts events from any thread and lets the test wait for a count.
class EventCounter {
public:
    // Notifies under the mutex: a waiter that wakes up may destroy the counter at once.
    void record() {
        std::lock_guard guard(mutex_);
        ++count_;
        changed_.notify_all();
    }
    int count() const {
        std::lock_guard guard(mutex_);
        return count_;
    }
    bool waitFor(int expected) const {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, generousDeadline, [&] { return count_ >= expected; });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    int count_ = 0;
};

class TimerTest : public ::testing::Test {
protected:
    std::string line(const std::shared_ptr<TernSimpleTimer>& of, const std::string& message) {
        return "Timer (" + of->instanceIdentifier() + ") " + message;
    }

    // Waits until a main-thread timer of `seconds`, started now, has fired. Main-thread timers
    // fire in the order of their deadlines, so any timer armed earlier with a shorter delay has
    // had its chance to fire by then.
    void letMainTimersRun(double seconds) {
        std::promise<void> fired;
        auto done = fired.get_future();
        auto handle = testEnv.env().scheduleOnMain(seconds, [&fired] { fired.set_value(); });
        const auto status = done.wait_for(generousDeadline);
        if (status != std::future_status::ready) handle->invalidate();
        ASSERT_EQ(status, std::future_status::ready);
    }

    vontu::testing::TestEnv testEnv;
    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<TernSimpleTimer> timer = TernSimpleTimer::make(logger);
};

TEST_F(TimerTest, InstanceIdentifierIsTenLowercaseLetters) {
    const auto& id = timer->instanceIdentifier();
    ASSERT_EQ(id.size(), 10u);
    for (char c : id) EXPECT_TRUE(c >= 'a' && c <= 'z') << id;
    EXPECT_NE(TernSimpleTimer::make(logger)->instanceIdentifier(), id);
}

TEST_F(TimerTest, SecondScheduleIsSkippedAndFirstBlockRuns) {
    EventCounter first, second;
    EXPECT_TRUE(timer->scheduleIfNotAlready(0.05, [&] { first.record(); }));
    EXPECT_FALSE(timer->scheduleIfNotAlready(0.05, [&] { second.record(); }));
    EXPECT_TRUE(logger->waitForMessage(line(timer, "already scheduled to run. Skipping request.")));

    ASSERT_TRUE(first.waitFor(1));
    letMainTimersRun(0.3);
    EXPECT_EQ(first.count(), 1);
    EXPECT_EQ(second.count(), 0);
    EXPECT_TRUE(logger->waitForMessage(line(timer, "making a timer for 0.05 seconds.")));
    for (const auto& l : logger->lines()) EXPECT_EQ(l.level, RecordingLogger::Level::debug);
}

TEST_F(TimerTest, FiringResetsBeforeTheBlockSoItMayScheduleAgain) {
    std::promise<bool> rescheduled;
    std::promise<bool> doneWasLogged;
    EventCounter again;
    timer->scheduleIfNotAlready(0.01, [&] {
        doneWasLogged.set_value(!logger->messages(RecordingLogger::Level::debug).empty() &&
                                logger->messages(RecordingLogger::Level::debug).back() ==
                                    line(timer, "timer is done! It's been reset."));
        rescheduled.set_value(timer->scheduleIfNotAlready(0.01, [&] { again.record(); }));
    });
    auto rescheduledResult = rescheduled.get_future();
    ASSERT_EQ(rescheduledResult.wait_for(generousDeadline), std::future_status::ready);
    EXPECT_TRUE(doneWasLogged.get_future().get());
    EXPECT_TRUE(rescheduledResult.get());
    EXPECT_TRUE(again.waitFor(1));
}

TEST_F(TimerTest, CancelWhenIdleLogsAndStaysIdle) {
    timer->cancel();
    EXPECT_TRUE(logger->waitForMessage(line(timer, "timer is being cancelled")));
    EventCounter ran;
    EXPECT_TRUE(timer->scheduleIfNotAlready(0.01, [&] { ran.record(); }));
    EXPECT_TRUE(ran.waitFor(1));
}

TEST_F(TimerTest, CancelledScheduleNeverRuns) {
    EventCounter ran;
    timer->scheduleIfNotAlready(0.05, [&] { ran.record(); });
    timer->cancel();
    letMainTimersRun(0.3);
    EXPECT_EQ(ran.count(), 0);
    EXPECT_TRUE(timer->scheduleIfNotAlready(0.01, [] {}));
}

TEST_F(TimerTest, ScheduleAndCancelPreviousRunsOnlyTheNewestBlockAfterTheNewestDelay) {
    EventCounter older, newest;
    timer->scheduleIfNotAlready(0.05, [&] { older.record(); });
    const auto replacedAt = std::chrono::steady_clock::now();
    std::atomic<std::chrono::steady_clock::time_point> ranAt{};
    timer->scheduleAndCancelPrevious(0.15, [&] {
        ranAt = std::chrono::steady_clock::now();
        newest.record();
    });
    ASSERT_TRUE(newest.waitFor(1));
    EXPECT_GE(ranAt.load() - replacedAt, 150ms);
    letMainTimersRun(0.3);
    EXPECT_EQ(older.count(), 0);
    EXPECT_EQ(newest.count(), 1);
}

TEST_F(TimerTest, DirectScheduleLeavesTimerIdleSoScheduleIfNotAlreadyReplacesIt) {
    EventCounter direct, replacing;
    timer->scheduleAndCancelPrevious(0.05, [&] { direct.record(); });
    EXPECT_TRUE(timer->scheduleIfNotAlready(0.1, [&] { replacing.record(); }));
    ASSERT_TRUE(replacing.waitFor(1));
    letMainTimersRun(0.3);
    EXPECT_EQ(direct.count(), 0);
}

TEST_F(TimerTest, ScheduledFromManyThreadsOnlyOneCallWins) {
    EventCounter ran;
    std::atomic<int> scheduled{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                if (timer->scheduleIfNotAlready(0.05, [&] { ran.record(); })) ++scheduled;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(scheduled.load(), 1);
    ASSERT_TRUE(ran.waitFor(1));
    letMainTimersRun(0.2);
    EXPECT_EQ(ran.count(), 1);
}

TEST_F(TimerTest, CancelRacingWithFiringLeavesTheTimerIdle) {
    EventCounter ran;
    std::atomic<int> scheduled{0};
    std::thread scheduler([&] {
        for (int i = 0; i < 200; ++i) {
            if (timer->scheduleIfNotAlready(0.0, [&] { ran.record(); })) ++scheduled;
        }
    });
    std::thread canceller([&] {
        for (int i = 0; i < 200; ++i) timer->cancel();
    });
    scheduler.join();
    canceller.join();
    timer->cancel();
    letMainTimersRun(0.1);
    EXPECT_LE(ran.count(), scheduled.load());
    EXPECT_TRUE(timer->scheduleIfNotAlready(0.0, [] {}));
}

TEST_F(TimerTest, DestroyedTimerNeverRunsItsBlock) {
    EventCounter ran;
    auto sentinel = std::make_shared<int>(0);
    std::weak_ptr<int> sentinelAlive = sentinel;
    std::function<void()> block = [&ran, sentinel] { ran.record(); };
    sentinel.reset();

    // Destroyed before the main thread has seen the schedule, after it has armed the platform
    // timer, and on the main thread itself.
    auto early = TernSimpleTimer::make(logger);
    early->scheduleIfNotAlready(0.05, block);
    early.reset();

    auto armed = TernSimpleTimer::make(logger);
    armed->scheduleIfNotAlready(0.05, block);
    testEnv.onMainAndWait([] {});
    armed.reset();

    auto onMain = TernSimpleTimer::make(logger);
    onMain->scheduleIfNotAlready(0.05, block);
    testEnv.onMainAndWait([&] { onMain.reset(); });

    block = {};
    letMainTimersRun(0.3);
    EXPECT_EQ(ran.count(), 0);
    // Nothing keeps the blocks alive once their timers are gone.
    EXPECT_TRUE(sentinelAlive.expired());
}

TEST_F(TimerTest, SingleScheduleTimerSharesOnePendingSchedule) {
    TernSingleScheduleTimer single(timer);
    EventCounter ran;
    EXPECT_TRUE(single.scheduleIfNotAlready(0.05, [&] { ran.record(); }));
    EXPECT_FALSE(single.scheduleIfNotAlready(0.05, [&] { ran.record(); }));
    single.cancel();
    letMainTimersRun(0.3);
    EXPECT_EQ(ran.count(), 0);
    EXPECT_TRUE(single.scheduleIfNotAlready(0.01, [&] { ran.record(); }));
    EXPECT_TRUE(ran.waitFor(1));
}

TEST_F(TimerTest, ThreadUtilNeverRunsInlineAndUsesTheRightThreads) {
    TernThreadUtil threads;
    std::promise<bool> mainRanOnMain;
    std::promise<bool> backgroundRanOffMain;
    bool callerReturnedFirst = false;
    testEnv.onMainAndWait([&] {
        threads.runMain([&] {
            mainRanOnMain.set_value(testEnv.env().isMainThread() && callerReturnedFirst);
        });
        callerReturnedFirst = true;
    });
    threads.runBackground(
        [&] { backgroundRanOffMain.set_value(!testEnv.env().isMainThread()); });
    EXPECT_TRUE(mainRanOnMain.get_future().get());
    EXPECT_TRUE(backgroundRanOffMain.get_future().get());
}

}  // namespace
}  // namespace tern
