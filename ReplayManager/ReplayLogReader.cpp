#include "libreplay/server/ReplayLogReader.h"

#include <fcntl.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayLogRecord.h"
#include "libreplay/server/ReplayLogger.h"
#include "reference/src/file_io.h"

namespace ReplayCore {

namespace {

// "Q\t[-M-] \t" and "multicore".
const char* const kMarker = SpecialStrings::kReplayMarker;
const char* const kLoggingSystemName = SpecialStrings::kLoggingSystem;
const char kReconnectText[] = "reconnecting";

const unsigned char kEscapedCarriageReturn = ReplayLogger::kEscapedCarriageReturn;
const unsigned char kEscapedLineFeed = ReplayLogger::kEscapedLineFeed;

// Enough for the longest stored record (marker, framing, every payload byte
// doubled by CR LF, a line end) plus the next marker.
constexpr size_t kWindow = 8192;
static_assert(LogFormat::kMaxRecordLength == ReplayLogger::kMaximumRecordSize &&
                  LogFormat::kMaxPayloadLength + ReplayLogger::kFramingLength ==
                      ReplayLogger::kMaximumRecordSize,
              "the reader's limits are the server's");
static_assert(LogFormat::kMarkerLength + 5 + 2 * LogFormat::kMaxPayloadLength + 2 +
                      LogFormat::kMarkerLength <
                  kWindow,
              "the read window must hold a whole stored record");

// Re-attach lines are short; a longer line is not one.
constexpr size_t kMaxReconnectLine = 256;

bool LineContains(const char* data, size_t length, const char* text) {
    const void* lineEnd = memchr(data, '\n', length);
    if (lineEnd != nullptr) {
        length = static_cast<size_t>(static_cast<const char*>(lineEnd) - data);
    }
    return memmem(data, length, text, strlen(text)) != nullptr;
}

// The "%4d" length field: blanks, then one to four digits.
bool ParseLengthField(const char* field, size_t& length) {
    size_t i = 0;
    while (i < 4 && field[i] == ' ') {
        ++i;
    }
    if (i == 4) {
        return false;
    }
    size_t value = 0;
    for (; i < 4; ++i) {
        if (field[i] < '0' || field[i] > '9') {
            return false;
        }
        value = value * 10 + static_cast<size_t>(field[i] - '0');
    }
    length = value;
    return true;
}

}  // namespace

namespace LogFormat {

const char* StoredMarker() {
    return kMarker;
}

bool FrameRecord(const std::string& payload, std::string& framed) {
    // The server's own framing, so that a log written by the tools holds
    // exactly what the server would have written.
    char record[ReplayLogger::kMaximumRecordSize];
    const int length = ReplayLogger::FrameRecord(payload, record);
    if (length < 0) {
        framed.clear();
        return false;
    }
    framed.assign(record, static_cast<size_t>(length));
    return true;
}

void AppendStoredRecord(const char* framed, size_t length, std::string& out) {
    out.append(kMarker, kMarkerLength);
    const char* position = framed;
    const char* end = framed + length;
    while (position < end) {
        const void* found = memchr(position, '\n', static_cast<size_t>(end - position));
        if (found == nullptr) {
            out.append(position, static_cast<size_t>(end - position));
            break;
        }
        const char* lineFeed = static_cast<const char*>(found);
        out.append(position, static_cast<size_t>(lineFeed - position));
        out.append("\r\n", 2);
        position = lineFeed + 1;
    }
    // The next record must start a line of its own.
    if (length <= 5 || framed[length - 1] != '\n') {
        out.append("\r\n", 2);
    }
}

void AppendReconnectLine(std::string& out) {
    out.append(kMarker, kMarkerLength);
    out.append(kReconnectText);
    out.append("\r\n", 2);
}

std::string FormatRecordTime(int64_t timeMs) {
    const int64_t seconds = timeMs / 1000;
    int64_t rest = timeMs - seconds * 1000;
    if (rest < 0) {
        rest = -rest;
    }
    char text[48];
    snprintf(text, sizeof text, "%" PRId64 ".%03" PRId64, seconds, rest);
    return text;
}

std::string HeaderPayload(int64_t startTimeMs) {
    return "!" + FormatRecordTime(startTimeMs) + ":" + kLoggingSystemName + ":\n";
}

bool ParseRecordTime(const char* text, size_t length, int64_t& timeMs) {
    // Seconds and the digits after the point are read as two whole numbers,
    // so "7.25" is 7025 ms, as the clock's own parser reads it.
    size_t i = 0;
    int64_t seconds = 0;
    while (i < length && text[i] >= '0' && text[i] <= '9') {
        if (i >= 12) {
            return false;
        }
        seconds = seconds * 10 + (text[i] - '0');
        ++i;
    }
    if (i == 0) {
        return false;
    }
    int64_t milliseconds = 0;
    if (i < length) {
        if (text[i] != '.') {
            return false;
        }
        ++i;
        const size_t fractionStart = i;
        while (i < length && text[i] >= '0' && text[i] <= '9') {
            if (i - fractionStart >= 9) {
                return false;
            }
            milliseconds = milliseconds * 10 + (text[i] - '0');
            ++i;
        }
        if (i != length) {
            return false;
        }
    }
    timeMs = seconds * 1000 + milliseconds;
    return true;
}

bool ParseHeaderPayload(const std::string& payload, int64_t& timeMs) {
    if (payload.size() < 4 || payload[0] != '!') {
        return false;
    }
    const size_t colon = payload.find(':', 1);
    if (colon == std::string::npos) {
        return false;
    }
    const std::string tail = std::string(":") + kLoggingSystemName + ":";
    if (payload.compare(colon, tail.size(), tail) != 0) {
        return false;
    }
    const size_t rest = colon + tail.size();
    if (!(rest == payload.size() || (rest + 1 == payload.size() && payload[rest] == '\n') ||
          (rest + 2 == payload.size() && payload.compare(rest, 2, "\r\n") == 0))) {
        return false;
    }
    return ParseRecordTime(payload.data() + 1, colon - 1, timeMs);
}

}  // namespace LogFormat

const char* LogSkipKindName(LogSkip::Kind kind) {
    switch (kind) {
        case LogSkip::kGarbage:
            return "garbage";
        case LogSkip::kBadFraming:
            return "bad framing";
        case LogSkip::kTruncated:
            return "truncated record";
        case LogSkip::kReconnect:
            return "reconnect";
    }
    return "unknown";
}

ReplayLogReader::ReplayLogReader(size_t bufferSize)
    : m_buffer(bufferSize < kMinimumBufferSize ? kMinimumBufferSize : bufferSize) {}

ReplayLogReader::~ReplayLogReader() {
    Reset();
}

void ReplayLogReader::Reset() {
    if (m_fd >= 0) {
        ReplayPlatform::CloseDescriptor(m_fd);
    }
    m_fd = -1;
    m_memory = nullptr;
    m_memorySize = 0;
    m_memoryPosition = 0;
    m_begin = 0;
    m_end = 0;
    m_bufferOffset = 0;
    m_endOfInput = true;
    m_readFailed = false;
    m_lastError.clear();
    m_segment = 0;
    m_skipCount = 0;
    m_skippedBytes = 0;
    m_reconnectCount = 0;
    m_skips.clear();
}

bool ReplayLogReader::Open(const std::string& path) {
    Reset();
    m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0) {
        m_lastError = path + ": " + strerror(errno);
        return false;
    }
    m_endOfInput = false;
    return true;
}

