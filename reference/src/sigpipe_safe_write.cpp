#include "reference/src/sigpipe_safe_write.h"

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <cerrno>

namespace ReplayPlatform {

ssize_t WritevWithoutSigpipe(int fd, const struct iovec* vector, int count) {
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);

    // A SIGPIPE already pending for this thread belongs to the application.
    sigset_t pending;
    sigpending(&pending);
    const bool alreadyPending = sigismember(&pending, SIGPIPE) == 1;

    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &pipeSignal, &previous);
    const ssize_t result = writev(fd, vector, count);
    const int writeError = errno;
    if (result < 0 && writeError == EPIPE && !alreadyPending) {
        const timespec noWait = {0, 0};
        while (sigtimedwait(&pipeSignal, nullptr, &noWait) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    errno = writeError;
    return result;
}

}  // namespace ReplayPlatform
