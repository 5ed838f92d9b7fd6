// Preloaded, moves the wall clock by the seconds in the file named by
// REPLAY_WALL_CLOCK_OFFSET_FILE (read at most every 10 ms).

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr int64_t kRereadNs = 10 * 1000 * 1000;

std::atomic<int64_t> g_offsetSeconds{0};
std::atomic<int64_t> g_nextReadNs{0};

// The system call itself: the shim replaces the library's entry points.
int RealClock(clockid_t id, timespec* now) {
    return static_cast<int>(syscall(SYS_clock_gettime, id, now));
}

int64_t OffsetSeconds() {
    timespec now;
    if (RealClock(CLOCK_MONOTONIC, &now) != 0) {
        return g_offsetSeconds.load(std::memory_order_relaxed);
    }
    const int64_t nowNs = static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
    if (nowNs >= g_nextReadNs.load(std::memory_order_relaxed)) {
        g_nextReadNs.store(nowNs + kRereadNs, std::memory_order_relaxed);
        const char* path = getenv("REPLAY_WALL_CLOCK_OFFSET_FILE");
        const int fd = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
        if (fd >= 0) {
            char text[32] = {};
            const ssize_t got = read(fd, text, sizeof text - 1);
            close(fd);
            if (got > 0) {
                g_offsetSeconds.store(strtoll(text, nullptr, 10), std::memory_order_relaxed);
            }
        }
    }
    return g_offsetSeconds.load(std::memory_order_relaxed);
}

bool IsWallClock(clockid_t id) {
    return id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t id, timespec* now) noexcept {
    const int result = RealClock(id, now);
    if (result == 0 && IsWallClock(id)) {
        now->tv_sec += static_cast<time_t>(OffsetSeconds());
    }
    return result;
}

__attribute__((visibility("default"))) int gettimeofday(timeval* now, void* /*zone*/) noexcept {
    timespec wall;
    if (clock_gettime(CLOCK_REALTIME, &wall) != 0) {
        return -1;
    }
    now->tv_sec = wall.tv_sec;
    now->tv_usec = wall.tv_nsec / 1000;
    return 0;
}

__attribute__((visibility("default"))) time_t time(time_t* result) noexcept {
    timespec wall;
    if (clock_gettime(CLOCK_REALTIME, &wall) != 0) {
        return static_cast<time_t>(-1);
    }
    if (result != nullptr) {
        *result = wall.tv_sec;
    }
    return wall.tv_sec;
}

}  // extern "C"
