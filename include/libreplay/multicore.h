#ifndef LIBREPLAY_MULTICORE_H
#define LIBREPLAY_MULTICORE_H

// Console logging to the multicore logger service.
//
// Any thread may print short lines tagged with a one-byte console code. Lines
// are formatted into a fixed pool of small buffers and written to the logger's
// device in batches: when more than 200 lines are queued, or with the first
// line that arrives after the batch wait (500 ms by default) has passed, or on
// mi_flushBuffer(). Logging never blocks on the logger and never allocates;
// lines that cannot be placed are dropped and counted.
//
// Each console also has a debug level (0 to 3; -1 = use the default level), an
// optional input file below the logger's device tree, and processes can
// register "acline" commands through which an operator queries and changes
// their logging.

#include <cstdarg>

#include "libreplay/ReplayExport.h"

// --- Output -----------------------------------------------------------------

// Usable bytes of one line buffer (prefix, text and newline together).
constexpr int MI_MULTICORE_BUFFER_SIZE = 102;
// Number of line buffers in the pool.
constexpr int MI_CPP_SUPPORT_MAX_BUFFERS = 100;

// Line prefix flags of a console (mi_setConsoleFlags).
constexpr int MI_PREFIX_BOOT_TIME = 1;     // "SSSSS.mmm " since boot
constexpr int MI_PREFIX_PROCESS_NAME = 2;  // process name and a blank
constexpr int MI_PREFIX_THREAD = 4;        // "[tid] " or "[ name] "

// A buffer of mi_getMulticoreBufferSize() writable bytes, or null when all are
// in use. Hand it back with mi_multicoreLogBuffer.
REPLAY_API char* mi_getMulticoreBuffer();

// Queues `length` bytes of `buffer` (from mi_getMulticoreBuffer) on `console`.
// 1 when queued (or ignored for a length of 0), 0 when rejected.
REPLAY_API int mi_multicoreLogBuffer(int console, int length, char* buffer);

// Formats one line (a newline is added when missing) on `console` when the
// console's debug level admits `level`. 1 when the line was sent or filtered
// out, 0 when it was lost or cut to "DATA LOST".
REPLAY_API int mi_multicoreLog(int console, int level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
REPLAY_API int mi_multicoreLogV(int console, int level, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

// Writes the queued lines now.
REPLAY_API void mi_flushBuffer();

// Sets the MI_PREFIX_* flags of a console; returns the console code (8 bits).
REPLAY_API int mi_setConsoleFlags(int console, int flags);

// Sets the process name used in prefixes and reports. Only the pointer is kept
// (the text must outlive its use); longer names keep their last 9 characters;
// null uses the process id. Returns the stored length.
REPLAY_API int mi_setLogProcessName(const char* name);

// Names thread `tid` (0 = the calling thread) for the thread prefix. Threads
// are numbered per process from 1 (the main thread) in order of first use;
// only numbers up to 9 can carry a name. 1 when stored, 0 when ignored. The
// pointer is kept, not the text.
REPLAY_API int mi_setLogThreadName(int tid, const char* name);
REPLAY_API int mi_setLogMyThreadName(const char* name);

// Root of the logger's device tree ("/kfsystem/multicore" when null, the
// default). Only the pointer is kept. Changing it closes the output device so
// that the next batch opens the new path.
REPLAY_API void mi_setLogFileName(const char* root);
REPLAY_API const char* mi_getLogFileName();
REPLAY_API int mi_getLogFileNameLength();

// Sets the batch wait in ms (at most 5000); returns the largest wait, 5000.
REPLAY_API int mi_setBufferConfig(int ignored, int waitMs);
REPLAY_API int mi_getMulticoreBufferSize();
REPLAY_API bool mi_isValidConsole(int console);
REPLAY_API unsigned long mi_getLostPrintfErrorCount();

// Whether the logger service answers on its control device.
REPLAY_API bool mi_RTLoggerActive();

// --- Debug levels -----------------------------------------------------------

// The level of consoles without their own; 0 to 3 (1 = accepted, 0 = refused).
REPLAY_API int mi_setDefaultDebugLevel(int level);
REPLAY_API int mi_getDefaultDebugLevel();
// A console's own level, -1 to 3 (-1 returns it to the default).
REPLAY_API int mi_setDebugLevel(int console, int level);
REPLAY_API int mi_getDebugLevel(int console);
// True when a message of `level` on `console` is to be printed.
REPLAY_API bool mi_checkDebugLevel(int console, int level);

// --- Console input ----------------------------------------------------------

// The console's input descriptor, opened (non-blocking) on first use; -1 when
// it cannot be opened.
REPLAY_API int mi_getConsoleFD(int console);
// Reads from the console's input file. -1 for a bad buffer or length, when the
// file cannot be opened, or when another thread opened it; 0 when nothing is
// waiting.
REPLAY_API int mi_readConsole(int console, char* buffer, int length);
// Closes the console's input file; -1 when none is open.
REPLAY_API int mi_closeConsole(int console);

// --- acline commands --------------------------------------------------------

// Handles one command line; `commandLine` is null when the previous command is
// repeated. Returns a reply text or null.
typedef const char* (*acline_function)(const char* commandLine, int argument);

// Registers (name of at most 15 characters), replaces or, with a null handler,
// removes a command. 1 when stored, 0 when refused.
REPLAY_API int mi_aclineSetFunction(const char* name, acline_function handler, const char* help);

#endif
