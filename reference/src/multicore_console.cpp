// Console side of the multicore logging interface: per-console debug levels,
// console input files, and the acline command interpreter through which an
// operator queries and changes the logging of a running process.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <strings.h>

#include "reference/src/multicore_internal.h"
#include "reference/src/system_log.h"
#include "libreplay/server/TargetRoot.h"

using ReplayPlatform::SystemLog;

namespace {

constexpr int kConsoles = 256;
constexpr int kInitialDefaultLevel = 2;
constexpr int kLowestLevel = -1;  // a console's own level: -1 = use the default
constexpr int kHighestLevel = 3;
constexpr int kUseDefault = -1;
constexpr int kNoOwner = -1;

constexpr size_t kInputRootLimit = 120;  // longest root, and longest input path
constexpr size_t kNaviRootLimit = 112;   // longest root for the "/navi/<code>" form

constexpr int kAclineEntries = 100;
constexpr size_t kAclineNameSize = 16;  // names of up to 15 characters
constexpr int kInputReadSize = 1024;
constexpr int kReplyLevel = 0;  // operator replies print at every debug level

const char kNoCommand[] = "ERROR : No acline command found";

// Per-console tables. They start at -1, so they live in a function-local
// static that is built before its first use.
struct ConsoleTables {
    std::atomic<signed char> debugLevel[kConsoles];
    std::atomic<int> inputFd[kConsoles];
    std::atomic<int> inputOwner[kConsoles];
    std::atomic<bool> pathErrorReported[kConsoles];

    ConsoleTables() { Reset(); }
    void Reset() {
        for (int code = 0; code < kConsoles; ++code) {
            debugLevel[code].store(kUseDefault, std::memory_order_relaxed);
            inputFd[code].store(-1, std::memory_order_relaxed);
            inputOwner[code].store(kNoOwner, std::memory_order_relaxed);
            pathErrorReported[code].store(false, std::memory_order_relaxed);
        }
    }
};

ConsoleTables& Tables() {
    static ConsoleTables tables;
    return tables;
}

std::atomic<int> defaultDebugLevel{kInitialDefaultLevel};
std::atomic<bool> readOpenErrorReported{false};

struct acline_entry {
    char name[kAclineNameSize];
    acline_function handler;  // null: removed
    const char* help;         // null: none
};

// Guarded by ACLINE_TABLE_lock; the table never shrinks.
acline_entry aclineTable[kAclineEntries];
uint16_t acline_anz_entries = 0;

std::atomic<acline_function> currentHandler{nullptr};
std::atomic<bool> helpRegistered{false};
std::atomic<bool> internalCommandsRegistered{false};

const char* Name() {
    return miInternal_getLogProcessName();
}

bool IsPrintable(int code) {
    return code >= 32 && code < 127;
}

const char* SkipSpaces(const char* text) {
    while (*text == ' ' || *text == '\t') {
        ++text;
    }
    return text;
}

// The text after a command's name, or null when the line is shorter.
const char* AfterName(const char* line, size_t nameLength) {
    if (line == nullptr || std::strlen(line) < nameLength) {
        return nullptr;
    }
    return line + nameLength;
}

// The part of an input path below the root for a console code; null when the
// console has no input file. `naviForm` tells the "/navi/<code>" form apart.
const char* InputPathPart(int code, char* navi, size_t naviSize, bool* naviForm) {
    *naviForm = false;
    if (code < 'R' || (code >= 'a' && code <= 'z')) {
        if (!IsPrintable(code)) {
            return nullptr;
        }
        std::snprintf(navi, naviSize, "/navi/%c", code);
        *naviForm = true;
        return navi;
    }
    switch (code) {
        case 'R':
            return "/front/1";
        case 'S':
            return "/navi/S";
        case 'T':
            return "/trace/0";
        case 'U':
            return "/ioc1/0";
        case 'V':
            return "/frame/0";
        case 'W':
            return "/front/0";
        case 'X':
            return "/dsp/0";
        case 'Y':
            return "/custom/0";
        case 'Z':
            return "/custom/1";
        default:
            return nullptr;
    }
}

bool ReportPathErrorOnce(int code) {
    return !Tables().pathErrorReported[code].exchange(true, std::memory_order_relaxed);
}

int openInputFile(int code) {
    char navi[16];
    bool naviForm = false;
    const char* part = InputPathPart(code, navi, sizeof navi, &naviForm);
    if (part == nullptr) {
        return -1;
    }
    char path[PATH_MAX];
    const char* root = mi_getLogFileName();
    if (root != nullptr) {
        const size_t rootLength = std::strlen(root);
        const size_t total = rootLength + std::strlen(part);
        if (rootLength == 0 || rootLength > kInputRootLimit) {
            if (ReportPathErrorOnce(code)) {
                SystemLog("%s openInputFile Opened filename root too big %s len =  %d", Name(),
                          root, static_cast<int>(rootLength));
            }
            return -1;
        }
        if (naviForm && rootLength > kNaviRootLimit) {
            if (ReportPathErrorOnce(code)) {
                SystemLog("%s openInputFile Opened filename too long, len = %d", Name(),
                          static_cast<int>(rootLength));
            }
            return -1;
        }
        if (total > kInputRootLimit) {
            if (ReportPathErrorOnce(code)) {
                SystemLog("%s openInputFile Opened filename root too long len = %d", Name(),
                          static_cast<int>(total));
            }
            return -1;
        }
        std::snprintf(path, sizeof path, "%s%s", root, part);
    } else {
        const std::string resolved = ReplayPlatform::TargetPath("/kfsystem/multicore") + part;
        if (resolved.size() >= sizeof path) {
            return -1;
        }
        std::memcpy(path, resolved.c_str(), resolved.size() + 1);
    }
    // O_NONBLOCK: a read with nothing waiting returns at once (reported as 0),
    // and opening a FIFO does not wait for a writer.
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        if (!readOpenErrorReported.exchange(true, std::memory_order_relaxed)) {
            SystemLog("%s MultiConsole read open %s error %d", Name(), path, error);
        }
        return -1;
    }
    SystemLog("%s Opened %s for input fd %d", Name(), path, fd);
    return fd;
}

