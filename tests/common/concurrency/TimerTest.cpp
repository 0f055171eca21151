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

// Counts runs of a block from any thread and lets the test wait for a count.
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
    std::string line(const std::string& message) {
        return "Timer (" + timer->instanceIdentifier() + ") " + message;
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

TEST_F(TimerTest, SecondScheduleIsSkippedAndOnlyTheFirstBlockRuns) {
    EventCounter first, second;
    EXPECT_TRUE(timer->scheduleIfNotAlready(0.05, [&] { first.record(); }));
    EXPECT_FALSE(timer->scheduleIfNotAlready(0.05, [&] { second.record(); }));
    EXPECT_TRUE(logger->waitForMessage(line("already scheduled to run. Skipping request.")));
    ASSERT_TRUE(first.waitFor(1));
    letMainTimersRun(0.3);
    EXPECT_EQ(first.count(), 1);
    EXPECT_EQ(second.count(), 0);
    EXPECT_TRUE(logger->waitForMessage(line("making a timer for 0.05 seconds.")));
    for (const auto& l : logger->lines()) EXPECT_EQ(l.level, RecordingLogger::Level::debug);
}

TEST_F(TimerTest, FiringResetsBeforeTheBlockSoItMayScheduleAgain) {
    std::promise<std::pair<bool, bool>> inBlock;  // reset logged first, rescheduled
    EventCounter again;
    timer->scheduleIfNotAlready(0.01, [&] {
        const auto lines = logger->messages(RecordingLogger::Level::debug);
        const bool resetLogged = !lines.empty() && lines.back() == line("timer is done! It's been reset.");
        inBlock.set_value({resetLogged, timer->scheduleIfNotAlready(0.01, [&] { again.record(); })});
    });
    auto result = inBlock.get_future();
    ASSERT_EQ(result.wait_for(generousDeadline), std::future_status::ready);
    EXPECT_EQ(result.get(), std::pair(true, true));
    EXPECT_TRUE(again.waitFor(1));
}

TEST_F(TimerTest, CancelledScheduleNeverRunsAndTheTimerCanBeUsedAgain) {
    timer->cancel();  // idle: logged, harmless
    EXPECT_TRUE(logger->waitForMessage(line("timer is being cancelled")));
    // The single-schedule timer shares the simple timer's one pending schedule.
    TernSingleScheduleTimer single(timer);
    EventCounter cancelled, ran;
    EXPECT_TRUE(single.scheduleIfNotAlready(0.05, [&] { cancelled.record(); }));
    EXPECT_FALSE(single.scheduleIfNotAlready(0.05, [&] { cancelled.record(); }));
    single.cancel();
    letMainTimersRun(0.3);
    EXPECT_EQ(cancelled.count(), 0);
    EXPECT_TRUE(single.scheduleIfNotAlready(0.01, [&] { ran.record(); }));
    EXPECT_TRUE(ran.waitFor(1));
}

TEST_F(TimerTest, ScheduleAndCancelPreviousRunsOnlyTheNewestBlockAndLeavesTheTimerIdle) {
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

    // A direct schedule does not count as pending: the next schedule replaces it.
    EventCounter direct, replacing;
    timer->scheduleAndCancelPrevious(0.05, [&] { direct.record(); });
    EXPECT_TRUE(timer->scheduleIfNotAlready(0.1, [&] { replacing.record(); }));
    ASSERT_TRUE(replacing.waitFor(1));
    letMainTimersRun(0.3);
    EXPECT_EQ(older.count(), 0);
    EXPECT_EQ(newest.count(), 1);
    EXPECT_EQ(direct.count(), 0);
}

TEST_F(TimerTest, FromManyThreadsOneScheduleWinsAndCancelsRacingWithFiringLeaveItIdle) {
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
    letMainTimersRun(0.2);
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
    EXPECT_TRUE(sentinelAlive.expired());  // nothing keeps the blocks alive
}

TEST_F(TimerTest, ThreadUtilNeverRunsInlineAndUsesTheRightThreads) {
    TernThreadUtil threads;
    std::promise<bool> mainRanOnMain, backgroundRanOffMain;
    bool callerReturnedFirst = false;
    testEnv.onMainAndWait([&] {
        threads.runMain([&] {
            mainRanOnMain.set_value(testEnv.env().isMainThread() && callerReturnedFirst);
        });
        callerReturnedFirst = true;
    });
    threads.runBackground([&] { backgroundRanOffMain.set_value(!testEnv.env().isMainThread()); });
    EXPECT_TRUE(mainRanOnMain.get_future().get());
    EXPECT_TRUE(backgroundRanOffMain.get_future().get());
}

}  // namespace
}  // namespace tern
