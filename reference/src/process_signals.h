#ifndef REFERENCE_SRC_PROCESS_SIGNALS_H
#define REFERENCE_SRC_PROCESS_SIGNALS_H

// Signal masks and waits for the programs' main threads and the client.

#include <signal.h>

namespace ReplayPlatform {

// Blocks SIGINT and SIGTERM in the calling thread, so that the threads it
// starts afterwards inherit the mask and only WaitForStopSignal sees them,
// and ignores SIGPIPE: a write to a closed socket or pipe then fails with
// EPIPE instead of ending the process.
void BlockStopSignals();
// Waits for SIGINT or SIGTERM, at most `timeoutMs` (negative: without end).
// True when one arrived.
bool WaitForStopSignal(int timeoutMs);

// Sets `mask` to hold just `signalNumber` and blocks it in the calling thread
// (and in the threads it starts afterwards).
bool BlockSignal(int signalNumber, sigset_t& mask);
// Unblocks the signals in `mask` in the calling thread.
bool UnblockSignals(const sigset_t& mask);
void IgnoreSignal(int signalNumber);

}  // namespace ReplayPlatform

#endif