// --- acline table (ACLINE_TABLE_lock held) -----------------------------------

int FindExactName(const char* name) {
    for (int index = 0; index < acline_anz_entries; ++index) {
        if (std::strcmp(aclineTable[index].name, name) == 0) {
            return index;
        }
    }
    return -1;
}

// 2: an entry named exactly like the line (case ignored); 1: the longest name
// that is a prefix of the line (the earliest among equals); 0: none.
int acline_search_function(const char* commandLine, int* entry) {
    if (commandLine == nullptr || acline_anz_entries == 0) {
        return 0;
    }
    int found = -1;
    size_t foundLength = 0;
    for (int index = 0; index < acline_anz_entries; ++index) {
        const char* name = aclineTable[index].name;
        if (strcasecmp(name, commandLine) == 0) {
            *entry = index;
            return 2;
        }
        const size_t length = std::strlen(name);
        if (strncasecmp(name, commandLine, length) == 0 && (found < 0 || length > foundLength)) {
            found = index;
            foundLength = length;
        }
    }
    if (found < 0) {
        return 0;
    }
    *entry = found;
    return 1;
}

// --- Built-in commands -------------------------------------------------------

const char* SetDbgLvlCommand(const char* line, int) {
    const char* text = AfterName(line, std::strlen("setdbglvl"));
    if (text == nullptr) {
        return nullptr;
    }
    text = SkipSpaces(text);
    const int console = static_cast<unsigned char>(*text);
    if (!IsPrintable(console)) {
        return nullptr;
    }
    text = SkipSpaces(text + 1);
    if (*text != ',') {
        return nullptr;
    }
    text = SkipSpaces(text + 1);
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    // Anything that is not a level in range is refused by mi_setDebugLevel.
    const int level = end == text || value < INT_MIN / 2 || value > INT_MAX / 2
                          ? INT_MAX
                          : static_cast<int>(value);
    const int accepted = mi_setDebugLevel(console, level);
    mi_multicoreLog('0', 0, "setDbgLvl: %c %s actual dbglvl %d", console,
                    accepted ? "ok" : "failed", mi_getDebugLevel(console));
    return nullptr;
}

const char* ShowDbgLvlCommand(const char*, int) {
    bool any = false;
    for (int code = 0; code < kConsoles; ++code) {
        const int level = Tables().debugLevel[code].load(std::memory_order_relaxed);
        if (level != kUseDefault) {
            any = true;
            mi_multicoreLog('0', kReplyLevel, "Console %c (%d) : set to %d",
                            IsPrintable(code) ? code : '?', code, level);
        }
    }
    if (!any) {
        mi_multicoreLog('0', kReplyLevel, "All Consoles at default %d", mi_getDefaultDebugLevel());
    }
    return nullptr;
}

