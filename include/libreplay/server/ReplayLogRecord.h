#ifndef LIBREPLAY_SERVER_REPLAYLOGRECORD_H
#define LIBREPLAY_SERVER_REPLAYLOGRECORD_H

// The client records inside a stored log, taken apart without side effects:
// log readers meet damaged records by the million and must stay quiet and
// fast, so nothing here writes a diagnostic.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "libreplay/ReplayExport.h"

namespace ReplayCore {

// Separator in front of every item of a block but the first.
constexpr unsigned char kItemSeparator = 0xDE;

struct LogClientRecord {
    char typeCharacter = 0;
    unsigned int dataType = 0;
    int64_t blockTimeMs = 0;
    std::string clientName;
    bool hasSequence = false;  // status records carry no "!first seq:" field
    unsigned int firstNumber = 0;
    unsigned int sequenceNumber = 0;
    size_t payloadStart = 0;   // first byte of the first item
    size_t payloadLength = 0;  // up to the 9-byte checksum suffix
};

// Header fields of a client record: "<type><time>:<name>:[!<n> <seq>:]",
// items, then the checksum suffix. False for anything else. Stricter than
// the replay server's own parsing (a known type, a well-formed time and
// sequence field, a non-empty name); every record it accepts, the server
// reads the same.
REPLAY_API bool ParseLogClientRecord(const std::string& record, LogClientRecord& fields);

// ParseLogClientRecord without filling anything: no allocation at all.
REPLAY_API bool LooksLikeClientRecord(const std::string& record);

// Whether the record's checksum trailer (eight hex digits before the line
// end) holds the sum of the bytes before it, each read as signed. Quiet: a
// mismatch is only the answer, never a diagnostic.
REPLAY_API bool LogRecordChecksumValid(const char* record, size_t length);

// Calls `visit(timeMs, data, length)` for each item of a parsed record: the
// first item carries the block time, each further item (after a 0xDE byte)
// its own "time:" prefix. Returns the number of items; an item whose time
// does not parse is visited with the previous item's time.
template <typename Visitor>
size_t ForEachLogItem(const std::string& record, const LogClientRecord& fields, Visitor visit);

// Parses the "time:" prefix of an item after the first; false when absent.
REPLAY_API bool SplitLogItemTime(const char* item, size_t length, int64_t& timeMs,
                                 size_t& dataStart);

template <typename Visitor>
size_t ForEachLogItem(const std::string& record, const LogClientRecord& fields, Visitor visit) {
    const char* position = record.data() + fields.payloadStart;
    const char* end = position + fields.payloadLength;
    int64_t timeMs = fields.blockTimeMs;
    size_t count = 0;
    bool first = true;
    for (;;) {
        const void* found = memchr(position, kItemSeparator, static_cast<size_t>(end - position));
        const char* separator = found != nullptr ? static_cast<const char*>(found) : end;
        const char* data = position;
        size_t length = static_cast<size_t>(separator - position);
        if (!first) {
            int64_t itemTime = 0;
            size_t dataStart = 0;
            if (SplitLogItemTime(position, length, itemTime, dataStart)) {
                timeMs = itemTime;
                data += dataStart;
                length -= dataStart;
            }
        }
        visit(timeMs, data, length);
        ++count;
        first = false;
        if (separator >= end) {
            break;
        }
        position = separator + 1;
    }
    return count;
}

}  // namespace ReplayCore

#endif