void ReplayLogReader::OpenMemory(const char* data, size_t size) {
    Reset();
    m_memory = data;
    m_memorySize = data != nullptr ? size : 0;
    m_endOfInput = false;
}

void ReplayLogReader::Fill(size_t wanted) {
    if (Available() >= wanted || m_endOfInput) {
        return;
    }
    if (m_begin + wanted > m_buffer.size()) {
        const size_t available = Available();
        memmove(m_buffer.data(), m_buffer.data() + m_begin, available);
        m_bufferOffset += m_begin;
        m_begin = 0;
        m_end = available;
    }
    while (Available() < wanted && !m_endOfInput) {
        const size_t room = m_buffer.size() - m_end;
        if (m_fd >= 0) {
            const ssize_t got = ReplayPlatform::ReadSome(m_fd, m_buffer.data() + m_end, room);
            if (got < 0) {
                m_readFailed = true;
                m_lastError = std::string("read failed: ") + strerror(errno);
            }
            if (got <= 0) {
                m_endOfInput = true;
                break;
            }
            m_end += static_cast<size_t>(got);
        } else {
            const size_t left = m_memorySize - m_memoryPosition;
            const size_t count = left < room ? left : room;
            if (count > 0) {
                memcpy(m_buffer.data() + m_end, m_memory + m_memoryPosition, count);
            }
            m_memoryPosition += count;
            m_end += count;
            if (m_memoryPosition == m_memorySize) {
                m_endOfInput = true;
            }
        }
    }
}

