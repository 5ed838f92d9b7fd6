// Output side of the multicore logging interface: the pool of line buffers,
// the write vector and its batches, the output device, names and statistics.

#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "reference/src/multicore_internal.h"
#include "reference/src/sigpipe_safe_write.h"
#include "reference/src/system_log.h"
#include "libreplay/server/TargetRoot.h"

using ReplayPlatform::SystemLog;

namespace {

// Buffer states.
constexpr uint32_t FREE = 0;
constexpr uint32_t BUSY = 1;    // handed to a writer
constexpr uint32_t QUEUED = 2;  // in the write vector (or waiting to be freed by the next batch)
constexpr uint32_t INVALID = 3;

constexpr uint32_t kEndMarker = 0x12345678;
constexpr int kWriteVectorSize = 202;
constexpr int kBatchEntries = 200;  // a batch is written when more lines are queued
constexpr int kInitialMaxWaitMs = 500;
constexpr int kLargestMaxWaitMs = 5000;
constexpr int kWriteAttempts = 10;
constexpr int kHistogramSize = 104;
constexpr int kNamedThreads = 10;
constexpr size_t kProcessNameMax = 9;
constexpr size_t kOutputRootLimit = 53;    // roots of this length or more are refused
constexpr size_t kRtLoggerRootLimit = 57;  // likewise for the control device
constexpr int kConsoles = 256;
constexpr int kDataIdx = 2;  // the data follows the console code and the length byte

// One line buffer. Console code, length and data are contiguous: together they
// are the record on the wire, written straight from the pool.
struct OutputBuffer {
    // Written under different locks (pool scan, write vector), hence atomic;
    // release/acquire hands the data over between writer and batch.
    std::atomic<uint32_t> state;
    unsigned char console;
    unsigned char length;
    char buffer[MI_MULTICORE_BUFFER_SIZE];
    uint32_t endMarker;
};
static_assert(offsetof(OutputBuffer, buffer) == offsetof(OutputBuffer, console) + kDataIdx,
              "record layout: console code, length, data");

OutputBuffer outputBuffers[MI_CPP_SUPPORT_MAX_BUFFERS];

// Guarded by WRITE_BUFFER_lock.
iovec writeVector[kWriteVectorSize];
int writeVectorEntries = 0;
size_t writeVectorTotalLength = 0;
unsigned long long blockBuffer_lastWrite = 0;
int multiConsoleFd = -1;
bool openErrorReported = false;

std::atomic<long long> blockBuffer_maxWait{kInitialMaxWaitMs};
std::atomic<const char*> multiFilename{nullptr};
std::atomic<int> multiFilenameLength{0};
std::atomic<int> rtLoggerFd{-1};

std::atomic<const char*> processName{nullptr};
std::atomic<const char*> threadNameMap[kNamedThreads];
std::atomic<int> nextThreadNumber{2};
thread_local int threadNumber = 0;

std::atomic<unsigned char> consoleFlags[kConsoles];
std::atomic<miInternal_TimeSource> timeSource{nullptr};
std::atomic<bool> noBufferWarned{false};

// Statistics: approximate by design, updated without locks.
typedef std::atomic<unsigned long> Counter;
Counter lostPrintfCount, noFreeBuffers, noFreeBuffersFlushes, noBufferAvailable;
Counter badWriteVectorEntries, invalidBufferCount;
Counter blockBuffer_OpenCount, blockBuffer_WriteCount, blockBuffer_openErrors;
Counter blockBuffer_writeErrors, blockBuffer_WriteIgnoredCount;
Counter msgLoggedCount[kConsoles], msgLoggedSize[kConsoles];
Counter outputBufferLengthHistogram[kHistogramSize];

pthread_mutex_t locks[4] = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
                            PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER};
constexpr int kUnknownLock = 3;

void Count(Counter& counter, unsigned long amount = 1) {
    counter.fetch_add(amount, std::memory_order_relaxed);
}

const char* Name() {
    return miInternal_getLogProcessName();
}

