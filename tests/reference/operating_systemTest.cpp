#include "reference/src/operating_system.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

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

bool DescriptorOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// When no pipe can be made the object loses the descriptors it held.
TEST(CPipeTest, FailedOpenClosesTheDescriptorsHeldBefore) {
    CPipe pipe;
    ASSERT_TRUE(pipe.open(true, true));
    const int readFd = pipe.getReadDescriptor();
    const int writeFd = pipe.getWriteDescriptor();

    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit lowered = saved;
    lowered.rlim_cur = static_cast<rlim_t>(writeFd > readFd ? writeFd : readFd) + 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    std::vector<int> fillers;  // take every free descriptor below the limit
    for (int fd = dup(readFd); fd != -1; fd = dup(readFd)) {
        fillers.push_back(fd);
    }
    const bool opened = pipe.open(true, true);
    for (int fd : fillers) {
        ::close(fd);
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);

    EXPECT_FALSE(opened);
    EXPECT_EQ(pipe.getReadDescriptor(), -1);
    EXPECT_EQ(pipe.getWriteDescriptor(), -1);
    EXPECT_FALSE(DescriptorOpen(readFd));
    EXPECT_FALSE(DescriptorOpen(writeFd));
}

}  // namespace
