#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/util/Atomic.hpp"
#include "Common/util/LockManager.hpp"

namespace tern {
namespace {

TEST(LockManagerTest, OneLockPerReferenceAndManagerEvenFromManyThreads) {
    LockManager manager;
    std::vector<std::shared_ptr<Lock>> seen(8);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < seen.size(); ++t) {
        threads.emplace_back([&, t] { seen[t] = manager.getLock(LockReference::queueStorage); });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(std::set(seen.begin(), seen.end()).size(), 1u);
    EXPECT_NE(manager.getLock(LockReference::singleScheduleTimer), seen[0]);
    EXPECT_NE(LockManager().getLock(LockReference::queueStorage), seen[0]);
}

TEST(LockTest, IsRecursiveAndMakesAtomicReadModifyWritesWhole) {
    auto lock = Lock::unsafeInit();
    Atomic<std::vector<int>> values(std::vector<int>{});
    Atomic<int> counter(0);
    auto work = [&](int t) {
        for (int i = 0; i < 500; ++i) {
            values.setWrappedValue(std::vector<int>(static_cast<std::size_t>(t), i));
            EXPECT_LE(values.wrappedValue().size(), 3u);
            std::lock_guard outer(*lock);
            std::lock_guard inner(*lock);  // the same thread takes it again
            counter.setWrappedValue(counter.wrappedValue() + 1);
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(work, t);
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter.wrappedValue(), 2000);
}

}  // namespace
}  // namespace tern