constexpr bool IsValidConsoleCode(int code) {
    return code >= 32 && code <= 223 && code != 'D' && code != 'E' && code != 'L';
}

const char* ErrorText(int error, char* text, size_t size) {
    // GNU strerror_r: returns the text, which may or may not be in `text`.
    return strerror_r(error, text, size);
}

pthread_mutex_t* getMutex(int id) {
    if (id >= WRITE_BUFFER_lock && id <= ACLINE_TABLE_lock) {
        return &locks[id];
    }
    SystemLog("%s getMutex %d : unknown lock", Name(), id);
    return &locks[kUnknownLock];
}

// Takes the first free entry; reports and retires entries in an unknown state.
char* TakeFreeBuffer(bool* sawQueued) {
    for (int index = 0; index < MI_CPP_SUPPORT_MAX_BUFFERS; ++index) {
        OutputBuffer& entry = outputBuffers[index];
        const uint32_t state = entry.state.load(std::memory_order_acquire);
        if (state == FREE) {
            entry.state.store(BUSY, std::memory_order_relaxed);
            entry.endMarker = kEndMarker;
            noBufferWarned.store(false, std::memory_order_relaxed);
            return entry.buffer;
        }
        if (state == QUEUED) {
            if (sawQueued != nullptr) {
                *sawQueued = true;
            }
        } else if (state != BUSY && state != INVALID) {
            SystemLog("%s mi_getMulticoreBuffer invalid buffer[ %d ].state %d", Name(), index,
                      static_cast<int>(state));
            entry.state.store(INVALID, std::memory_order_relaxed);
        }
    }
    return nullptr;
}

void addWriteVector(OutputBuffer* entry, unsigned int length) {
    if (writeVectorEntries >= kWriteVectorSize) {
        SystemLog("%s addWriteVector Vector overflow : RESIZE", Name());
        return;
    }
    if (length < 3) {
        SystemLog("%s addWriteVector : ignored buffer %p, length %u", Name(),
                  static_cast<void*>(entry), length);
        Count(badWriteVectorEntries);
        return;
    }
    if (length != entry->length + 2u) {
        SystemLog("%s addWriteVector : ignored buffer %p, length %u (%u)", Name(),
                  static_cast<void*>(entry), length, entry->length + 2u);
        Count(badWriteVectorEntries);
        return;
    }
    writeVector[writeVectorEntries].iov_base = &entry->console;
    writeVector[writeVectorEntries].iov_len = length;
    ++writeVectorEntries;
    writeVectorTotalLength += length;
}

// Opens the output device into multiConsoleFd (WRITE_BUFFER_lock held). The
// default path is resolved through the target root here, once per open.
void OpenOutputDevice() {
    char path[PATH_MAX];
    const char* root = multiFilename.load(std::memory_order_relaxed);
    if (root != nullptr) {
        const size_t rootLength = std::strlen(root);
        if (rootLength == 0 || rootLength >= kOutputRootLimit) {
            SystemLog("%s writeQueuedOutput Opened filename root too big %s len =  %d", Name(),
                      root, static_cast<int>(rootLength));
            Count(blockBuffer_openErrors);
            return;
        }
        std::snprintf(path, sizeof path, "%s/navi/multi", root);
    } else {
        const std::string resolved = ReplayPlatform::TargetPath("/kfsystem/multicore/navi/multi");
        if (resolved.size() >= sizeof path) {
            Count(blockBuffer_openErrors);
            return;
        }
        std::memcpy(path, resolved.c_str(), resolved.size() + 1);
    }
    // O_WRONLY | O_NONBLOCK: when no logger service reads the device (a FIFO
    // without reader) the open fails at once with ENXIO instead of blocking the
    // logging thread, and a full FIFO gives a short write instead of a wait.
    // O_APPEND: when the device is a plain file, every process (and every
    // re-open) adds to its end instead of overwriting it.
    const int fd = open(path, O_WRONLY | O_NONBLOCK | O_APPEND | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        Count(blockBuffer_openErrors);
        if (!openErrorReported) {
            openErrorReported = true;
            SystemLog("%s MultiConsole write open %s error %d", Name(), path, error);
        }
        return;
    }
    openErrorReported = false;
    multiConsoleFd = fd;
    Count(blockBuffer_OpenCount);
    SystemLog("%s writeQueuedOutput Opened %s fd %d", Name(), path, fd);
}