const char* CoutStatsCommand(const char*, int) {
    const miInternal_OutputCounters counters = miInternal_getOutputCounters();
    mi_multicoreLog('0', kReplyLevel, "blockBuffer_OpenCount   %lu", counters.openCount);
    mi_multicoreLog('0', kReplyLevel, "blockBuffer_WriteCount  %lu", counters.writeCount);
    mi_multicoreLog('0', kReplyLevel, "blockBuffer_openErrors  %lu", counters.openErrors);
    mi_multicoreLog('0', kReplyLevel, "blockBuffer_writeErrors %lu", counters.writeErrors);
    mi_multicoreLog('0', kReplyLevel, "blockBuffer_WriteIgnoredCount %lu",
                    counters.writeIgnoredCount);
    mi_multicoreLog('0', kReplyLevel, "badWriteVectorEntries %lu", counters.badWriteVectorEntries);
    mi_multicoreLog('0', kReplyLevel, "lostPrintfErrorCount  %lu", counters.lostPrintfCount);
    miInternal_cppStats();
    return nullptr;
}

const char* ConfigCommand(const char*, int) {
    const char* root = mi_getLogFileName();
    const char* process = miInternal_getStoredLogProcessName();
    mi_multicoreLog('0', kReplyLevel, "multiFilename %s, processName %s",
                    root != nullptr ? root : "NULL", process != nullptr ? process : "NULL");
    miInternal_cppConfig();
    return nullptr;
}

const char* CinFilesCommand(const char*, int) {
    bool any = false;
    for (int code = 0; code < kConsoles; ++code) {
        const int fd = Tables().inputFd[code].load(std::memory_order_relaxed);
        if (fd >= 0) {
            any = true;
            mi_multicoreLog('0', kReplyLevel, "Console %d : input file %d", code, fd);
        }
    }
    if (!any) {
        mi_multicoreLog('0', kReplyLevel, "No Consoles open for input");
    }
    return nullptr;
}

const char* FlushCommand(const char*, int) {
    mi_multicoreLog('0', kReplyLevel, "Flush output buffer");
    mi_flushBuffer();
    return nullptr;
}

const char* InputCommand(const char* line, int) {
    const char* text = AfterName(line, std::strlen("input"));
    if (text == nullptr) {
        return nullptr;
    }
    text = SkipSpaces(text);
    const int console = static_cast<unsigned char>(*text);
    if (!IsPrintable(console)) {
        return nullptr;
    }
    char input[kInputReadSize];
    const int count = mi_readConsole(console, input, kInputReadSize);
    mi_multicoreLog('0', kReplyLevel, "input from console %c, read %d of %d", console, count,
                    kInputReadSize);
    return nullptr;
}

const char* PrintTestCommand(const char*, int) {
    mi_multicoreLog('0', kReplyLevel, "Print Test for Buffer size %d", mi_getMulticoreBufferSize());
    for (int digits = 0; digits < MI_MULTICORE_BUFFER_SIZE; ++digits) {
        char* buffer = mi_getMulticoreBuffer();
        if (buffer == nullptr) {
            mi_multicoreLog('0', kReplyLevel, "could not get buffer on %d", digits);
            continue;
        }
        for (int position = 0; position < digits; ++position) {
            buffer[position] = static_cast<char>('0' + (position + digits) % 10);
        }
        buffer[digits] = '\n';
        const int status = mi_multicoreLogBuffer('0', digits + 1, buffer);
        if (status == 0) {
            mi_multicoreLog('0', kReplyLevel, "mi_multicoreLogBuffer stts %d, length %d (%d)",
                            status, digits + 1, digits);
        }
    }
    return "print test completed";
}

const char* CheckLocksCommand(const char*, int) {
    miInternal_dumpCheckLockTable();
    return "check Locks completed";
}

void PrintHelp(const char* shownName, const char* help) {
    mi_multicoreLog('0', kReplyLevel, "acline cmd '%s' : %s", shownName,
                    help != nullptr ? help : "No debug text");
}

