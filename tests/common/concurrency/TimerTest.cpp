#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/util/TernSimpleTimer.hpp"
#include "Common/util/TernSingleScheduleTimer.hpp"
#include "Common/util/TernThreadUtil.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/support/CompletionRecorder.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using namespace std::chrono_literals;
using Runs = vontu::testing::CompletionRecorder<int>;

std::function<void()> noting(Runs& runs) { return [note = runs.completion()] { note(1); }; }

class TimerTest : public ::testing::Test {
protected:
    // Waits until a main-thread timer of `seconds`, started now, has fired: main-thread timers
    // fire in the order of their deadlines, so any armed earlier with a shorter delay has too.
    void letMainTimersRun(double seconds) {
        auto fired = std::make_shared<std::promise<void>>();
        testEnv.env().scheduleOnMain(seconds, [fired] { fired->set_value(); });
        ASSERT_EQ(fired->get_future().wait_for(10s), std::future_status::ready);
    }

    vontu::testing::TestEnv testEnv;
    std::shared_ptr<TernSimpleTimer> timer =
        TernSimpleTimer::make(std::make_shared<testing::RecordingLogger>());
};

TEST_F(TimerTest, CancelledScheduleNeverRunsAndTheTimerCanBeUsedAgainEvenFromItsBlock) {
    TernSingleScheduleTimer single(timer);
    Runs cancelled, rescheduled, ran;
    EXPECT_TRUE(single.scheduleIfNotAlready(0.05, noting(cancelled)));
    EXPECT_FALSE(single.scheduleIfNotAlready(0.01, noting(cancelled)));  // one pending at a time
    single.cancel();
    letMainTimersRun(0.3);
    EXPECT_EQ(cancelled.calls(), 0);
    // Firing resets the timer before its block runs, so the block may schedule it again.
    EXPECT_TRUE(single.scheduleIfNotAlready(0.01, [&, said = rescheduled.completion()] {
        said(single.scheduleIfNotAlready(0.01, noting(ran)));
    }));
    EXPECT_EQ(rescheduled.await(), 1);
    EXPECT_TRUE(ran.await());
}

// Only the newest block runs; a direct schedule does not count as pending.
TEST_F(TimerTest, ScheduleAndCancelPreviousRunsOnlyTheNewestBlock) {
    Runs older, newest, direct, pending;
    timer->scheduleIfNotAlready(0.05, noting(older));
    timer->scheduleAndCancelPrevious(0.15, noting(newest));
    ASSERT_TRUE(newest.await());
    timer->scheduleAndCancelPrevious(0.05, noting(direct));
    EXPECT_TRUE(timer->scheduleIfNotAlready(0.1, noting(pending)));
    ASSERT_TRUE(pending.await());
    letMainTimersRun(0.3);
    EXPECT_EQ(older.calls() + newest.calls() + direct.calls(), 1);
}

TEST_F(TimerTest, FromManyThreadsOneScheduleWinsAndCancelsRacingWithFiringLeaveItIdle) {
    Runs ran;
    std::atomic<int> scheduled{0};
    auto schedule = [&](double seconds, int n) {
        for (int i = 0; i < n; ++i) scheduled += timer->scheduleIfNotAlready(seconds, noting(ran));
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) threads.emplace_back(schedule, 0.05, 50);
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(scheduled.load(), 1);
    ASSERT_TRUE(ran.await());
    letMainTimersRun(0.2);
    EXPECT_EQ(ran.calls(), 1);

    std::thread canceller([&] {
        for (int i = 0; i < 200; ++i) timer->cancel();
    });
    schedule(0.0, 200);
    canceller.join();
    timer->cancel();
    letMainTimersRun(0.2);
    EXPECT_LE(ran.calls(), scheduled.load());
    EXPECT_TRUE(timer->scheduleIfNotAlready(0.0, [] {}));
}

// Destroyed before the main thread has seen the schedule, after it has armed the platform
// timer, and on the main thread itself.
TEST_F(TimerTest, DestroyedTimerNeverRunsItsBlock) {
    Runs ran;
    auto sentinel = std::make_shared<int>(0);
    std::weak_ptr<int> sentinelAlive = sentinel;
    for (int when = 0; when < 3; ++when) {
        auto doomed = TernSimpleTimer::make(std::make_shared<testing::RecordingLogger>());
        doomed->scheduleIfNotAlready(0.05, [note = noting(ran), sentinel] { note(); });
        if (when == 1) testEnv.onMainAndWait([] {});
        if (when == 2) testEnv.onMainAndWait([&] { doomed.reset(); });
    }
    sentinel.reset();
    letMainTimersRun(0.3);
    EXPECT_EQ(ran.calls(), 0);
    EXPECT_TRUE(sentinelAlive.expired());  // nothing keeps the blocks alive
}

TEST_F(TimerTest, ThreadUtilNeverRunsInlineAndUsesTheRightThreads) {
    TernThreadUtil threads;
    std::promise<bool> onMain, offMain;
    bool callerReturned = false;
    testEnv.onMainAndWait([&] {
        threads.runMain([&] { onMain.set_value(testEnv.env().isMainThread() && callerReturned); });
        callerReturned = true;
    });
    threads.runBackground([&] { offMain.set_value(!testEnv.env().isMainThread()); });
    EXPECT_TRUE(onMain.get_future().get());
    EXPECT_TRUE(offMain.get_future().get());
}

}  // namespace
}  // namespace tern