size_t ReplayLogReader::FindMarker(size_t from) const {
    if (from >= m_end) {
        return m_end;
    }
    const void* found =
        memmem(m_buffer.data() + from, m_end - from, kMarker, LogFormat::kMarkerLength);
    if (found != nullptr) {
        return static_cast<size_t>(static_cast<const char*>(found) - m_buffer.data());
    }
    if (m_endOfInput) {
        return m_end;
    }
    // Keep a possible partial marker at the end for the next fill.
    const size_t keep = LogFormat::kMarkerLength - 1;
    return m_end - from > keep ? m_end - keep : from;
}

void ReplayLogReader::AddSkip(LogSkip::Kind kind, uint64_t offset, uint64_t length) {
    if (length == 0) {
        return;
    }
    if (kind == LogSkip::kReconnect) {
        ++m_reconnectCount;
    } else {
        m_skippedBytes += length;
        // Garbage found in several pieces across buffer refills is one skip.
        if (!m_skips.empty() && m_skips.back().kind == kind && kind == LogSkip::kGarbage &&
            m_skips.back().offset + m_skips.back().length == offset) {
            m_skips.back().length += length;
            return;
        }
        ++m_skipCount;
    }
    if (m_skips.size() < kMaxKeptSkips) {
        m_skips.push_back(LogSkip{kind, offset, length});
    }
}

