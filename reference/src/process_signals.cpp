#include "reference/src/process_signals.h"

#include <pthread.h>
#include <time.h>

#include <cerrno>

namespace ReplayPlatform {

namespace {

sigset_t StopSignals() {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    return stopSignals;
}

}  // namespace

void BlockStopSignals() {
    const sigset_t stopSignals = StopSignals();
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    IgnoreSignal(SIGPIPE);
}

bool WaitForStopSignal(int timeoutMs) {
    const sigset_t stopSignals = StopSignals();
    for (;;) {
        int received;
        if (timeoutMs < 0) {
            received = sigwaitinfo(&stopSignals, nullptr);
        } else {
            const timespec wait = {timeoutMs / 1000, (timeoutMs % 1000) * 1000L * 1000L};
            received = sigtimedwait(&stopSignals, nullptr, &wait);
        }
        if (received == SIGINT || received == SIGTERM) {
            return true;
        }
        // A wait interrupted by another signal waits again only when it has
        // no end; a timed wait returns so that the caller's loop decides.
        if (received < 0 && errno == EINTR && timeoutMs < 0) {
            continue;
        }
        return false;
    }
}

bool BlockSignal(int signalNumber, sigset_t& mask) {
    sigemptyset(&mask);
    sigaddset(&mask, signalNumber);
    return pthread_sigmask(SIG_BLOCK, &mask, nullptr) == 0;
}

bool UnblockSignals(const sigset_t& mask) {
    return pthread_sigmask(SIG_UNBLOCK, &mask, nullptr) == 0;
}

void IgnoreSignal(int signalNumber) {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(signalNumber, &ignore, nullptr);
}

}  // namespace ReplayPlatform