void EmptyWriteVector() {
    miInternal_freeQueuedBufferes();
    writeVectorEntries = 0;
    writeVectorTotalLength = 0;
}

// Writes the batch (WRITE_BUFFER_lock held).
void writeQueuedOutput(unsigned long long now) {
    blockBuffer_lastWrite = now;
    if (writeVectorEntries == 0) {
        return;
    }
    if (multiConsoleFd < 0) {
        OpenOutputDevice();
        if (multiConsoleFd < 0) {
            Count(blockBuffer_WriteIgnoredCount);
            EmptyWriteVector();
            return;
        }
    }
    // A short write repeats the whole vector: the logger service takes records
    // whole, and a record cut at the end of a short write cannot be resumed.
    for (int failures = 0; failures < kWriteAttempts;) {
        const ssize_t written =
            ReplayPlatform::WritevWithoutSigpipe(multiConsoleFd, writeVector, writeVectorEntries);
        if (written == static_cast<ssize_t>(writeVectorTotalLength)) {
            break;
        }
        const int error = errno;
        char text[64];
        SystemLog("%s writeQueuedOutput : writev error %s (%d) : wrote %d of %d", Name(),
                  ErrorText(error, text, sizeof text), error, static_cast<int>(written),
                  static_cast<int>(writeVectorTotalLength));
        Count(blockBuffer_writeErrors);
        ++failures;
        if (written < 0 && error == EPIPE) {
            // The logger service has gone: drop this batch and reopen the
            // device for the next one, which fails at once until it is back.
            close(multiConsoleFd);
            multiConsoleFd = -1;
            break;
        }
    }
    EmptyWriteVector();
    Count(blockBuffer_WriteCount);
}

// Queues a record of `length` bytes (console code, length byte and data) and
// writes the batch when it is due.
void miInternal_writeBuffer(OutputBuffer* entry, unsigned int length) {
    if (entry == nullptr || length == 0) {
        SystemLog("%s miInternal_writeBuffer : ignored bufferPtr %p, length %u", Name(),
                  static_cast<void*>(entry), length);
        return;
    }
    const unsigned long long now = miInternal_getTimeMs();
    miInternal_Lock(WRITE_BUFFER_lock);
    entry->state.store(QUEUED, std::memory_order_relaxed);
    addWriteVector(entry, length);
    const long long wait = blockBuffer_maxWait.load(std::memory_order_relaxed);
    if (static_cast<long long>(now) > static_cast<long long>(blockBuffer_lastWrite) + wait ||
        writeVectorEntries > kBatchEntries) {
        writeQueuedOutput(now);
    }
    miInternal_Unlock(WRITE_BUFFER_lock);
}

// Appends a formatted prefix part when it fits completely.
size_t AppendPrefix(char* buffer, size_t used, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
size_t AppendPrefix(char* buffer, size_t used, const char* format, ...) {
    const size_t room = MI_MULTICORE_BUFFER_SIZE - used;
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer + used, room, format, arguments);
    va_end(arguments);
    return length >= 0 && static_cast<size_t>(length) < room ? used + length : used;
}

