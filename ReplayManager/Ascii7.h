#ifndef REPLAYMANAGER_ASCII7_H
#define REPLAYMANAGER_ASCII7_H

// The Ascii7 codec: binary data as printable text. The bytes form one
// little-endian bit stream (least significant bit of the first byte first),
// cut into 7-bit groups; each group becomes one character, its value plus 37
// ('%'), so the characters run from 37 to 164. n bytes give ceil(8n / 7)
// characters; the last character is padded with zero bits.

#include <cstdint>

#include "ReplayManager/MemoryBuffer.h"
#include "libreplay/ReplayExport.h"

namespace Ascii7Encoder {

class REPLAY_API CMessage {
  public:
    // Result codes of the message encoders.
    static constexpr int ERROR_OK = 0;
    static constexpr int ERROR_MESSAGE_CLOSED = -1;
    static constexpr int BUFFER_OVERFLOW_ERROR = -2;
    static constexpr int ERROR_ASSERT_FAILED = -3;
};

// Bit writer state. The output is not owned.
struct DBG_CODE7BIT_T {
    unsigned char* output;
    unsigned int index;     // characters written so far
    unsigned int capacity;  // size of the output, terminator included
    int ok;                 // 1 until the output overflows, then 0 for good
    uint64_t pending;       // low bits not yet written (fewer than 7)
    int pendingCount;
};

// Clears the state onto `out`; does nothing when either pointer is null.
REPLAY_API void dbg_code7bit_init(DBG_CODE7BIT_T* state, unsigned char* out, unsigned int capacity);
// Starts again on the same output.
REPLAY_API void dbg_code7bit_reset(DBG_CODE7BIT_T* state);
// Appends the low `bits` bits (1 to 32) of `value`. On overflow the output is
// cut short, one place is kept for the terminator and ok turns 0.
REPLAY_API void dbg_code7bit(DBG_CODE7BIT_T* state, long value, int bits);
// Pads the last character with zero bits and terminates the text; null after
// an overflow.
REPLAY_API unsigned char* dbg_code7bit_close(DBG_CODE7BIT_T* state);

// A message encoder over an output buffer it does not own.
class REPLAY_API CAbstractMessageEncode : public CMessage {
  public:
    CAbstractMessageEncode(unsigned char* buffer, unsigned int capacity);
    CAbstractMessageEncode(const CAbstractMessageEncode&) = delete;
    CAbstractMessageEncode& operator=(const CAbstractMessageEncode&) = delete;

    // Opens the message for writing; always true.
    bool init();
    // Appends the low `bits` bits of `value`; whether the output still fits.
    int putBits(long value, int bits);
    // Appends bytes; a result code.
    int putRawData(const unsigned char* data, unsigned int length);
    // Terminates the text; ERROR_MESSAGE_CLOSED when already closed,
    // BUFFER_OVERFLOW_ERROR (and an empty text) when the output overflowed.
    int close();
    // The text once closed (null before), with its length.
    const char* getContent(unsigned int& length) const;

    const DBG_CODE7BIT_T& State() const { return m_state; }

  private:
    unsigned char* m_buffer;
    unsigned int m_capacity;
    DBG_CODE7BIT_T m_state;
    bool m_closed;
};

// The encoder of the send path: its output of 2048 characters (2047 and the
// terminator) lives inside the object, so encoding allocates nothing.
class REPLAY_API CMessageEncode : public CAbstractMessageEncode {
  public:
    static constexpr unsigned int kOutputCapacity = 2048;

    CMessageEncode() : CAbstractMessageEncode(m_output, kOutputCapacity) {}

  private:
    unsigned char m_output[kOutputCapacity];
};

// The largest input ConvertToAscii7 accepts. Inputs above 1791 bytes still
// overflow the 2047-character output.
constexpr unsigned int kMaximumAscii7Input = 2048;

// Encodes `data` with `encoder`; the text (owned by the encoder) or null.
// `outLength` receives the text's length, or 0 for an input over the limit.
REPLAY_API const char* ConvertToAscii7(CMessageEncode& encoder, const unsigned char* data,
                                       unsigned int length, unsigned int& outLength);

// Run-length packing of encoded text, in place; the result is never longer.
// A run of '%' becomes bytes 168 + k (k = 2..15); a run of another character c
// of four or more becomes 169, c, (k - 4) + 37 (k = 4..19), a run of three
// 168, c. `length` (if not null) receives the packed length.
REPLAY_API unsigned char* dbg_code7rle2(unsigned char* text, int* length);
REPLAY_API unsigned char* dbg_code7rle(unsigned char* text);

// Resets the cached logging level so that the next conversion reads it from
// the runtime options again (tests only).
REPLAY_API void ResetAscii7LoggingLevelForTesting();

}  // namespace Ascii7Encoder

namespace Ascii7Decoder {

// Bit reader state.
struct DBG_DECODE7BIT_T {
    const unsigned char* input;  // advances over the text
    int valid;                   // 1 until an error or the end of the text
    uint32_t accumulator;
    int bitCount;
};

REPLAY_API void dbg_decode7bit_init(DBG_DECODE7BIT_T* state, const unsigned char* text);
// The valid flag; 0 for a null state.
REPLAY_API int dbg_decode7bit_valid(const DBG_DECODE7BIT_T* state);
// Reads `bits` (1 to 32) bits into `value`: 0, or -1 when the text ends (a
// character below 37) or holds a character above 164. Bits gathered by a
// failing call are lost.
REPLAY_API int dbg_decode7bit_get(DBG_DECODE7BIT_T* state, unsigned long* value, int bits);

// Decodes up to `length` bytes into `out`; the number decoded. Decoding stops
// at the first character outside 37..164; the padding of the last character
// never yields a byte. Reads no character beyond the ones it needs.
REPLAY_API unsigned int DecodeAscii7(const unsigned char* text, unsigned int length, char* out);
// The same into `out`, which is first grown (and cleared) to `length` bytes.
REPLAY_API unsigned int DecodeAscii7(const unsigned char* text, unsigned int length,
                                     ReplayCore::MemoryBuffer& out);

// Unpacks the '%' runs of dbg_code7rle2 (bytes of 170 or more); every other
// byte is copied. Writes past `outSize` are dropped and `length` (if not null)
// receives the full count. Null when the count reaches `outSize` (then no
// terminator is written).
REPLAY_API unsigned char* dbg_decode7rle2(const unsigned char* in, unsigned char* out, int outSize,
                                          int* length);
REPLAY_API unsigned char* dbg_decode7rle(const unsigned char* in, unsigned char* out, int outSize);

}  // namespace Ascii7Decoder

#endif
