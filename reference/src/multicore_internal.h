#ifndef REFERENCE_SRC_MULTICORE_INTERNAL_H
#define REFERENCE_SRC_MULTICORE_INTERNAL_H

// Internals shared by the output side (multicore_buffers.cpp) and the console
// side (multicore_console.cpp) of the multicore logging interface.

#include <atomic>

#include "libreplay/multicore.h"

// The interface's three locks. Never two of them are held at once.
enum miInternal_lock_id {
    WRITE_BUFFER_lock = 0,  // write vector and output device
    CPP_BUFFERS_lock = 1,   // buffer pool states
    ACLINE_TABLE_lock = 2,  // acline command table
};

// Returns 0 with the lock held; any other value is the error, and the lock is
// not held.
int miInternal_Lock(int id);
void miInternal_Unlock(int id);

// Milliseconds since boot.
unsigned long long miInternal_getTimeMs();
// `tid`, or the calling thread's number when 0.
int miInternal_getTid(int tid);

// Pool index of a buffer handed out by mi_getMulticoreBuffer, or -1.
int miInternal_getBufferIdx(const char* buffer);
void miInternal_freeQueuedBufferes();

// The process name (the process id when none was set) and its length.
const char* miInternal_getLogProcessName();
int miInternal_getLogProcessNameLn();
// The name as set, or null when none was set.
const char* miInternal_getStoredLogProcessName();

// Prints the pool constants / the pool statistics on console '0'.
void miInternal_cppConfig();
void miInternal_cppStats();
void miInternal_dumpCheckLockTable();

// Counters of the output device, shown by the "Cout-stats" command.
struct miInternal_OutputCounters {
    unsigned long openCount;
    unsigned long writeCount;
    unsigned long openErrors;
    unsigned long writeErrors;
    unsigned long writeIgnoredCount;
    unsigned long badWriteVectorEntries;
    unsigned long lostPrintfCount;
};
miInternal_OutputCounters miInternal_getOutputCounters();

// Console input.
int miInternal_closeReadConsole(int console);
void miInternal_closeConsoleFD(int fd);

// acline interpreter: dispatches one command line (null repeats the previous
// command) and returns the handler's reply, or an error text.
const char* miInternal_aclineMain(const char* commandLine, int argument);
void miInternal_setInternalACLineFuntions();

// --- Test support -----------------------------------------------------------

// Replaces the boot clock (null restores it).
typedef unsigned long long (*miInternal_TimeSource)();
void miInternal_setTimeSourceForTesting(miInternal_TimeSource source);

// Returns the whole interface to its initial state: closes every descriptor,
// frees the pool, clears counters, levels, names and the command table. Only
// while no other thread uses the interface.
void miInternal_resetForTesting();
void miInternal_resetOutputForTesting();
void miInternal_resetConsolesForTesting();

#endif
