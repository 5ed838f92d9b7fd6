#ifndef LOGGER_CHANNELPARSERS_H
#define LOGGER_CHANNELPARSERS_H

// Byte-stream parsers for the three device channels. A pipe read may end in
// the middle of a record, so each parser keeps the unfinished part for the
// next read.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace MulticoreLogService {

// Replay records, each "%4d|" and a payload of at most 2043 bytes.
class RecordChannelParser {
  public:
    using RecordHandler = std::function<void(const char* framed, size_t length)>;

    explicit RecordChannelParser(RecordHandler handler) : m_handler(std::move(handler)) {}
    void Feed(const char* data, size_t length);
    // A writer went away: an unfinished record can never complete.
    void Reset();
    // Bytes that could not be framed as records and were dropped.
    uint64_t MalformedBytes() const { return m_malformedBytes; }

  private:
    // Consumes what it can from [data, data + length); returns the count.
    size_t Parse(const char* data, size_t length);

    RecordHandler m_handler;
    std::string m_pending;
    uint64_t m_malformedBytes = 0;
};

// Console batches: repeated [console code][length][text].
class ConsoleChannelParser {
  public:
    using LineHandler = std::function<void(char console, const char* text, size_t length)>;

    explicit ConsoleChannelParser(LineHandler handler) : m_handler(std::move(handler)) {}
    void Feed(const char* data, size_t length);
    void Reset() { m_pending.clear(); }

  private:
    LineHandler m_handler;
    std::string m_pending;
};

// Plain text, cut into lines; a line longer than kMaxLine is cut there.
class TextChannelParser {
  public:
    static constexpr size_t kMaxLine = 4096;
    using LineHandler = std::function<void(const char* text, size_t length)>;

    explicit TextChannelParser(LineHandler handler) : m_handler(std::move(handler)) {}
    void Feed(const char* data, size_t length);
    // Hands on an unfinished last line.
    void Flush();

  private:
    LineHandler m_handler;
    std::string m_pending;
};

}  // namespace MulticoreLogService

#endif
