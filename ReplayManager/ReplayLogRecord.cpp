#include "libreplay/server/ReplayLogRecord.h"

#include <climits>
#include <cstdio>
#include <cstring>

#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/ReplayLogReader.h"

namespace ReplayCore {

namespace {

// Where the header fields of a client record lie; filled without touching
// the heap, so that classifying every record of a log costs no allocation.
struct HeaderFields {
    char typeCharacter = 0;
    int64_t blockTimeMs = 0;
    size_t nameStart = 0;
    size_t nameLength = 0;
    bool hasSequence = false;
    unsigned int firstNumber = 0;
    unsigned int sequenceNumber = 0;
    size_t payloadStart = 0;
};

// A decimal number of 1 to 10 digits that fits 32 bits, ending at `stop`.
bool ReadNumber(const char* data, size_t size, size_t& position, char stop, unsigned int& number) {
    const size_t start = position;
    uint64_t value = 0;
    while (position < size && data[position] >= '0' && data[position] <= '9' &&
           position - start < 10) {
        value = value * 10 + static_cast<uint64_t>(data[position] - '0');
        ++position;
    }
    if (position == start || position >= size || data[position] != stop || value > UINT32_MAX) {
        return false;
    }
    number = static_cast<unsigned int>(value);
    ++position;
    return true;
}

// The server's ParseClientRecord accepts nearly anything that has two colons
// and reports every oddity to the diagnostic log and the debug channels. A log
// reader meets damaged records by the million and needs to tell a client
// record from noise quietly and fast, so it applies the same field rules more
// strictly: a known type character, a time that parses completely (seconds
// within the clock parser's int range), a non-empty name and, when the
// "!<first> <sequence>:" field is present, exactly that form. Whatever this
// accepts, the server's parser reads to the same fields.
bool ParseHeader(const char* data, size_t size, HeaderFields& fields) {
    if (size < 4) {
        return false;
    }
    const char type = data[0];
    if (type < '!' || type > '&') {
        return false;
    }
    const void* colon = memchr(data + 1, ':', size - 1 < 24 ? size - 1 : 24);
    if (colon == nullptr) {
        return false;
    }
    const size_t firstColon = static_cast<size_t>(static_cast<const char*>(colon) - data);
    if (!LogFormat::ParseRecordTime(data + 1, firstColon - 1, fields.blockTimeMs) ||
        fields.blockTimeMs / 1000 > INT_MAX) {
        return false;
    }
    const size_t nameStart = firstColon + 1;
    size_t nameEnd = nameStart;
    while (nameEnd < size && nameEnd - nameStart <= kMaximumClientNameLength &&
           data[nameEnd] != ':') {
        if (data[nameEnd] < '0' || data[nameEnd] > 'z') {
            return false;
        }
        ++nameEnd;
    }
    if (nameEnd >= size || data[nameEnd] != ':' || nameEnd == nameStart ||
        nameEnd - nameStart > kMaximumClientNameLength) {
        return false;
    }
    size_t payloadStart = nameEnd + 1;
    fields.hasSequence = false;
    if (payloadStart < size && data[payloadStart] == '!') {
        size_t position = payloadStart + 1;
        if (!ReadNumber(data, size, position, ' ', fields.firstNumber) ||
            !ReadNumber(data, size, position, ':', fields.sequenceNumber)) {
            return false;
        }
        fields.hasSequence = true;
        payloadStart = position;
    }
    if (size < payloadStart + kChecksumFieldLength) {
        return false;
    }
    fields.typeCharacter = type;
    fields.nameStart = nameStart;
    fields.nameLength = nameEnd - nameStart;
    fields.payloadStart = payloadStart;
    return true;
}

}  // namespace

bool ParseLogClientRecord(const std::string& record, LogClientRecord& fields) {
    HeaderFields header;
    if (!ParseHeader(record.data(), record.size(), header)) {
        return false;
    }
    fields.typeCharacter = header.typeCharacter;
    fields.dataType = static_cast<unsigned int>(header.typeCharacter - ' ');
    fields.blockTimeMs = header.blockTimeMs;
    fields.clientName.assign(record, header.nameStart, header.nameLength);
    fields.hasSequence = header.hasSequence;
    fields.firstNumber = header.hasSequence ? header.firstNumber : 0;
    fields.sequenceNumber = header.hasSequence ? header.sequenceNumber : 0;
    fields.payloadStart = header.payloadStart;
    fields.payloadLength = record.size() - kChecksumFieldLength - header.payloadStart;
    return true;
}

bool LooksLikeClientRecord(const std::string& record) {
    HeaderFields header;
    return ParseHeader(record.data(), record.size(), header);
}

bool LogRecordChecksumValid(const char* record, size_t length) {
    // CheckSumValid writes every mismatch to the diagnostic log; a reader of
    // damaged logs checks silently.
    if (length > UINT_MAX) {
        return false;
    }
    const unsigned int end = ChecksumFieldEnd(record, static_cast<unsigned int>(length));
    return end >= 8 && ReadChecksumField(record + end - 8) == ComputeChecksum(record, end - 8);
}

bool SplitLogItemTime(const char* item, size_t length, int64_t& timeMs, size_t& dataStart) {
    const void* colon = memchr(item, ':', length < 24 ? length : 24);
    if (colon == nullptr) {
        return false;
    }
    const size_t timeLength = static_cast<size_t>(static_cast<const char*>(colon) - item);
    if (!LogFormat::ParseRecordTime(item, timeLength, timeMs)) {
        return false;
    }
    dataStart = timeLength + 1;
    return true;
}

}  // namespace ReplayCore