size_t BuildPrefix(int console, char* buffer) {
    const int flags = consoleFlags[console & 0xFF].load(std::memory_order_relaxed);
    size_t used = 0;
    if (flags & MI_PREFIX_BOOT_TIME) {
        const unsigned long long ms = miInternal_getTimeMs();
        used = AppendPrefix(buffer, used, "%5.5lu.%03d ", static_cast<unsigned long>(ms / 1000),
                            static_cast<int>(ms % 1000));
    }
    if (flags & MI_PREFIX_PROCESS_NAME) {
        const char* name = miInternal_getLogProcessName();
        const size_t length = std::strlen(name);
        if (used + length + 1 < MI_MULTICORE_BUFFER_SIZE) {
            std::memcpy(buffer + used, name, length);
            used += length;
            buffer[used++] = ' ';
        }
    }
    if (flags & MI_PREFIX_THREAD) {
        const int tid = miInternal_getTid(0);
        const char* name = tid >= 0 && tid < kNamedThreads
                               ? threadNameMap[tid].load(std::memory_order_relaxed)
                               : nullptr;
        used = name != nullptr ? AppendPrefix(buffer, used, "[%6s] ", name)
                               : AppendPrefix(buffer, used, "[%.3d] ", tid);
    }
    return used;
}

int writeToLog(int console, const char* format, va_list arguments) {
    if (format == nullptr) {
        return 1;
    }
    char* buffer = mi_getMulticoreBuffer();
    if (buffer == nullptr) {
        Count(lostPrintfCount);
        return 0;
    }
    int result = 1;
    size_t used = BuildPrefix(console, buffer);
    // The text may use every byte left but one: vsnprintf's terminator lands
    // where the newline goes, never on the end marker.
    const size_t room = MI_MULTICORE_BUFFER_SIZE - used;
    const int length = std::vsnprintf(buffer + used, room, format, arguments);
    if (length >= 0 && static_cast<size_t>(length) < room) {
        used += length;
    } else {
        Count(lostPrintfCount);
        result = 0;
        const int lost = std::snprintf(buffer + used, room, "DATA LOST %10s\n", format);
        if (lost >= 0 && static_cast<size_t>(lost) < room) {
            used += lost;
        } else {
            static const char kLost[] = "DATA LOST\n";
            std::memcpy(buffer, kLost, sizeof kLost - 1);
            used = sizeof kLost - 1;
        }
    }
    if (used < MI_MULTICORE_BUFFER_SIZE && (used == 0 || buffer[used - 1] != '\n')) {
        buffer[used++] = '\n';
    }
    if (mi_multicoreLogBuffer(console, static_cast<int>(used), buffer) == 0) {
        Count(lostPrintfCount);
        return 0;
    }
    return result;
}

const char* ProcessIdName() {
    struct Text {
        char text[16];
    };
    static const Text pid = [] {
        Text made;
        std::snprintf(made.text, sizeof made.text, "%d", static_cast<int>(getpid()));
        made.text[kProcessNameMax] = '\0';
        return made;
    }();
    return pid.text;
}

unsigned long Load(const Counter& counter) {
    return counter.load(std::memory_order_relaxed);
}

}  // namespace

// --- Locks and clock ---------------------------------------------------------

int miInternal_Lock(int id) {
    pthread_mutex_t* mutex = getMutex(id);
    for (int retries = 0;;) {
        const int error = pthread_mutex_lock(mutex);
        if (error == 0) {
            return 0;
        }
        if (error == EAGAIN) {
            if (retries % 10 == 0) {
                SystemLog("%s miInternal_Lock EAGAIN error", Name());
            }
            ++retries;
            usleep(10 * 1000);
            continue;
        }
        if (error == EINVAL) {
            SystemLog("%s miInternal_Lock EINVAL error", Name());
        } else if (error == EDEADLK) {
            SystemLog("%s miInternal_Lock EDEADLK error", Name());
        } else {
            SystemLog("miInternal_Lock %d error", error);
        }
        return error;
    }
}

void miInternal_Unlock(int id) {
    const int error = pthread_mutex_unlock(getMutex(id));
    if (error == EPERM) {
        SystemLog("%s miInternal_Unlock EPERM error", Name());
    } else if (error == EINVAL) {
        SystemLog("%s miInternal_Unlock EINVAL error", Name());
    } else if (error != 0) {
        SystemLog("%s miInternal_Unlock %d error", Name(), error);
    }
}

unsigned long long miInternal_getTimeMs() {
    const miInternal_TimeSource source = timeSource.load(std::memory_order_relaxed);
    if (source != nullptr) {
        return source();
    }
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000ull +
           static_cast<unsigned long long>(now.tv_nsec) / 1000000ull;
}