// Shows one command when the text after "help" starts with a command's name
// (and is more than that name); any other text, an exact command name
// included, lists every command.
const char* HelpCommand(const char* line, int) {
    const char* after = AfterName(line, std::strlen("help"));
    const char* text = after != nullptr ? SkipSpaces(after) : "";

    miInternal_Lock(ACLINE_TABLE_lock);
    int entry = -1;
    const int found = acline_search_function(text, &entry);
    const char* help = found == 1 ? aclineTable[entry].help : nullptr;
    miInternal_Unlock(ACLINE_TABLE_lock);
    if (found == 1) {
        PrintHelp(text, help);
        return nullptr;
    }
    // The lines are printed outside the table lock; the table never shrinks,
    // so an index stays valid.
    for (int index = 0;; ++index) {
        acline_entry shown;
        miInternal_Lock(ACLINE_TABLE_lock);
        const bool more = index < acline_anz_entries;
        if (more) {
            shown = aclineTable[index];
        }
        miInternal_Unlock(ACLINE_TABLE_lock);
        if (!more) {
            break;
        }
        if (shown.handler != nullptr) {
            PrintHelp(shown.name, shown.help);
        }
    }
    return nullptr;
}

}  // namespace

// --- Debug levels ------------------------------------------------------------

int mi_setDefaultDebugLevel(int level) {
    if (level < 0 || level > kHighestLevel) {
        return 0;
    }
    defaultDebugLevel.store(level, std::memory_order_relaxed);
    SystemLog("%s change debug level to %d", Name(), level);
    return 1;
}

int mi_getDefaultDebugLevel() {
    return defaultDebugLevel.load(std::memory_order_relaxed);
}

int mi_setDebugLevel(int console, int level) {
    if (level < kLowestLevel || level > kHighestLevel) {
        return 0;
    }
    Tables().debugLevel[console & 0xFF].store(static_cast<signed char>(level),
                                              std::memory_order_relaxed);
    return 1;
}

int mi_getDebugLevel(int console) {
    const int level = Tables().debugLevel[console & 0xFF].load(std::memory_order_relaxed);
    return level == kUseDefault ? mi_getDefaultDebugLevel() : level;
}

bool mi_checkDebugLevel(int console, int level) {
    return mi_getDebugLevel(console) >= level;
}

// --- Console input -----------------------------------------------------------

int mi_getConsoleFD(int console) {
    const int code = console & 0xFF;
    ConsoleTables& tables = Tables();
    int fd = tables.inputFd[code].load(std::memory_order_acquire);
    if (fd >= 0) {
        return fd;
    }
    fd = openInputFile(code);
    if (fd < 0) {
        tables.inputOwner[code].store(miInternal_getTid(0), std::memory_order_relaxed);
        return -1;
    }
    int none = -1;
    if (!tables.inputFd[code].compare_exchange_strong(none, fd, std::memory_order_acq_rel)) {
        close(fd);  // another thread opened it first; it owns the console
        return none;
    }
    tables.inputOwner[code].store(miInternal_getTid(0), std::memory_order_relaxed);
    return fd;
}

int mi_readConsole(int console, char* buffer, int length) {
    if (buffer == nullptr || length <= 0) {
        return -1;
    }
    const int code = console & 0xFF;
    const int fd = mi_getConsoleFD(code);
    if (fd < 0 ||
        Tables().inputOwner[code].load(std::memory_order_relaxed) != miInternal_getTid(0)) {
        return -1;
    }
    const ssize_t count = read(fd, buffer, static_cast<size_t>(length));
    if (count < 0 && errno == EAGAIN) {
        return 0;
    }
    return static_cast<int>(count);
}

int miInternal_closeReadConsole(int console) {
    const int code = console & 0xFF;
    const int fd = Tables().inputFd[code].exchange(-1, std::memory_order_acq_rel);
    Tables().inputOwner[code].store(kNoOwner, std::memory_order_relaxed);
    return fd < 0 ? -1 : close(fd);
}

int mi_closeConsole(int console) {
    return miInternal_closeReadConsole(console);
}

void miInternal_closeConsoleFD(int fd) {
    if (fd < 0) {
        return;
    }
    bool held = false;
    for (int code = 0; code < kConsoles; ++code) {
        int expected = fd;
        if (Tables().inputFd[code].compare_exchange_strong(expected, -1,
                                                           std::memory_order_acq_rel)) {
            Tables().inputOwner[code].store(kNoOwner, std::memory_order_relaxed);
            held = true;
        }
    }
    if (held) {
        close(fd);
    }
}

// --- acline interpreter ------------------------------------------------------

