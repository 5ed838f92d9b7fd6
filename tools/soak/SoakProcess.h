#ifndef TOOLS_SOAK_SOAKPROCESS_H
#define TOOLS_SOAK_SOAKPROCESS_H

// The child processes of a soak run, and their memory. Each child gets
// SIGKILL when the soak program dies, so not even a killed soak leaves
// processes behind.

#include <sys/types.h>

#include "support/ChildProcess.h"

namespace ReplaySoak {

using ReplaySupport::ChildProcess;
using ReplaySupport::RunCommand;

// Resident set size of a process in KB from /proc; -1 when it has gone.
long ResidentKb(pid_t pid);

}  // namespace ReplaySoak

#endif
