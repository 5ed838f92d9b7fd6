#include "libreplay/server/ClientRecord.h"

#include <cstdio>
#include <cstring>

#include "ReplayManager/ExecutionTimer.h"
#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"

namespace ReplayCore {

namespace {

const char kHexDigits[] = "0123456789abcdef";

bool IsLineEnd(char c) {
    return c == '\r' || c == '\n';
}

int HexDigitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// "%8x": lower-case hex, right-aligned in eight places, padded with spaces.
void FormatChecksumField(uint32_t sum, char* field) {
    int position = 7;
    do {
        field[position--] = kHexDigits[sum & 0xF];
        sum >>= 4;
    } while (sum != 0);
    while (position >= 0) {
        field[position--] = ' ';
    }
}

}  // namespace

// The form every writer produces (spaces, then hex digits to the end) is read
// directly; anything else goes through sscanf so that odd fields read the same
// way.
unsigned int ReadChecksumField(const char* field) {
    unsigned int position = 0;
    while (position < 8 && field[position] == ' ') {
        ++position;
    }
    unsigned int value = 0;
    bool plain = position < 8;
    for (unsigned int i = position; i < 8 && plain; ++i) {
        const int digit = HexDigitValue(field[i]);
        plain = digit >= 0;
        value = value << 4 | static_cast<unsigned int>(digit);
    }
    if (plain) {
        return value;
    }
    char text[9];
    std::memcpy(text, field, 8);
    text[8] = 0;
    value = 0;
    if (std::sscanf(text, "%x", &value) != 1) {
        value = 0;
    }
    return value;
}

unsigned int ChecksumFieldEnd(const char* line, unsigned int length) {
    if (length >= 2 && IsLineEnd(line[length - 2])) {
        return length - 2;
    }
    if (length >= 1 && IsLineEnd(line[length - 1])) {
        return length - 1;
    }
    return length;
}

uint32_t ComputeChecksum(const char* data, unsigned int length) {
    // A signed byte is its unsigned value with the top bit flipped, minus 128.
    // Eight flipped bytes are summed at a time in four 16-bit lanes, which
    // hold up to 128 words before they are folded into the total.
    constexpr uint64_t kTopBits = 0x8080808080808080ull;
    constexpr uint64_t kLowBytes = 0x00FF00FF00FF00FFull;
    constexpr unsigned int kWordsPerFold = 128;
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
    uint32_t sum = 0;
    unsigned int i = 0;
    while (length - i >= 8) {
        unsigned int words = (length - i) / 8;
        if (words > kWordsPerFold) {
            words = kWordsPerFold;
        }
        uint64_t lanes = 0;
        for (unsigned int w = 0; w < words; ++w, i += 8) {
            uint64_t word;
            std::memcpy(&word, bytes + i, sizeof word);
            word ^= kTopBits;
            lanes += (word & kLowBytes) + ((word >> 8) & kLowBytes);
        }
        lanes = (lanes & 0x0000FFFF0000FFFFull) + ((lanes >> 16) & 0x0000FFFF0000FFFFull);
        sum += static_cast<uint32_t>(lanes + (lanes >> 32)) - 128u * 8u * words;
    }
    for (; i < length; ++i) {
        sum += static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(bytes[i])));
    }
    return sum;
}

int AppendChecksum(char* buffer, unsigned int length, unsigned int bufferSize,
                   unsigned int& checksum) {
    checksum = ComputeChecksum(buffer, length);
    if (buffer == nullptr || static_cast<uint64_t>(length) + kChecksumFieldLength > bufferSize) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Buffer not large enough\n", DebugAppName(),
                     "libReplay::ReplayCore::AppendChecksum");
        }
        return -1;
    }
    FormatChecksumField(checksum, buffer + length);
    buffer[length + 8] = '\n';
    const unsigned int newLength = length + kChecksumFieldLength;
    if (newLength < bufferSize) {
        buffer[newLength] = 0;
    }
    return static_cast<int>(newLength);
}