int mi_aclineSetFunction(const char* name, acline_function handler, const char* help) {
    if (name == nullptr) {
        return 0;
    }
    if (std::strlen(name) >= kAclineNameSize) {
        mi_multicoreLog('f', 1, "acline_set_function('%s') failed, prefix too long", name);
        return 0;
    }
    miInternal_Lock(ACLINE_TABLE_lock);
    int index = FindExactName(name);
    if (index < 0 && acline_anz_entries < kAclineEntries) {
        index = acline_anz_entries++;
        acline_entry& added = aclineTable[index];
        std::memset(added.name, 0, sizeof added.name);
        std::memcpy(added.name, name, std::strlen(name));
        added.handler = nullptr;
        added.help = nullptr;
    }
    const acline_function previous = index >= 0 ? aclineTable[index].handler : nullptr;
    miInternal_Unlock(ACLINE_TABLE_lock);

    // Messages are logged outside the table lock: logging takes the other locks.
    if (index < 0) {
        mi_multicoreLog('f', 1, "acline_set_function('%s') failed, no free entries", name);
        return 0;
    }
    if (handler != nullptr && previous != nullptr && previous != handler) {
        mi_multicoreLog('f', 1, "acline_set_function('%s'): change function from %p to %p", name,
                        reinterpret_cast<void*>(previous), reinterpret_cast<void*>(handler));
    }
    miInternal_Lock(ACLINE_TABLE_lock);
    aclineTable[index].handler = handler;
    aclineTable[index].help = help;
    miInternal_Unlock(ACLINE_TABLE_lock);
    return 1;
}

const char* miInternal_aclineMain(const char* commandLine, int argument) {
    if (!helpRegistered.exchange(true, std::memory_order_relaxed)) {
        mi_aclineSetFunction("help", &HelpCommand, "help for specified, or all acline commands");
    }
    if (commandLine != nullptr) {
        miInternal_Lock(ACLINE_TABLE_lock);
        int entry = -1;
        const int found = acline_search_function(commandLine, &entry);
        const acline_function handler = found != 0 ? aclineTable[entry].handler : nullptr;
        char name[kAclineNameSize] = {};
        if (found != 0) {
            std::memcpy(name, aclineTable[entry].name, sizeof name);
        }
        miInternal_Unlock(ACLINE_TABLE_lock);

        if (found != 0 && handler == nullptr) {
            mi_multicoreLog('f', 2, "acline cmd '%s' (prefix '%s') removed", commandLine, name);
        } else if (found == 0) {
            mi_multicoreLog('f', 2, "unknown acline cmd '%s'", commandLine);
        }
        currentHandler.store(handler, std::memory_order_relaxed);
    }
    const acline_function handler = currentHandler.load(std::memory_order_relaxed);
    if (handler == nullptr) {
        return kNoCommand;
    }
    return handler(commandLine, argument);
}

void miInternal_setInternalACLineFuntions() {
    if (internalCommandsRegistered.exchange(true, std::memory_order_relaxed)) {
        return;
    }
    mi_aclineSetFunction("setdbglvl", &SetDbgLvlCommand, "set console specific debug level");
    mi_aclineSetFunction("showdbglvl", &ShowDbgLvlCommand, "print console specific debug levels");
    mi_aclineSetFunction("Cout-stats", &CoutStatsCommand, "print console statistics");
    mi_aclineSetFunction("Config", &ConfigCommand, "Multicore API configuration");
    mi_aclineSetFunction("Cin-files", &CinFilesCommand, "print consoles open for input");
    mi_aclineSetFunction("flush", &FlushCommand, "flush output buffers");
    mi_aclineSetFunction("input", &InputCommand, "read input from console file ");
    mi_aclineSetFunction("print-test", &PrintTestCommand, "print test for buffers");
    mi_aclineSetFunction("check-locks", &CheckLocksCommand, "dump the checkLocks table");
}

// --- Test support ------------------------------------------------------------

void miInternal_resetConsolesForTesting() {
    ConsoleTables& tables = Tables();
    for (int code = 0; code < kConsoles; ++code) {
        const int fd = tables.inputFd[code].load(std::memory_order_relaxed);
        if (fd >= 0) {
            miInternal_closeConsoleFD(fd);
        }
    }
    tables.Reset();
    defaultDebugLevel.store(kInitialDefaultLevel, std::memory_order_relaxed);
    readOpenErrorReported.store(false, std::memory_order_relaxed);
    miInternal_Lock(ACLINE_TABLE_lock);
    std::memset(aclineTable, 0, sizeof aclineTable);
    acline_anz_entries = 0;
    miInternal_Unlock(ACLINE_TABLE_lock);
    currentHandler.store(nullptr, std::memory_order_relaxed);
    helpRegistered.store(false, std::memory_order_relaxed);
    internalCommandsRegistered.store(false, std::memory_order_relaxed);
}
