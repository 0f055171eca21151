#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/util/Atomic.hpp"
#include "Common/util/LockManager.hpp"

namespace tern {
namespace {

TEST(LockManagerTest, SameReferenceGivesTheIdenticalLock) {
    LockManager manager;
    auto queueLock = manager.getLock(LockReference::queueStorage);
    EXPECT_EQ(manager.getLock(LockReference::queueStorage), queueLock);
    EXPECT_NE(manager.getLock(LockReference::singleScheduleTimer), queueLock);
    EXPECT_NE(LockManager().getLock(LockReference::queueStorage), queueLock);
}

TEST(LockManagerTest, CallersOnManyThreadsGetOneLock) {
    LockManager manager;
    std::vector<std::shared_ptr<Lock>> seen(8);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < seen.size(); ++t) {
        threads.emplace_back([&, t] { seen[t] = manager.getLock(LockReference::queueStorage); });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(std::set<std::shared_ptr<Lock>>(seen.begin(), seen.end()).size(), 1u);
}

TEST(LockTest, IsRecursiveAndExcludesOtherThreads) {
    auto lock = Lock::unsafeInit();
    int counter = 0;
    auto work = [&] {
        for (int i = 0; i < 1000; ++i) {
            std::lock_guard outer(*lock);
            std::lock_guard inner(*lock);  // the same thread takes it again
            ++counter;
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(counter, 2000);
}

TEST(AtomicTest, ReadsAndWritesFromManyThreads) {
    Atomic<std::vector<int>> values(std::vector<int>{});
    Atomic<int> counter(0);
    auto lock = Lock::unsafeInit();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                values.setWrappedValue(std::vector<int>(static_cast<std::size_t>(t), i));
                EXPECT_LE(values.wrappedValue().size(), 7u);
                // A read followed by a write is two steps: the lock makes the increment whole.
                std::lock_guard guard(*lock);
                counter.setWrappedValue(counter.wrappedValue() + 1);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter.wrappedValue(), 1600);
}

}  // namespace
}  // namespace tern
