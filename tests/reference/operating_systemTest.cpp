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

// Counts its runs and, when asked to, holds execute() until released.
class GateThread : public CThread {
  public:
    explicit GateThread(bool holdUntilReleased, int stackSize = 0)
        : CThread(stackSize, 10, "gate"), m_hold(holdUntilReleased) {}
    ~GateThread() override { Release(); }

    void Release() { m_release.store(true); }
    int Runs() const { return m_runs.load(); }
    pthread_t SeenId() const { return m_seenId.load(); }
    bool SawRunning() const { return m_sawRunning.load(); }

  protected:
    void execute() override {
        m_seenId.store(getCurrentID());
        m_sawRunning.store(isRunning());
        m_runs.fetch_add(1);
        while (m_hold && !m_release.load()) {
            sleep(1);
        }
    }

  private:
    const bool m_hold;
    std::atomic<bool> m_release{false};
    std::atomic<int> m_runs{0};
    std::atomic<pthread_t> m_seenId{CThread::INVALID_THREAD_ID};
    std::atomic<bool> m_sawRunning{false};
};

TEST(CThreadTest, StartJoinAndRestartFollowTheThreadsLife) {
    GateThread thread(true);
    EXPECT_FALSE(thread.join());
    ASSERT_TRUE(thread.start());
    const pthread_t id = thread.getThreadId();
    EXPECT_TRUE(thread.start());  // running: no second thread
    ASSERT_TRUE(WaitFor([&] { return thread.Runs() == 1; }, std::chrono::seconds(10)));
    EXPECT_EQ(thread.SeenId(), id);
    EXPECT_NE(thread.SeenId(), CThread::getCurrentID());
    EXPECT_TRUE(thread.SawRunning());
    thread.Release();

    // A finished thread clears its id, is joined once, and can start again.
    ASSERT_TRUE(WaitFor([&] { return thread.getThreadId() == CThread::INVALID_THREAD_ID; },
                        std::chrono::seconds(10)));
    EXPECT_FALSE(thread.isRunning());
    EXPECT_TRUE(thread.join());
    EXPECT_FALSE(thread.join());
    ASSERT_TRUE(thread.start());
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(thread.Runs(), 2);
}

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

TEST(CPipeTest, EndsStayBlockingCarryDataAndCloseSelectively) {
    CPipe pipe;
    char unopened;
    EXPECT_EQ(pipe.read(&unopened, 1), -1);
    ASSERT_TRUE(pipe.open(true, true));
    const int readFd = pipe.getReadDescriptor();
    const int writeFd = pipe.getWriteDescriptor();
    // The request for non-blocking ends does not switch them.
    EXPECT_EQ(fcntl(readFd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(writeFd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(pipe.write("record", 6), 6);
    char buffer[8] = {};
    EXPECT_EQ(pipe.read(buffer, sizeof buffer), 6);
    EXPECT_STREQ(buffer, "record");

    pipe.close(CPipe::eRead);
    EXPECT_EQ(pipe.getReadDescriptor(), -1);
    EXPECT_FALSE(DescriptorOpen(readFd));
    EXPECT_TRUE(DescriptorOpen(writeFd));
    pipe.close(CPipe::eBoth);
    EXPECT_FALSE(DescriptorOpen(writeFd));
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