// Threads are numbered per process: the main thread is 1, the others count up
// from 2 in the order in which they first use the interface. Small numbers
// keep the thread prefix short and let the first threads carry names.
int miInternal_getTid(int tid) {
    if (tid != 0) {
        return tid;
    }
    if (threadNumber == 0) {
        threadNumber = static_cast<pid_t>(syscall(SYS_gettid)) == getpid()
                           ? 1
                           : nextThreadNumber.fetch_add(1, std::memory_order_relaxed);
    }
    return threadNumber;
}

// --- Buffer pool -------------------------------------------------------------

char* mi_getMulticoreBuffer() {
    miInternal_Lock(CPP_BUFFERS_lock);
    bool sawQueued = false;
    char* buffer = TakeFreeBuffer(&sawQueued);
    if (buffer != nullptr) {
        miInternal_Unlock(CPP_BUFFERS_lock);
        return buffer;
    }
    Count(noFreeBuffers);
    if (sawQueued) {
        // The batch takes WRITE_BUFFER_lock: never hold both.
        miInternal_Unlock(CPP_BUFFERS_lock);
        mi_flushBuffer();
        Count(noFreeBuffersFlushes);
        miInternal_Lock(CPP_BUFFERS_lock);
    }
    int invalid = 0;
    for (int index = 0; index < MI_CPP_SUPPORT_MAX_BUFFERS; ++index) {
        const uint32_t state = outputBuffers[index].state.load(std::memory_order_relaxed);
        if (state == INVALID) {
            SystemLog("%s mi_getMulticoreBuffer invalid buffer[ %d ].state %d", Name(), index,
                      static_cast<int>(state));
            ++invalid;
        }
    }
    if (invalid > 0) {
        Count(invalidBufferCount, invalid);
        SystemLog("%s mi_getMulticoreBuffer lost count %d", Name(), invalid);
    }
    buffer = TakeFreeBuffer(nullptr);
    miInternal_Unlock(CPP_BUFFERS_lock);
    if (buffer == nullptr) {
        Count(noBufferAvailable);
        if (!noBufferWarned.exchange(true, std::memory_order_relaxed)) {
            SystemLog("%s mi_getMulticoreBuffer : no free buffers", Name());
        }
    }
    return buffer;
}

int miInternal_getBufferIdx(const char* buffer) {
    const uintptr_t start = reinterpret_cast<uintptr_t>(&outputBuffers[0]);
    const uintptr_t offset = reinterpret_cast<uintptr_t>(buffer) - start;
    const uintptr_t index = offset / sizeof(OutputBuffer);
    if (index >= static_cast<uintptr_t>(MI_CPP_SUPPORT_MAX_BUFFERS)) {
        SystemLog("%s miInternal_getBufferIdx : invalid buffer ptr %p, offset %d, idx %d", Name(),
                  static_cast<const void*>(buffer), static_cast<int>(offset),
                  static_cast<int>(index));
        return -1;
    }
    const char* expected = outputBuffers[index].buffer;
    if (buffer != expected) {
        SystemLog(
            "%s miInternal_getBufferIdx : invalid buffer ptr %p != &outputBuffers[ %d ].buffer[ "
            "DATA_IDX ] %p (@ %p))",
            Name(), static_cast<const void*>(buffer), static_cast<int>(index),
            static_cast<const void*>(expected), static_cast<void*>(&outputBuffers[index]));
        return -1;
    }
    return static_cast<int>(index);
}

