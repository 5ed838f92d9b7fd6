#ifndef LIBREPLAY_SERVER_CLIENTRECORD_H
#define LIBREPLAY_SERVER_CLIENTRECORD_H

// The client record: the text line a client sends to the replay server and
// the server stores. A data record is
//   <type><block time>:<client name>:!1 <sequence>:<item>[0xDE<time>:<item>]...<checksum>
// and a status record is
//   #<time>:<client name>:[<message>]<checksum>
// where the checksum is the "%8x\n" text of the sum of every byte before it,
// each byte read as a signed 8-bit value.

#include <cstdint>
#include <string>

#include "libreplay/ReplayCore.h"
#include "libreplay/ReplayExport.h"
#include "libreplay/server/ReplayLogRecord.h"  // kItemSeparator

namespace ReplayCore {

// Length of the checksum trailer: eight hex digits and a newline.
constexpr unsigned int kChecksumFieldLength = 9;
// Longest client name.
constexpr unsigned int kMaximumClientNameLength = 20;

// Sum, with 32-bit wrap-around, of `length` bytes each read as signed.
REPLAY_API uint32_t ComputeChecksum(const char* data, unsigned int length);

// Where a line's checksum field ends: before a final CR, LF or pair of them.
REPLAY_API unsigned int ChecksumFieldEnd(const char* line, unsigned int length);

// The eight-character checksum field read as "%x" reads it; 0 when it holds
// no number.
REPLAY_API unsigned int ReadChecksumField(const char* field);

// Appends the checksum trailer of the first `length` bytes at `length` and
// sets `checksum`; the new length (length + 9), or -1 when it does not fit in
// `bufferSize`. The terminator follows when there is room for it.
REPLAY_API int AppendChecksum(char* buffer, unsigned int length, unsigned int bufferSize,
                              unsigned int& checksum);

// Whether the eight characters before the line end (CR LF, LF, CR or none)
// hold, read as "%x", the sum of the bytes before them. A mismatch is logged.
REPLAY_API bool CheckSumValid(const char* line, unsigned int length);

// Builds client record text in a caller's buffer without allocating. Every
// write is cut to fit, like snprintf: the text stays NUL-terminated and at
// most size - 1 bytes long, and Truncated() tells whether anything was cut.
class REPLAY_API RecordWriter {
  public:
    // Continues the text already in `buffer` from `length` on.
    RecordWriter(char* buffer, unsigned int size, unsigned int length = 0);

    RecordWriter& Char(char c);
    RecordWriter& Bytes(const void* data, unsigned int count);
    RecordWriter& Text(const char* text);
    RecordWriter& Unsigned(unsigned int value);
    // The "seconds.mmm" form of MSTimeStruct::ToString.
    RecordWriter& Time(const MSTime::MSTimeStruct& time);

    unsigned int Length() const { return m_length; }
    bool Truncated() const { return m_truncated; }

  private:
    char* m_buffer;
    unsigned int m_size;
    unsigned int m_length;
    bool m_truncated;
};

// Each writer puts its text at the start of `buffer` (at most size - 1
// characters, NUL-terminated) and returns the length written.
//
// Data block header "%c%s:%s:%c%u %u:": type character, block time, client
// name, '!', 1 and the block sequence number.
REPLAY_API unsigned int WriteDataBlockHeader(char* buffer, unsigned int size, char typeCharacter,
                                             const MSTime::MSTimeStruct& blockTime,
                                             const char* clientName, unsigned int sequence);
// Separator in front of a further item: 0xDE, the item's time and ':'.
REPLAY_API unsigned int WriteItemSeparator(char* buffer, unsigned int size,
                                           const MSTime::MSTimeStruct& itemTime);
// Status record "#<time>:<client name>:" followed by `messageLength` bytes of
// `message` (none when null or 0), before its checksum.
REPLAY_API unsigned int WriteStatusRecord(char* buffer, unsigned int size,
                                          const MSTime::MSTimeStruct& time, const char* clientName,
                                          const char* message, unsigned int messageLength);

// The header character of a data block of `dataType`: '!' for normalized
// text, '$' for encoded and plain binary (binary travels Ascii7-encoded), '"'
// for text. False, with '"', for any other type.
REPLAY_API bool DataBlockTypeCharacter(unsigned int dataType, char& typeCharacter);

}  // namespace ReplayCore

// 1 to 20 characters from '0' to 'z'; the empty name passes too.
REPLAY_API bool ClientNameValid(const std::string& name);

// Splits a client record's header. The payload is the `payloadLength` bytes
// from `payloadStart`, ending before the checksum trailer; the two numbers
// are set only when the record has the "!1 <sequence>:" field. The checksum
// is not verified.
REPLAY_API bool ParseClientRecord(const std::string& record, std::string& clientName,
                                  ReplayCore::MSTime::MSTimeStruct& time, unsigned int& dataType,
                                  unsigned int& firstNumber, unsigned int& sequenceNumber,
                                  unsigned int& payloadLength, unsigned int& payloadStart);

#endif