ReplayLogReader::ParseResult ReplayLogReader::ParseAt(size_t position, LogRecord& record,
                                                      size_t& consumed) {
    const char* data = m_buffer.data();
    const size_t end = m_end;
    const size_t field = position + LogFormat::kMarkerLength;
    size_t length = 0;
    const bool fieldComplete = end >= field + 5;
    if (!fieldComplete || !ParseLengthField(data + field, length) || data[field + 4] != '|' ||
        length > LogFormat::kMaxPayloadLength) {
        const size_t lineLength = end - field < kMaxReconnectLine ? end - field : kMaxReconnectLine;
        if (LineContains(data + field, lineLength, kReconnectText)) {
            const void* lineEnd = memchr(data + field, '\n', lineLength);
            consumed =
                lineEnd != nullptr
                    ? static_cast<size_t>(static_cast<const char*>(lineEnd) - data) + 1 - position
                    : field + lineLength - position;
            return ParseResult::kReconnect;
        }
        return fieldComplete || !m_endOfInput ? ParseResult::kBadFraming : ParseResult::kTruncated;
    }

    // The payload: CR LF stands for a line feed, every other byte for itself.
    std::string& payload = record.payload;
    payload.clear();
    size_t stored = field + 5;
    while (payload.size() < length) {
        if (stored >= end) {
            return ParseResult::kTruncated;
        }
        const size_t needed = length - payload.size();
        const size_t window = needed < end - stored ? needed : end - stored;
        const void* found = memchr(data + stored, '\r', window);
        if (found == nullptr) {
            payload.append(data + stored, window);
            stored += window;
            continue;
        }
        const size_t plain = static_cast<size_t>(static_cast<const char*>(found) - (data + stored));
        payload.append(data + stored, plain);
        stored += plain;
        if (stored + 1 < end && data[stored + 1] == '\n') {
            payload.push_back('\n');
            stored += 2;
        } else {
            payload.push_back('\r');
            stored += 1;
        }
    }

    if (length == 0 || payload.back() != '\n') {
        // The line end that the service adds after such a payload.
        if (stored + 1 < end && data[stored] == '\r' && data[stored + 1] == '\n') {
            stored += 2;
        } else if (stored < end && data[stored] == '\n') {
            stored += 1;
        } else if (stored < end &&
                   (end - stored < LogFormat::kMarkerLength ||
                    memcmp(data + stored, kMarker, LogFormat::kMarkerLength) != 0)) {
            // The length field does not match the stored line.
            return ParseResult::kBadFraming;
        }
    }

    if (length >= 2 && payload[0] == '!') {
        for (size_t i = 0; i + 1 < length; ++i) {
            const unsigned char byte = static_cast<unsigned char>(payload[i]);
            if (byte == '\n') {
                // An escaped payload is one stored line; this one ended early.
                return ParseResult::kBadFraming;
            }
            if (byte == kEscapedCarriageReturn) {
                payload[i] = '\r';
            } else if (byte == kEscapedLineFeed) {
                payload[i] = '\n';
            }
        }
    }

    int64_t headerTime = 0;
    if (LogFormat::ParseHeaderPayload(payload, headerTime)) {
        record.kind = LogRecordKind::kHeader;
    } else if (LooksLikeClientRecord(payload)) {
        record.kind = LogRecordKind::kClient;
    } else {
        record.kind = LogRecordKind::kOther;
    }
    consumed = stored - position;
    return ParseResult::kRecord;
}

bool ReplayLogReader::Next(LogRecord& record) {
    for (;;) {
        Fill(kWindow);
        if (Available() == 0) {
            return false;
        }
        const size_t position = m_begin;
        const uint64_t offset = m_bufferOffset + position;
        const char* data = m_buffer.data() + position;

        if (Available() >= LogFormat::kMarkerLength &&
            memcmp(data, kMarker, LogFormat::kMarkerLength) == 0) {
            size_t consumed = 0;
            const ParseResult result = ParseAt(position, record, consumed);
            if (result == ParseResult::kRecord) {
                if (record.kind == LogRecordKind::kHeader) {
                    ++m_segment;
                }
                record.offset = offset;
                record.segment = m_segment;
                m_begin += consumed;
                return true;
            }
            if (result == ParseResult::kReconnect) {
                AddSkip(LogSkip::kReconnect, offset, consumed);
                m_begin += consumed;
                continue;
            }
            const size_t next = FindMarker(position + 1);
            AddSkip(result == ParseResult::kTruncated ? LogSkip::kTruncated : LogSkip::kBadFraming,
                    offset, next - position);
            m_begin = next;
            continue;
        }

        // Not a record: a re-attach line written without the marker, or
        // garbage up to the next marker.
        const size_t lineWindow = Available() < kMaxReconnectLine ? Available() : kMaxReconnectLine;
        const void* lineEnd = memchr(data, '\n', lineWindow);
        if (lineEnd != nullptr) {
            const size_t lineLength =
                static_cast<size_t>(static_cast<const char*>(lineEnd) - data) + 1;
            if (LineContains(data, lineLength, kReconnectText)) {
                AddSkip(LogSkip::kReconnect, offset, lineLength);
                m_begin += lineLength;
                continue;
            }
        }
        size_t next = FindMarker(position);
        if (next == position) {
            // Only a partial marker is left before a refill; take one byte.
            next = position + 1;
        }
        AddSkip(LogSkip::kGarbage, offset, next - position);
        m_begin = next;
    }
}

}  // namespace ReplayCore
