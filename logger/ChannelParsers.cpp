#include "logger/ChannelParsers.h"

#include <cstring>

#include "libreplay/server/ReplayLogReader.h"

namespace MulticoreLogService {

namespace {

constexpr size_t kFieldLength = 5;  // "%4d|"

// 1: a valid field with its payload length; 0: not enough bytes; -1: invalid.
int ParseField(const char* data, size_t length, size_t& payloadLength) {
    if (length < kFieldLength) {
        return 0;
    }
    size_t i = 0;
    while (i < 4 && data[i] == ' ') {
        ++i;
    }
    if (i == 4 || data[4] != '|') {
        return -1;
    }
    size_t value = 0;
    for (; i < 4; ++i) {
        if (data[i] < '0' || data[i] > '9') {
            return -1;
        }
        value = value * 10 + static_cast<size_t>(data[i] - '0');
    }
    if (value > ReplayCore::LogFormat::kMaxPayloadLength) {
        return -1;
    }
    payloadLength = value;
    return 1;
}

}  // namespace

size_t RecordChannelParser::Parse(const char* data, size_t length) {
    size_t position = 0;
    while (position < length) {
        size_t payloadLength = 0;
        const int field = ParseField(data + position, length - position, payloadLength);
        if (field == 0) {
            break;
        }
        if (field < 0) {
            // Drop up to the next line end: records normally end there, so the
            // stream is most likely back in step after it.
            const void* lineEnd = memchr(data + position, '\n', length - position);
            const size_t dropped =
                lineEnd != nullptr
                    ? static_cast<size_t>(static_cast<const char*>(lineEnd) - (data + position)) + 1
                    : length - position;
            m_malformedBytes += dropped;
            position += dropped;
            continue;
        }
        if (length - position < kFieldLength + payloadLength) {
            break;
        }
        m_handler(data + position, kFieldLength + payloadLength);
        position += kFieldLength + payloadLength;
    }
    return position;
}

void RecordChannelParser::Feed(const char* data, size_t length) {
    if (!m_pending.empty()) {
        // Complete the unfinished record first; it is at most 2048 bytes.
        const size_t before = m_pending.size();
        const size_t take = length < ReplayCore::LogFormat::kMaxRecordLength
                                ? length
                                : ReplayCore::LogFormat::kMaxRecordLength;
        m_pending.append(data, take);
        const size_t used = Parse(m_pending.data(), m_pending.size());
        if (used < before) {
            // Still unfinished: everything fed so far is pending.
            m_pending.erase(0, used);
            m_pending.append(data + take, length - take);
            return;
        }
        m_pending.clear();
        const size_t fromNew = used - before;
        data += fromNew;
        length -= fromNew;
    }
    const size_t used = Parse(data, length);
    m_pending.assign(data + used, length - used);
}

void RecordChannelParser::Reset() {
    m_malformedBytes += m_pending.size();
    m_pending.clear();
}

void ConsoleChannelParser::Feed(const char* data, size_t length) {
    m_pending.append(data, length);
    size_t position = 0;
    while (m_pending.size() - position >= 2) {
        const size_t textLength = static_cast<unsigned char>(m_pending[position + 1]);
        if (m_pending.size() - position < 2 + textLength) {
            break;
        }
        m_handler(m_pending[position], m_pending.data() + position + 2, textLength);
        position += 2 + textLength;
    }
    m_pending.erase(0, position);
}

void TextChannelParser::Feed(const char* data, size_t length) {
    const char* end = data + length;
    while (data < end) {
        const void* found = memchr(data, '\n', static_cast<size_t>(end - data));
        const char* lineEnd = found != nullptr ? static_cast<const char*>(found) : end;
        m_pending.append(data, static_cast<size_t>(lineEnd - data));
        if (found != nullptr || m_pending.size() >= kMaxLine) {
            m_handler(m_pending.data(), m_pending.size());
            m_pending.clear();
        }
        data = found != nullptr ? lineEnd + 1 : end;
    }
}

void TextChannelParser::Flush() {
    if (!m_pending.empty()) {
        m_handler(m_pending.data(), m_pending.size());
        m_pending.clear();
    }
}

}  // namespace MulticoreLogService
