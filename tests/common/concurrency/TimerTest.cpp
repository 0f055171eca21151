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

// Counts runs of a block from any thread and lets the test wait for the first.
struct EventCounter {
    void record() {
        std::lock_guard guard(mutex);  // notifies under it: the waiter may destroy the counter
        ++count;
        changed.notify_all();
    }
    int value() {
        std::lock_guard guard(mutex);
        return count;
    }
    bool waitForOne() {
        std::unique_lock guard(mutex);
        return changed.wait_for(guard, generousDeadline, [&] { return count >= 1; });
    }
    std::mutex mutex;
    std::condition_variable changed;
    int count = 0;
};

class TimerTest : public ::testing::Test {
protected:
    std::string line(const std::string& message) {
        return "Timer (" + timer->instanceIdentifier() + ") " + message;
    }

    // Waits until a main-thread timer of `seconds`, started now, has fired: main-thread timers
    // fire in the order of their deadlines, so any armed earlier with a shorter delay has too.
    void letMainTimersRun(double seconds) {
        auto fired = std::make_shared<std::promise<void>>();
        testEnv.env().scheduleOnMain(seconds, [fired] { fired->set_value(); });
        ASSERT_EQ(fired->get_future().wait_for(generousDeadline), std::future_status::ready);
    }

    vontu::testing::TestEnv testEnv;
    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<TernSimpleTimer> timer = TernSimpleTimer::make(logger);
};

TEST_F(TimerTest, SecondScheduleIsSkippedAndOnlyTheFirstBlockRuns) {
    EventCounter first, second;
    EXPECT_TRUE(timer->scheduleIfNotAlready(0.05, [&] { first.record(); }));
    EXPECT_FALSE(timer->scheduleIfNotAlready(0.05, [&] { second.record(); }));
    ASSERT_TRUE(first.waitForOne());
    letMainTimersRun(0.3);
    EXPECT_EQ(first.value(), 1);
    EXPECT_EQ(second.value(), 0);
    EXPECT_TRUE(logger->waitForMessage(line("already scheduled to run. Skipping request.")));
    for (const auto& l : logger->lines()) EXPECT_EQ(l.level, RecordingLogger::Level::debug);
}

TEST_F(TimerTest, FiringResetsBeforeTheBlockSoItMayScheduleAgain) {
    std::promise<std::pair<bool, bool>> inBlock;  // reset logged first, rescheduled
    EventCounter again;
    timer->scheduleIfNotAlready(0.01, [&] {
        const auto lines = logger->messages(RecordingLogger::Level::debug);
        const bool reset = lines.size() && lines.back() == line("timer is done! It's been reset.");
        inBlock.set_value({reset, timer->scheduleIfNotAlready(0.01, [&] { again.record(); })});
    });
    auto result = inBlock.get_future();
    ASSERT_EQ(result.wait_for(generousDeadline), std::future_status::ready);
    EXPECT_EQ(result.get(), std::pair(true, true));
    EXPECT_TRUE(again.waitForOne());
}

TEST_F(TimerTest, CancelledScheduleNeverRunsAndTheTimerCanBeUsedAgain) {
    timer->cancel();  // idle: logged, harmless
    EXPECT_TRUE(logger->waitForMessage(line("timer is being cancelled")));
    TernSingleScheduleTimer single(timer);  // shares the simple timer's one pending schedule
    EventCounter cancelled, ran;
    EXPECT_TRUE(single.scheduleIfNotAlready(0.05, [&] { cancelled.record(); }));
    EXPECT_FALSE(single.scheduleIfNotAlready(0.05, [&] { cancelled.record(); }));
    single.cancel();
    letMainTimersRun(0.3);
    EXPECT_EQ(cancelled.value(), 0);
    EXPECT_TRUE(single.scheduleIfNotAlready(0.01, [&] { ran.record(); }));
    EXPECT_TRUE(ran.waitForOne());
}

// The newest block runs after its own delay; a direct schedule does not count as pending.
TEST_F(TimerTest, ScheduleAndCancelPreviousRunsOnlyTheNewestBlockAndLeavesTheTimerIdle) {
    EventCounter older, newest, direct, replacing;
    timer->scheduleIfNotAlready(0.05, [&] { older.record(); });
    const auto replacedAt = std::chrono::steady_clock::now();
    timer->scheduleAndCancelPrevious(0.15, [&] { newest.record(); });
    ASSERT_TRUE(newest.waitForOne());
    EXPECT_GE(std::chrono::steady_clock::now() - replacedAt, 150ms);
    timer->scheduleAndCancelPrevious(0.05, [&] { direct.record(); });
    EXPECT_TRUE(timer->scheduleIfNotAlready(0.1, [&] { replacing.record(); }));
    ASSERT_TRUE(replacing.waitForOne());
    letMainTimersRun(0.3);
    EXPECT_EQ(older.value() + newest.value() + direct.value(), 1);
}

TEST_F(TimerTest, FromManyThreadsOneScheduleWinsAndCancelsRacingWithFiringLeaveItIdle) {
    EventCounter ran;
    std::atomic<int> scheduled{0};
    auto schedule = [&](double seconds, int times) {
        for (int i = 0; i < times; ++i) {
            if (timer->scheduleIfNotAlready(seconds, [&] { ran.record(); })) ++scheduled;
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) threads.emplace_back(schedule, 0.05, 50);
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(scheduled.load(), 1);
    ASSERT_TRUE(ran.waitForOne());
    letMainTimersRun(0.2);
    EXPECT_EQ(ran.value(), 1);

    std::thread scheduler(schedule, 0.0, 200);
    std::thread canceller([&] {
        for (int i = 0; i < 200; ++i) timer->cancel();
    });
    scheduler.join();
    canceller.join();
    timer->cancel();
    letMainTimersRun(0.2);
    EXPECT_LE(ran.value(), scheduled.load());
    EXPECT_TRUE(timer->scheduleIfNotAlready(0.0, [] {}));
}

// Destroyed before the main thread has seen the schedule, after it has armed the platform
// timer, and on the main thread itself.
TEST_F(TimerTest, DestroyedTimerNeverRunsItsBlock) {
    EventCounter ran;
    auto sentinel = std::make_shared<int>(0);
    std::weak_ptr<int> sentinelAlive = sentinel;
    std::function<void()> block = [&ran, sentinel] { ran.record(); };
    sentinel.reset();
    for (int when = 0; when < 3; ++when) {
        auto doomed = TernSimpleTimer::make(logger);
        doomed->scheduleIfNotAlready(0.05, block);
        if (when == 1) testEnv.onMainAndWait([] {});
        if (when == 2) testEnv.onMainAndWait([&] { doomed.reset(); });
        doomed.reset();
    }
    block = {};
    letMainTimersRun(0.3);
    EXPECT_EQ(ran.value(), 0);
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