int mi_multicoreLogBuffer(int console, int length, char* buffer) {
    const int index = miInternal_getBufferIdx(buffer);
    if (index < 0) {
        SystemLog("%s mi_multicoreLogBuffer : invalid buffer ptr %p", Name(),
                  static_cast<void*>(buffer));
        return 0;
    }
    OutputBuffer& entry = outputBuffers[index];
    const uint32_t state = entry.state.load(std::memory_order_acquire);
    if (state != BUSY) {
        SystemLog("%s mi_multicoreLogBuffer : buffer %d not BUSY but %d", Name(), index,
                  static_cast<int>(state));
        return 0;
    }
    const int given = console & 0xFF;
    int code = given;
    if (!IsValidConsoleCode(code)) {
        code = 'z';
        SystemLog("%s mi_multicoreLogBuffer : invalid console %d specified mapped to %c (%d)",
                  Name(), given, code, code);
    }
    if (length > MI_MULTICORE_BUFFER_SIZE) {
        SystemLog("%s mi_multicoreLogBuffer : probable buffer overrun length %d > max %d", Name(),
                  length, MI_MULTICORE_BUFFER_SIZE);
        length = MI_MULTICORE_BUFFER_SIZE;
    }
    if (entry.endMarker != kEndMarker) {
        SystemLog("%s mi_multicoreLogBuffer : possible buffer overrun End marker %x", Name(),
                  entry.endMarker);
    }
    if (length <= 0) {
        Count(outputBufferLengthHistogram[0]);
        SystemLog("%s mi_multicoreLogBuffer : buffer ignored length %d", Name(), length);
        entry.state.store(FREE, std::memory_order_release);
        return 1;
    }
    Count(outputBufferLengthHistogram[length]);
    entry.console = static_cast<unsigned char>(code);
    entry.length = static_cast<unsigned char>(length);
    Count(msgLoggedCount[given]);
    Count(msgLoggedSize[given], static_cast<unsigned long>(length));
    miInternal_writeBuffer(&entry, static_cast<unsigned int>(length) + kDataIdx);
    return 1;
}

void miInternal_freeQueuedBufferes() {
    for (OutputBuffer& entry : outputBuffers) {
        if (entry.state.load(std::memory_order_relaxed) == QUEUED) {
            entry.state.store(FREE, std::memory_order_release);
        }
    }
}

void mi_flushBuffer() {
    const unsigned long long now = miInternal_getTimeMs();
    miInternal_Lock(WRITE_BUFFER_lock);
    writeQueuedOutput(now);
    miInternal_Unlock(WRITE_BUFFER_lock);
}

// --- Formatted lines ---------------------------------------------------------

int mi_multicoreLogV(int console, int level, const char* format, va_list arguments) {
    if (!mi_checkDebugLevel(console, level)) {
        return 1;
    }
    return writeToLog(console, format, arguments);
}

int mi_multicoreLog(int console, int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = mi_multicoreLogV(console, level, format, arguments);
    va_end(arguments);
    return result;
}

int mi_setConsoleFlags(int console, int flags) {
    consoleFlags[console & 0xFF].store(static_cast<unsigned char>(flags),
                                       std::memory_order_relaxed);
    return console & 0xFF;
}

// --- Names -------------------------------------------------------------------

int mi_setLogProcessName(const char* name) {
    if (name == nullptr) {
        name = ProcessIdName();
    }
    const size_t length = std::strlen(name);
    if (length > kProcessNameMax) {
        name += length - kProcessNameMax;
    }
    processName.store(name, std::memory_order_relaxed);
    return static_cast<int>(std::strlen(name));
}

const char* miInternal_getLogProcessName() {
    const char* name = processName.load(std::memory_order_relaxed);
    if (name == nullptr) {
        name = ProcessIdName();
        const char* none = nullptr;
        if (!processName.compare_exchange_strong(none, name, std::memory_order_relaxed)) {
            name = none;
        }
    }
    return name;
}

int miInternal_getLogProcessNameLn() {
    return static_cast<int>(std::strlen(miInternal_getLogProcessName()));
}

const char* miInternal_getStoredLogProcessName() {
    return processName.load(std::memory_order_relaxed);
}

int mi_setLogThreadName(int tid, const char* name) {
    const int id = miInternal_getTid(tid);
    if (id < 0 || id >= kNamedThreads) {
        return 0;
    }
    threadNameMap[id].store(name, std::memory_order_relaxed);
    return 1;
}

