#include "reference/src/operating_system.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/support/TestSupport.h"

namespace {

using Clock = std::chrono::steady_clock;
using ReplayTest::WaitFor;

TEST(CBinarySemaphoreTest, LockWaitsForAnUnlockAndTimedLockTimesOut) {
    CBinarySemaphore semaphore;
    EXPECT_FALSE(semaphore.lock(false));  // starts at 0
    std::atomic<bool> acquired{false};
    std::thread waiter([&] {
        semaphore.lock(true);
        acquired.store(true);
    });
    EXPECT_TRUE(semaphore.unlock());
    EXPECT_TRUE(WaitFor([&] { return acquired.load(); }, std::chrono::seconds(10)));
    waiter.join();

    auto before = Clock::now();
    EXPECT_FALSE(semaphore.timedlock(-5));
    EXPECT_LT(Clock::now() - before, std::chrono::milliseconds(100));
    before = Clock::now();
    EXPECT_FALSE(semaphore.timedlock(1150));  // crosses a second boundary
    const auto waited = Clock::now() - before;
    EXPECT_GE(waited, std::chrono::milliseconds(1140));
    EXPECT_LT(waited, std::chrono::milliseconds(5000));
}

}  // namespace