bool CheckSumValid(const char* line, unsigned int length) {
    static const char* const kTag = "libReplay::ReplayCore::CheckSumValid";
    if (length == 0 || line == nullptr) {
        if (DebugOutputAttached()) {
            dbgWarning("%s::%s: Zero Length line passed to CheckSumValid\n", DebugAppName(), kTag);
        }
        return false;
    }
    const unsigned int end = ChecksumFieldEnd(line, length);
    if (end < 8) {
        // No room for the checksum field at all.
        if (DebugOutputAttached()) {
            dbgWarning("%s::%s: Line of Length %u too short for a CheckSum\n", DebugAppName(), kTag,
                       length);
        }
        return false;
    }
    const char* field = line + end - 8;
    const unsigned int expected = ReadChecksumField(field);
    const uint32_t computed = ComputeChecksum(line, end - 8);
    if (expected == computed) {
        return true;
    }
    char report[196];
    std::snprintf(report, sizeof report,
                  "Length of CheckSum string=%d; Checksum String:%.*s; Computed CheckSum: %x; Last "
                  "2 Bytes:%x %x;",
                  static_cast<int>(end), static_cast<int>(length - (end - 8)), field, computed,
                  static_cast<unsigned char>(line[end - 2]),
                  static_cast<unsigned char>(line[end - 1]));
    FileLogger::LogToFile(FileLogger::eSeverityInfo, "%s", report);
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: %s\n", DebugAppName(), kTag, report);
    }
    char full[196];
    std::snprintf(full, sizeof full, "Full String:%.*s", static_cast<int>(length), line);
    FileLogger::LogToFile(FileLogger::eSeverityInfo, "%s", full);
    return false;
}

RecordWriter::RecordWriter(char* buffer, unsigned int size, unsigned int length)
    : m_buffer(buffer), m_size(size), m_length(0), m_truncated(false) {
    if (m_buffer == nullptr || m_size == 0) {
        m_size = 0;
        m_truncated = true;
        return;
    }
    m_length = length < m_size ? length : m_size - 1;
    m_truncated = length >= m_size;
    m_buffer[m_length] = 0;
}

RecordWriter& RecordWriter::Bytes(const void* data, unsigned int count) {
    if (m_size == 0) {
        return *this;
    }
    const unsigned int room = m_size - 1 - m_length;
    if (count > room) {
        count = room;
        m_truncated = true;
    }
    if (count > 0 && data != nullptr) {
        std::memcpy(m_buffer + m_length, data, count);
        m_length += count;
    }
    m_buffer[m_length] = 0;
    return *this;
}

RecordWriter& RecordWriter::Char(char c) {
    if (m_size != 0 && m_length + 1 < m_size) {
        m_buffer[m_length++] = c;
        m_buffer[m_length] = 0;
    } else {
        m_truncated = true;
    }
    return *this;
}

RecordWriter& RecordWriter::Text(const char* text) {
    return text != nullptr ? Bytes(text, static_cast<unsigned int>(std::strlen(text))) : *this;
}