int mi_setLogMyThreadName(const char* name) {
    return mi_setLogThreadName(0, name);
}

// --- Device root and configuration ------------------------------------------

void mi_setLogFileName(const char* root) {
    miInternal_Lock(WRITE_BUFFER_lock);
    multiFilename.store(root, std::memory_order_relaxed);
    multiFilenameLength.store(root != nullptr ? static_cast<int>(std::strlen(root)) : 0,
                              std::memory_order_relaxed);
    if (multiConsoleFd >= 0) {
        close(multiConsoleFd);
        multiConsoleFd = -1;
    }
    miInternal_Unlock(WRITE_BUFFER_lock);
}

const char* mi_getLogFileName() {
    return multiFilename.load(std::memory_order_relaxed);
}

int mi_getLogFileNameLength() {
    return multiFilenameLength.load(std::memory_order_relaxed);
}

int mi_setBufferConfig(int, int waitMs) {
    blockBuffer_maxWait.store(waitMs < kLargestMaxWaitMs ? waitMs : kLargestMaxWaitMs,
                              std::memory_order_relaxed);
    return kLargestMaxWaitMs;
}

int mi_getMulticoreBufferSize() {
    return MI_MULTICORE_BUFFER_SIZE;
}

bool mi_isValidConsole(int console) {
    return IsValidConsoleCode(console);
}

unsigned long mi_getLostPrintfErrorCount() {
    return Load(lostPrintfCount);
}

bool mi_RTLoggerActive() {
    int fd = rtLoggerFd.load(std::memory_order_acquire);
    if (fd < 0) {
        char path[PATH_MAX];
        const char* root = multiFilename.load(std::memory_order_relaxed);
        if (root != nullptr) {
            const size_t rootLength = std::strlen(root);
            if (rootLength == 0 || rootLength >= kRtLoggerRootLimit) {
                SystemLog("%s RTLoggerActive Opened file name root to big %s len =  %u", Name(),
                          root, static_cast<unsigned>(rootLength));
                return false;
            }
            std::snprintf(path, sizeof path, "%s/ioc1/0", root);
        } else {
            const std::string resolved = ReplayPlatform::TargetPath("/kfsystem/multicore/ioc1/0");
            if (resolved.size() >= sizeof path) {
                Count(blockBuffer_openErrors);
                return false;
            }
            std::memcpy(path, resolved.c_str(), resolved.size() + 1);
        }
        // O_WRONLY | O_NONBLOCK: without a logger service reading, a FIFO open
        // fails at once (ENXIO) rather than blocking. Exclusive use of the
        // control device cannot be requested for FIFOs and files here.
        fd = open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            Count(blockBuffer_openErrors);
            return false;
        }
        int none = -1;
        if (rtLoggerFd.compare_exchange_strong(none, fd, std::memory_order_acq_rel)) {
            SystemLog("%s RTLoggerActive Opened %s fd %d", Name(), path, fd);
        } else {
            close(fd);
            fd = none;
        }
    }
    return write(fd, "", 0) == 0;
}

// --- Statistics --------------------------------------------------------------

miInternal_OutputCounters miInternal_getOutputCounters() {
    miInternal_OutputCounters counters;
    counters.openCount = Load(blockBuffer_OpenCount);
    counters.writeCount = Load(blockBuffer_WriteCount);
    counters.openErrors = Load(blockBuffer_openErrors);
    counters.writeErrors = Load(blockBuffer_writeErrors);
    counters.writeIgnoredCount = Load(blockBuffer_WriteIgnoredCount);
    counters.badWriteVectorEntries = Load(badWriteVectorEntries);
    counters.lostPrintfCount = Load(lostPrintfCount);
    return counters;
}

void miInternal_cppConfig() {
    mi_multicoreLog('0', 2, "MI_CPP_SUPPORT_MAX_BUFFERS = %d", MI_CPP_SUPPORT_MAX_BUFFERS);
    mi_multicoreLog('0', 2, "MI_MULTICORE_BUFFER_SIZE   = %d", MI_MULTICORE_BUFFER_SIZE);
}

