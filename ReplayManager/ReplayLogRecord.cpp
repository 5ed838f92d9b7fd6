#include "libreplay/ReplayLogRecord.h"

#include <cstring>

#include "libreplay/ReplayLogReader.h"

namespace ReplayCore {

namespace {

constexpr size_t kChecksumSuffix = 9;
constexpr size_t kMaxClientName = 20;

bool NameCharacterValid(char c) {
    return c >= '0' && c <= 'z';
}

}  // namespace

bool ParseLogClientRecord(const std::string& record, LogClientRecord& fields) {
    if (record.size() < 4) {
        return false;
    }
    const char type = record[0];
    if (type < '!' || type > '&') {
        return false;
    }
    const size_t firstColon = record.find(':', 1);
    if (firstColon == std::string::npos || firstColon > 24) {
        return false;
    }
    int64_t timeMs = 0;
    if (!LogFormat::ParseRecordTime(record.data() + 1, firstColon - 1, timeMs)) {
        return false;
    }
    const size_t nameStart = firstColon + 1;
    size_t nameEnd = nameStart;
    while (nameEnd < record.size() && nameEnd - nameStart <= kMaxClientName &&
           record[nameEnd] != ':') {
        if (!NameCharacterValid(record[nameEnd])) {
            return false;
        }
        ++nameEnd;
    }
    if (nameEnd >= record.size() || record[nameEnd] != ':' || nameEnd == nameStart ||
        nameEnd - nameStart > kMaxClientName) {
        return false;
    }
    size_t payloadStart = nameEnd + 1;
    bool hasSequence = false;
    unsigned int firstNumber = 0;
    unsigned int sequence = 0;
    if (payloadStart < record.size() && record[payloadStart] == '!') {
        // "!<first> <sequence>:"
        size_t i = payloadStart + 1;
        size_t digits = 0;
        uint64_t value = 0;
        while (i < record.size() && record[i] >= '0' && record[i] <= '9' && digits < 10) {
            value = value * 10 + static_cast<uint64_t>(record[i] - '0');
            ++i;
            ++digits;
        }
        if (digits == 0 || i >= record.size() || record[i] != ' ' || value > 0xFFFFFFFFu) {
            return false;
        }
        firstNumber = static_cast<unsigned int>(value);
        ++i;
        digits = 0;
        value = 0;
        while (i < record.size() && record[i] >= '0' && record[i] <= '9' && digits < 10) {
            value = value * 10 + static_cast<uint64_t>(record[i] - '0');
            ++i;
            ++digits;
        }
        if (digits == 0 || i >= record.size() || record[i] != ':' || value > 0xFFFFFFFFu) {
            return false;
        }
        sequence = static_cast<unsigned int>(value);
        hasSequence = true;
        payloadStart = i + 1;
    }
    if (record.size() < payloadStart + kChecksumSuffix) {
        return false;
    }
    fields.typeCharacter = type;
    fields.dataType = static_cast<unsigned int>(type - ' ');
    fields.blockTimeMs = timeMs;
    fields.clientName.assign(record, nameStart, nameEnd - nameStart);
    fields.hasSequence = hasSequence;
    fields.firstNumber = firstNumber;
    fields.sequenceNumber = sequence;
    fields.payloadStart = payloadStart;
    fields.payloadLength = record.size() - kChecksumSuffix - payloadStart;
    return true;
}

bool LooksLikeClientRecord(const std::string& record) {
    LogClientRecord fields;
    return ParseLogClientRecord(record, fields);
}

bool LogRecordChecksumValid(const char* record, size_t length) {
    size_t n = length;
    if (n >= 2 && (record[n - 2] == '\r' || record[n - 2] == '\n')) {
        n -= 2;
    } else if (n >= 1 && (record[n - 1] == '\r' || record[n - 1] == '\n')) {
        n -= 1;
    }
    if (n < 8) {
        return false;
    }
    uint32_t stored = 0;
    bool digits = false;
    for (size_t i = n - 8; i < n; ++i) {
        const char c = record[i];
        if (c == ' ' && !digits) {
            continue;
        }
        uint32_t value;
        if (c >= '0' && c <= '9') {
            value = static_cast<uint32_t>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            value = static_cast<uint32_t>(c - 'a' + 10);
        } else if (c >= 'A' && c <= 'F') {
            value = static_cast<uint32_t>(c - 'A' + 10);
        } else {
            return false;
        }
        stored = (stored << 4) | value;
        digits = true;
    }
    if (!digits) {
        return false;
    }
    uint32_t sum = 0;
    for (size_t i = 0; i < n - 8; ++i) {
        sum += static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(record[i])));
    }
    return sum == stored;
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
