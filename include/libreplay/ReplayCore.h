#ifndef LIBREPLAY_REPLAYCORE_H
#define LIBREPLAY_REPLAYCORE_H

// Definitions shared by replay clients and the replay server: data-type codes,
// replay states and the commands that move them, and the millisecond clock
// with its time slots.

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "libreplay/ReplayExport.h"

// Data-type codes of a record's payload. In a record a type travels as one
// character, the code plus 32.
extern REPLAY_API const unsigned int kDataTypeUnspecified;           // 0, ' '
extern REPLAY_API const unsigned int kDataTypeNormalizedAsciiText;   // 1, '!'
extern REPLAY_API const unsigned int kDataTypeAsciiText;             // 2, '"'
extern REPLAY_API const unsigned int kDataTypeStatusText;            // 3, '#'
extern REPLAY_API const unsigned int kDataTypeAsciiEncodedBinary;    // 4, '$'
extern REPLAY_API const unsigned int kDataTypeBinary;                // 5, '%'
extern REPLAY_API const unsigned int kDataTypeAscii7Initialization;  // 6, '&'
extern REPLAY_API const unsigned int kMaxDataType;                   // 6

// At most kMaxDataType (0 included).
REPLAY_API bool DataTypeValid(unsigned int type);
// Above kDataTypeUnspecified and at most kMaxDataType.
REPLAY_API bool DataTypeDefined(unsigned int type);
// c - 32 when that is a valid type; otherwise warns and yields 0.
REPLAY_API unsigned int DataTypeFromChar(char c);
// Returns 1 for a valid type, not its record character, and a space for an
// invalid one. Nothing in the library calls it; record writers form the
// character as type + 32 themselves.
REPLAY_API char CharFromDataType(unsigned int type);
// The largest client record in bytes (2041).
REPLAY_API unsigned int GetMaximumClientRecordSize();

namespace ReplayCore {

// ln 2, computed once at library start; used for power-of-two growth.
extern REPLAY_API const double g_naturalLogOf2;

namespace SpecialStrings {
extern REPLAY_API const char* const kLoggingSystem;  // "multicore"
extern REPLAY_API const char* const kReplayMarker;   // "Q\t[-M-] \t"
extern REPLAY_API const char* const kLocalHost;      // "127.0.0.1"
}  // namespace SpecialStrings

enum ReplayState {
    eStateStopped = 0,
    eStateRecord = 1,
    eStateReplay = 2,
    eStateShutDown = 3,
    eStateDisconnected = 4,
    eStateConnecting = 5,
    eStateUnknown = 6,
};

class REPLAY_API ReplayStateManager {
  public:
    // Holds the argument text of the last command parsed into it: fields
    // "k=value" separated by ';'.
    class REPLAY_API CommandArgsParser {
      public:
        // The first field whose first character is `key` yields its text from
        // the third character on. False (value unchanged) when there is none.
        bool Get(char key, std::string& value) const;
        void SetArgs(const std::string& args) { m_args = args; }
        const std::string& GetArgs() const { return m_args; }

      private:
        std::string m_args;
    };

    static const char* const s_stopCmd;
    static const char* const s_recordCmd;
    static const char* const s_replayCmd;
    static const char* const s_quitCmd;
    static const char* const s_waitCmd;
    static const char* const s_connecting;
    static const char* const s_disconnected;

    static std::string GetReplayStateName(ReplayState state);
    // "#word" or "#word args;"; empty for states without a command word.
    static std::string GetCommandFromState(ReplayState state, const std::string& args);
    // Prefix-matches the command word; eStateUnknown when nothing matches.
    static ReplayState GetStateFromCommand(const std::string& command, CommandArgsParser& parser);
};

// Cuts `text` at `delimiter` into pieces of at most size - 1 characters,
// appends each non-empty piece to `out`, skips spaces that follow a piece, and
// returns the number of strings now in `out`.
REPLAY_API unsigned int SplitString(const char* text, std::vector<std::string>& out,
                                    unsigned int size, char delimiter);

// The process clock in milliseconds, and a clock that can be set to run from
// a given start time (the replay clock).
class REPLAY_API MSTime {
  public:
    struct REPLAY_API MSTimeStruct {
        int64_t m_timeSeconds = 0;       // filled only when parsed from text
        int64_t m_timeMilliseconds = 0;  // used by every comparison and output

        MSTimeStruct() = default;
        MSTimeStruct(int64_t seconds, int64_t milliseconds)
            : m_timeSeconds(seconds), m_timeMilliseconds(milliseconds) {}
        // Parses "S", "S." or "S.mmm"; the digits after the point are taken
        // as a whole number of milliseconds (so "7.25" is 7025 ms).
        explicit MSTimeStruct(const std::string& text);

        // Monotonic milliseconds, wrapping every 365 days of uptime.
        static MSTimeStruct GetCurrentTimeMS();
        // "%ld.%03ld": 83061 ms gives "83.061".
        std::string ToString() const;
    };

    static MSTimeStruct CurrentTimeMS() { return MSTimeStruct::GetCurrentTimeMS(); }

    MSTime() = default;
    MSTime(const MSTime& other);
    MSTime& operator=(const MSTime& other);

    // From now on ExecutionTimeMS() reads `start` plus the time elapsed.
    // Safe to call while other threads read the clock.
    void SetStartTime(MSTimeStruct start);
    MSTimeStruct ExecutionTimeMS() const;
    MSTimeStruct GetStartTime() const;
    // Seconds 0, milliseconds = clock reading at SetStartTime minus start.
    MSTimeStruct GetOffsetTime() const;

  private:
    // One clock is read by several client threads while the read thread sets
    // it, so the fields are atomic; each is read and written on its own.
    std::atomic<int64_t> m_startSeconds{0};
    std::atomic<int64_t> m_startMilliseconds{0};
    std::atomic<int64_t> m_offsetMilliseconds{0};
};

// The tenth of a second within the current second, rounded to the nearest:
// 0 to 10 (times ending in .951 to .999 give 10).
REPLAY_API unsigned int GetTimeSlotFromTime(MSTime::MSTimeStruct time);
REPLAY_API unsigned int GetTimeSlotFromCurrentTime();

#ifdef REPLAY_INTERNAL_BUILD
// Tests replace the monotonic clock behind GetCurrentTimeMS (and the execution
// timers) with a function returning milliseconds; a negative value stands for
// a failing clock. Null restores the monotonic clock. Built into the library
// but not exported from libreplay.so: tests link the static library.
typedef int64_t (*ClockSourceFunction)();
void SetClockSourceForTesting(ClockSourceFunction source);
#endif

}  // namespace ReplayCore

#endif