void miInternal_cppStats() {
    mi_multicoreLog('0', 2, "cppStats\n\n");
    mi_multicoreLog('0', 2, "noFreeBuffers %lu", Load(noFreeBuffers));
    mi_multicoreLog('0', 2, "noFreeBuffersFlushes %lu", Load(noFreeBuffersFlushes));
    mi_multicoreLog('0', 2, "noBufferAvailable %lu", Load(noBufferAvailable));
    mi_multicoreLog('0', 2, "printfStats\n\n");
    bool anyConsole = false;
    for (int code = 0; code < kConsoles; ++code) {
        const unsigned long sent = Load(msgLoggedCount[code]);
        const unsigned long bytes = Load(msgLoggedSize[code]);
        if (sent != 0 || bytes != 0) {
            anyConsole = true;
            mi_multicoreLog('0', 2, "Console %c (%3d) : %6lu sent %6lu bytes",
                            code >= 32 && code < 127 ? code : '?', code, sent, bytes);
        }
    }
    if (!anyConsole) {
        mi_multicoreLog('0', 2, "No Consoles active");
    }
    for (int length = 0; length < kHistogramSize; ++length) {
        const unsigned long count = Load(outputBufferLengthHistogram[length]);
        if (count != 0) {
            mi_multicoreLog('0', 2, "outputBufferLengthHistogram[%d] = %lu", length, count);
        }
    }
}

void miInternal_dumpCheckLockTable() {
    SystemLog("%s VALIDATE_LOCKS not configured", Name());
}

// --- Test support ------------------------------------------------------------

void miInternal_setTimeSourceForTesting(miInternal_TimeSource source) {
    timeSource.store(source, std::memory_order_relaxed);
}

void miInternal_resetOutputForTesting() {
    miInternal_Lock(WRITE_BUFFER_lock);
    if (multiConsoleFd >= 0) {
        close(multiConsoleFd);
    }
    multiConsoleFd = -1;
    writeVectorEntries = 0;
    writeVectorTotalLength = 0;
    blockBuffer_lastWrite = 0;
    openErrorReported = false;
    multiFilename.store(nullptr, std::memory_order_relaxed);
    multiFilenameLength.store(0, std::memory_order_relaxed);
    miInternal_Unlock(WRITE_BUFFER_lock);

    const int rtFd = rtLoggerFd.exchange(-1, std::memory_order_acq_rel);
    if (rtFd >= 0) {
        close(rtFd);
    }
    for (OutputBuffer& entry : outputBuffers) {
        entry.state.store(FREE, std::memory_order_release);
    }
    for (Counter* counter :
         {&lostPrintfCount, &noFreeBuffers, &noFreeBuffersFlushes, &noBufferAvailable,
          &badWriteVectorEntries, &invalidBufferCount, &blockBuffer_OpenCount,
          &blockBuffer_WriteCount, &blockBuffer_openErrors, &blockBuffer_writeErrors,
          &blockBuffer_WriteIgnoredCount}) {
        counter->store(0, std::memory_order_relaxed);
    }
    for (int code = 0; code < kConsoles; ++code) {
        msgLoggedCount[code].store(0, std::memory_order_relaxed);
        msgLoggedSize[code].store(0, std::memory_order_relaxed);
        consoleFlags[code].store(0, std::memory_order_relaxed);
    }
    for (Counter& counter : outputBufferLengthHistogram) {
        counter.store(0, std::memory_order_relaxed);
    }
    for (std::atomic<const char*>& name : threadNameMap) {
        name.store(nullptr, std::memory_order_relaxed);
    }
    processName.store(nullptr, std::memory_order_relaxed);
    blockBuffer_maxWait.store(kInitialMaxWaitMs, std::memory_order_relaxed);
    timeSource.store(nullptr, std::memory_order_relaxed);
    noBufferWarned.store(false, std::memory_order_relaxed);
}

void miInternal_resetForTesting() {
    miInternal_resetConsolesForTesting();
    miInternal_resetOutputForTesting();
}
