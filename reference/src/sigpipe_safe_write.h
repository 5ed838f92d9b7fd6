#ifndef REFERENCE_SRC_SIGPIPE_SAFE_WRITE_H
#define REFERENCE_SRC_SIGPIPE_SAFE_WRITE_H

#include <sys/types.h>
#include <sys/uio.h>

namespace ReplayPlatform {

// writev() that never raises SIGPIPE in the host application: a write to a
// FIFO whose reader (the logger service) has gone fails with EPIPE instead of
// killing the process. SIGPIPE is blocked in the calling thread for the call
// and a SIGPIPE caused by it is consumed before the mask is restored.
ssize_t WritevWithoutSigpipe(int fd, const struct iovec* vector, int count);

}  // namespace ReplayPlatform

#endif