RecordWriter& RecordWriter::Unsigned(unsigned int value) {
    char digits[10];
    unsigned int count = 0;
    do {
        digits[sizeof digits - 1 - count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    return Bytes(digits + sizeof digits - count, count);
}

RecordWriter& RecordWriter::Time(const MSTime::MSTimeStruct& time) {
    // Seconds truncated toward zero, then the magnitude of the rest in three
    // digits, exactly as "%ld.%03ld" of ToString.
    const int64_t milliseconds = time.m_timeMilliseconds;
    const int64_t seconds = milliseconds / 1000;
    int64_t rest = milliseconds - seconds * 1000;
    if (rest < 0) {
        rest = -rest;
    }
    char text[24];
    unsigned int count = 0;
    uint64_t magnitude = seconds < 0 ? 0 - static_cast<uint64_t>(seconds) : seconds;
    char digits[20];
    unsigned int digitCount = 0;
    do {
        digits[digitCount++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (seconds < 0) {
        text[count++] = '-';
    }
    while (digitCount > 0) {
        text[count++] = digits[--digitCount];
    }
    text[count++] = '.';
    text[count++] = static_cast<char>('0' + rest / 100);
    text[count++] = static_cast<char>('0' + rest / 10 % 10);
    text[count++] = static_cast<char>('0' + rest % 10);
    return Bytes(text, count);
}

unsigned int WriteDataBlockHeader(char* buffer, unsigned int size, char typeCharacter,
                                  const MSTime::MSTimeStruct& blockTime, const char* clientName,
                                  unsigned int sequence) {
    RecordWriter writer(buffer, size);
    writer.Char(typeCharacter)
        .Time(blockTime)
        .Char(':')
        .Text(clientName)
        .Char(':')
        .Char('!')
        .Unsigned(1)
        .Char(' ')
        .Unsigned(sequence)
        .Char(':');
    return writer.Length();
}

unsigned int WriteItemSeparator(char* buffer, unsigned int size,
                                const MSTime::MSTimeStruct& itemTime) {
    RecordWriter writer(buffer, size);
    writer.Char(static_cast<char>(kItemSeparator)).Time(itemTime).Char(':');
    return writer.Length();
}

unsigned int WriteStatusRecord(char* buffer, unsigned int size, const MSTime::MSTimeStruct& time,
                               const char* clientName, const char* message,
                               unsigned int messageLength) {
    RecordWriter writer(buffer, size);
    writer.Char(static_cast<char>(kDataTypeStatusText + 32))
        .Time(time)
        .Char(':')
        .Text(clientName)
        .Char(':');
    if (message != nullptr && messageLength > 0) {
        writer.Bytes(message, messageLength);
    }
    return writer.Length();
}

bool DataBlockTypeCharacter(unsigned int dataType, char& typeCharacter) {
    if (dataType == kDataTypeNormalizedAsciiText) {
        typeCharacter = '!';
    } else if (dataType == kDataTypeAsciiEncodedBinary || dataType == kDataTypeBinary) {
        typeCharacter = '$';
    } else {
        typeCharacter = '"';
        return dataType == kDataTypeAsciiText;
    }
    return true;
}

}  // namespace ReplayCore

bool ClientNameValid(const std::string& name) {
    if (name.size() > ReplayCore::kMaximumClientNameLength) {
        return false;
    }
    for (char c : name) {
        if (c < '0' || c > 'z') {
            return false;
        }
    }
    return true;
}

namespace {

// Times the whole of one call, whichever way it returns.
class ScopedExecutionTimer {
  public:
    explicit ScopedExecutionTimer(ReplayCore::ExecutionTimer& timer) : m_timer(timer) {
        m_timer.Start();
    }
    ~ScopedExecutionTimer() { m_timer.Stop(); }
    ScopedExecutionTimer(const ScopedExecutionTimer&) = delete;
    ScopedExecutionTimer& operator=(const ScopedExecutionTimer&) = delete;

  private:
    ReplayCore::ExecutionTimer& m_timer;
};

}  // namespace

bool ParseClientRecord(const std::string& record, std::string& clientName,
                       ReplayCore::MSTime::MSTimeStruct& time, unsigned int& dataType,
                       unsigned int& firstNumber, unsigned int& sequenceNumber,
                       unsigned int& payloadLength, unsigned int& payloadStart) {
    using ReplayCore::FileLogger;
    static const char* const kTag = "ReplayServer::ReplayLogManager::ParseClientRecord";
    static ReplayCore::ExecutionTimer& timer =
        ReplayCore::ExecutionTimerManager::Get().GetTimer("ParseClientRecord");
    ScopedExecutionTimer timed(timer);

    const size_t firstColon = record.find(':');
    if (firstColon == std::string::npos) {
        if (DebugOutputAttached()) {
            dbgWarning("%s::%s: First Colon Missing in %s\n", DebugAppName(), kTag,
                       FileLogger::FormatDebugText(record.c_str(), 50).c_str());
        }
        return false;
    }
    dataType = DataTypeFromChar(record[0]);
    if (!DataTypeValid(dataType)) {
        FileLogger::LogAssertion(277, "ReplayManager/ReplayLogger", "DataTypeValid(dataType)");
        return false;
    }
    time = ReplayCore::MSTime::MSTimeStruct(firstColon > 1 ? record.substr(1, firstColon - 1)
                                                           : std::string());

    const size_t secondColon = record.find(':', firstColon + 1);
    if (secondColon == std::string::npos) {
        if (DebugOutputAttached()) {
            dbgWarning("%s::%s: Second Colon Missing in %s\n", DebugAppName(), kTag,
                       FileLogger::FormatDebugText(record.c_str(), 50).c_str());
        }
        return false;
    }
    clientName = record.substr(firstColon + 1, secondColon - firstColon - 1);
    if (!ClientNameValid(clientName)) {
        if (DebugOutputAttached()) {
            dbgWarning("%s::%s: Invalid Client Name %s\n", DebugAppName(), kTag,
                       clientName.c_str());
        }
        return false;
    }

    size_t start = secondColon + 1;
    if (start < record.size() && record[start] == '!') {
        const size_t numbersEnd = record.find(':', start + 1);
        const std::string numbers =
            record.substr(start + 1, numbersEnd == std::string::npos ? std::string::npos
                                                                     : numbersEnd - start - 1);
        unsigned int first = firstNumber;
        unsigned int sequence = sequenceNumber;
        std::sscanf(numbers.c_str(), "%u %u", &first, &sequence);
        firstNumber = first;
        sequenceNumber = sequence;
        // Without a closing colon the record holds no payload at all.
        start = numbersEnd == std::string::npos ? record.size() : numbersEnd + 1;
    }
    payloadStart = static_cast<unsigned int>(start);
    // A record too short to carry its checksum trailer has an empty payload.
    payloadLength =
        record.size() >= start + ReplayCore::kChecksumFieldLength
            ? static_cast<unsigned int>(record.size() - ReplayCore::kChecksumFieldLength - start)
            : 0;
    return true;
}
