#ifndef LIBREPLAY_SERVER_REPLAYLOGREADER_H
#define LIBREPLAY_SERVER_REPLAYLOGREADER_H

// Reading stored replay logs back record by record.
//
// Stored form of one record (what the logger service appends to the log
// file): the channel marker "Q\t[-M-] \t", the length field ("%4d"), '|' and
// the payload. Every line feed of the framed record is stored as CR LF, so a
// CR LF pair in the file always stands for one line feed of the record and
// every other byte stands for itself; the length field keeps counting the
// payload bytes as the server wrote them (without the added carriage returns).
// A record whose payload does not end in a line feed is followed by a CR LF
// of its own so that the next record starts a new line. Payloads starting with
// '!' carry their inner carriage returns and line feeds as the bytes 215 and
// 216; the reader restores them.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "libreplay/ReplayExport.h"

namespace ReplayCore {

namespace LogFormat {

constexpr size_t kMarkerLength = 9;
constexpr size_t kMaxPayloadLength = 2043;
constexpr size_t kMaxRecordLength = 2048;

// "Q\t[-M-] \t": starts every stored record.
REPLAY_API const char* StoredMarker();

// Frames `payload` as the replay server writes it to its channel
// (ReplayLogger::FrameRecord): "%4d|", then the payload with the 215/216
// escaping of '!' payloads. False (and
// `framed` empty) when the payload is longer than kMaxPayloadLength.
REPLAY_API bool FrameRecord(const std::string& payload, std::string& framed);

// Appends the stored form of one framed record, exactly as received on the
// channel, to `out`.
REPLAY_API void AppendStoredRecord(const char* framed, size_t length, std::string& out);

// Appends the line stored when a writer re-attaches to the channel.
REPLAY_API void AppendReconnectLine(std::string& out);

// "!<seconds.millis>:multicore:\n": the payload of a header record.
REPLAY_API std::string HeaderPayload(int64_t startTimeMs);

// True when `payload` is a header record; its start time goes to `timeMs`.
REPLAY_API bool ParseHeaderPayload(const std::string& payload, int64_t& timeMs);

// Parses "S", "S." or "S.mmm" the way record times are written; false for
// anything that is not such a time.
REPLAY_API bool ParseRecordTime(const char* text, size_t length, int64_t& timeMs);

// "%ld.%03ld" of a millisecond time.
REPLAY_API std::string FormatRecordTime(int64_t timeMs);

}  // namespace LogFormat

enum class LogRecordKind { kHeader, kClient, kOther };

struct LogRecord {
    LogRecordKind kind = LogRecordKind::kOther;
    // The payload as the server wrote it (escaping and CR LF undone).
    std::string payload;
    // File offset of the record's marker.
    uint64_t offset = 0;
    // Number of header records up to and including this one: records before
    // the first header are in segment 0.
    uint32_t segment = 0;
};

// A stretch of the file that held no readable record.
struct LogSkip {
    enum Kind {
        kGarbage,     // bytes that do not start with the marker
        kBadFraming,  // a marker whose length field or payload does not fit
        kTruncated,   // a record cut short by the end of the file
        kReconnect,   // the service's re-attach line
    };
    Kind kind;
    uint64_t offset;
    uint64_t length;
};

REPLAY_API const char* LogSkipKindName(LogSkip::Kind kind);

// Reads a stored log with a fixed-size buffer: memory stays bounded whatever
// the file size, and no allocation depends on a length read from the file.
class REPLAY_API ReplayLogReader {
  public:
    static constexpr size_t kDefaultBufferSize = 256 * 1024;
    static constexpr size_t kMinimumBufferSize = 16 * 1024;
    // Skips beyond this many are counted but their details are not kept.
    static constexpr size_t kMaxKeptSkips = 1000;

    explicit ReplayLogReader(size_t bufferSize = kDefaultBufferSize);
    ~ReplayLogReader();
    ReplayLogReader(const ReplayLogReader&) = delete;
    ReplayLogReader& operator=(const ReplayLogReader&) = delete;

    // False when the file cannot be opened; LastError() tells why.
    bool Open(const std::string& path);
    // Reads from memory that the caller keeps alive while reading.
    void OpenMemory(const char* data, size_t size);

    // The next record; false at the end of the input or after a read error.
    bool Next(LogRecord& record);

    const std::string& LastError() const { return m_lastError; }
    bool ReadFailed() const { return m_readFailed; }
    uint64_t BytesConsumed() const { return m_bufferOffset + m_begin; }

    uint64_t SkipCount() const { return m_skipCount; }
    uint64_t SkippedBytes() const { return m_skippedBytes; }
    uint64_t ReconnectCount() const { return m_reconnectCount; }
    // The first kMaxKeptSkips skips and re-attach lines, in file order.
    const std::vector<LogSkip>& Skips() const { return m_skips; }

  private:
    enum class ParseResult { kRecord, kReconnect, kBadFraming, kTruncated };

    void Reset();
    void Fill(size_t wanted);
    size_t Available() const { return m_end - m_begin; }
    ParseResult ParseAt(size_t position, LogRecord& record, size_t& consumed);
    size_t FindMarker(size_t from) const;
    void AddSkip(LogSkip::Kind kind, uint64_t offset, uint64_t length);

    std::vector<char> m_buffer;
    size_t m_begin = 0;
    size_t m_end = 0;
    uint64_t m_bufferOffset = 0;  // file offset of m_buffer[0]
    int m_fd = -1;
    const char* m_memory = nullptr;
    size_t m_memorySize = 0;
    size_t m_memoryPosition = 0;
    bool m_endOfInput = true;
    bool m_readFailed = false;
    std::string m_lastError;
    uint32_t m_segment = 0;
    uint64_t m_skipCount = 0;
    uint64_t m_skippedBytes = 0;
    uint64_t m_reconnectCount = 0;
    std::vector<LogSkip> m_skips;
};

}  // namespace ReplayCore

#endif
