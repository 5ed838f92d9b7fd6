#include <atomic>
#include <cstdio>
#include <cstring>

#include "ReplayManager/Ascii7.h"
#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "libreplay/server/ReplayRuntimeOptions.h"

namespace Ascii7Encoder {

namespace {

constexpr unsigned char kCharacterOffset = 37;  // '%'

// Indexed by a bit total (at most 32 new bits plus 6 pending): characters due
// and bits left over, so the writer never divides.
constexpr unsigned char kBytesPerBits[39] = {0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1,
                                             1, 2, 2, 2, 2, 2, 2, 2, 3, 3, 3, 3, 3,
                                             3, 3, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5, 5};
constexpr unsigned char kRem7[39] = {0, 1, 2, 3, 4, 5, 6, 0, 1, 2, 3, 4, 5, 6, 0, 1, 2, 3, 4, 5,
                                     6, 0, 1, 2, 3, 4, 5, 6, 0, 1, 2, 3, 4, 5, 6, 0, 1, 2, 3};
constexpr uint64_t kLongMask[7] = {0, 1, 3, 7, 15, 31, 63};

constexpr int kUnsetLoggingLevel = 7;
constexpr int kVerboseLoggingLevel = 5;
std::atomic<int> g_ascii7LoggingLevel{kUnsetLoggingLevel};

constexpr uint64_t kLow56Bits = 0x00FFFFFFFFFFFFFFull;
constexpr bool kLittleEndianHost = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

inline uint64_t LoadWord64(const unsigned char* bytes) {
    uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

inline uint32_t LoadWord32(const unsigned char* bytes) {
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

// Spreads the low 56 bits of `bits` into eight 7-bit groups, one per byte
// (lowest group in the lowest byte), and turns each into its character.
inline uint64_t SevenBitGroupsToCharacters(uint64_t bits) {
    uint64_t x = (bits & 0x000000000FFFFFFFull) | ((bits & 0x00FFFFFFF0000000ull) << 4);
    x = (x & 0x00003FFF00003FFFull) | ((x & 0x0FFFC0000FFFC000ull) << 2);
    x = (x & 0x007F007F007F007Full) | ((x & 0x3F803F803F803F80ull) << 1);
    return x + 0x2525252525252525ull;
}

// Encodes whole blocks of 28 bytes (seven 32-bit words, 32 characters)
// eight characters per seven bytes, with the writer's pending bits carried in
// front. Stops while every block still leaves the terminator's place free, so
// the bit writer's overflow handling only ever runs on the rest. Returns the
// bytes consumed.
unsigned int EncodeWholeBlocks(DBG_CODE7BIT_T* state, const unsigned char* data,
                               unsigned int length) {
    constexpr unsigned int kBlockBytes = 28;
    constexpr unsigned int kBlockCharacters = 32;
    if (!kLittleEndianHost || state->capacity <= state->index) {
        return 0;
    }
    const unsigned int room = state->capacity - 1 - state->index;
    unsigned int blocks = length / kBlockBytes;
    if (blocks > room / kBlockCharacters) {
        blocks = room / kBlockCharacters;
    }
    const int shift = state->pendingCount;
    uint64_t pending = state->pending;
    unsigned char* out = state->output + state->index;
    const unsigned char* in = data;
    for (unsigned int block = 0; block < blocks; ++block) {
        // Four 56-bit groups at offsets 0, 7, 14 and 21; the last is loaded
        // from offset 20 so that no load leaves the block.
        const uint64_t groups[4] = {LoadWord64(in) & kLow56Bits, LoadWord64(in + 7) & kLow56Bits,
                                    LoadWord64(in + 14) & kLow56Bits, LoadWord64(in + 20) >> 8};
        for (uint64_t group : groups) {
            // Without pending bits (every fresh message) the shift is zero.
            const uint64_t bits = shift == 0 ? group : pending | (group << shift);
            const uint64_t characters = SevenBitGroupsToCharacters(bits);
            std::memcpy(out, &characters, sizeof characters);
            out += 8;
            pending = bits >> 56;
        }
        in += kBlockBytes;
    }
    state->pending = pending;
    state->index += blocks * kBlockCharacters;
    return blocks * kBlockBytes;
}

}  // namespace

void dbg_code7bit_init(DBG_CODE7BIT_T* state, unsigned char* out, unsigned int capacity) {
    if (state == nullptr || out == nullptr) {
        return;
    }
    state->output = out;
    state->index = 0;
    state->capacity = capacity;
    state->ok = 1;
    state->pending = 0;
    state->pendingCount = 0;
}

void dbg_code7bit_reset(DBG_CODE7BIT_T* state) {
    if (state != nullptr) {
        dbg_code7bit_init(state, state->output, state->capacity);
    }
}

void dbg_code7bit(DBG_CODE7BIT_T* state, long value, int bits) {
    if (state == nullptr || state->ok == 0 || bits < 1 || bits > 32) {
        return;
    }
    const int total = bits + state->pendingCount;
    unsigned int due = kBytesPerBits[total];
    const unsigned int room = state->capacity > state->index ? state->capacity - state->index : 0;
    bool overflow = false;
    if (due >= room) {
        due = room > 0 ? room - 1 : 0;
        state->ok = 0;
        overflow = true;
    }
    // Shifting the unsigned image of `value` keeps exactly its low bits; any
    // bits above `bits` fall outside the characters and the masked remainder.
    const uint64_t stream = state->pending | (static_cast<uint64_t>(value) << state->pendingCount);
    unsigned char* out = state->output + state->index;
    for (unsigned int i = 0; i < due; ++i) {
        out[i] = static_cast<unsigned char>(((stream >> (7 * i)) & 0x7F) + kCharacterOffset);
    }
    state->index += due;
    if (overflow) {
        return;  // nothing more is ever written
    }
    const int left = kRem7[total];
    state->pending = (stream >> (7 * due)) & kLongMask[left];
    state->pendingCount = left;
}

unsigned char* dbg_code7bit_close(DBG_CODE7BIT_T* state) {
    if (state == nullptr || state->ok == 0) {
        return nullptr;
    }
    if (state->pendingCount > 0) {
        dbg_code7bit(state, 0, 7 - state->pendingCount);
    }
    if (state->index >= state->capacity) {
        state->ok = 0;
        return nullptr;
    }
    state->output[state->index] = 0;
    return state->output;
}

CAbstractMessageEncode::CAbstractMessageEncode(unsigned char* buffer, unsigned int capacity)
    : m_buffer(buffer), m_capacity(capacity), m_state(), m_closed(false) {
    init();
}

bool CAbstractMessageEncode::init() {
    m_closed = false;
    dbg_code7bit_init(&m_state, m_buffer, m_capacity);
    return true;
}

int CAbstractMessageEncode::putBits(long value, int bits) {
    if (m_closed) {
        ReplayCore::FileLogger::LogAssertion(190, "ReplayManager/EncodeAscii7", "!m_closed");
    }
    if (bits <= 0) {
        ReplayCore::FileLogger::LogAssertion(191, "ReplayManager/EncodeAscii7", "bits > 0");
    }
    dbg_code7bit(&m_state, value, bits);
    return m_state.ok;
}

int CAbstractMessageEncode::putRawData(const unsigned char* data, unsigned int length) {
    if (data == nullptr || length == 0) {
        return ERROR_ASSERT_FAILED;
    }
    unsigned int done = m_state.ok != 0 ? EncodeWholeBlocks(&m_state, data, length) : 0;
    for (; length - done >= 4; done += 4) {
        dbg_code7bit(&m_state, static_cast<long>(LoadWord32(data + done)), 32);
    }
    const unsigned int tail = length - done;
    if (tail > 0) {
        long value = 0;
        for (unsigned int i = 0; i < tail; ++i) {
            value |= static_cast<long>(data[done + i]) << (8 * i);
        }
        dbg_code7bit(&m_state, value, static_cast<int>(8 * tail));
    }
    return m_state.ok != 0 ? ERROR_OK : BUFFER_OVERFLOW_ERROR;
}

int CAbstractMessageEncode::close() {
    if (m_closed) {
        return ERROR_MESSAGE_CLOSED;
    }
    m_closed = true;
    if (dbg_code7bit_close(&m_state) == nullptr) {
        if (m_buffer != nullptr && m_capacity > 0) {
            m_buffer[0] = 0;
        }
        return BUFFER_OVERFLOW_ERROR;
    }
    return ERROR_OK;
}

const char* CAbstractMessageEncode::getContent(unsigned int& length) const {
    if (!m_closed || m_buffer == nullptr) {
        return nullptr;
    }
    const char* text = reinterpret_cast<const char*>(m_buffer);
    // Every character before the index is at least 37, so a terminator at
    // the index makes the index the length.
    length = m_state.ok != 0 && m_state.index < m_capacity && m_buffer[m_state.index] == 0
                 ? m_state.index
                 : static_cast<unsigned int>(std::strlen(text));
    return text;
}

const char* ConvertToAscii7(CMessageEncode& encoder, const unsigned char* data, unsigned int length,
                            unsigned int& outLength) {
    static const char* const kTag = "libReplay::Ascii7Encoder::ConvertToAscii7";
    if (length > kMaximumAscii7Input) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Message of Length %u exceeds limit of %u, skipping\n", DebugAppName(),
                     kTag, length, kMaximumAscii7Input);
        }
        outLength = 0;
        return nullptr;
    }
    if (length == 0) {
        return nullptr;
    }
    encoder.init();
    int result = encoder.putRawData(data, length);
    if (result < 0) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Error %d Filling CMessageEncode object; dataLength=%u\n\n",
                     DebugAppName(), kTag, result, length);
        }
        return nullptr;
    }
    result = encoder.close();
    if (result < 0) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Error %d Closing CMessageEncode object\n", DebugAppName(), kTag,
                     result);
        }
        return nullptr;
    }
    unsigned int textLength = 0;
    const char* text = encoder.getContent(textLength);
    if (text == nullptr) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Error %d Retrieving Contents of CMessageEncode object\n",
                     DebugAppName(), kTag, result);
        }
        return nullptr;
    }

    int level = g_ascii7LoggingLevel.load(std::memory_order_relaxed);
    if (level == kUnsetLoggingLevel) {
        level = ReplayRuntimeOptions::Get().GetIntegerValue(eClientUDPDebugLevel);
        g_ascii7LoggingLevel.store(level, std::memory_order_relaxed);
    }
    if (level >= kVerboseLoggingLevel) {
        ReplayCore::FileLogger::DumpHexToFile(ReplayCore::FileLogger::eSeverityDebug,
                                              "Binary Input Data:", data, length, true);
        if (DebugOutputAttached()) {
            char message[1024];
            std::snprintf(message, sizeof message, "Ascii7 Output:%s", text);
            dbgMessage("%s: %s\n", DebugAppName(), message);
        }
    }
    outLength = textLength;
    return text;
}

void ResetAscii7LoggingLevelForTesting() {
    g_ascii7LoggingLevel.store(kUnsetLoggingLevel, std::memory_order_relaxed);
}

unsigned char* dbg_code7rle2(unsigned char* text, int* length) {
    if (text == nullptr) {
        if (length != nullptr) {
            *length = 0;
        }
        return nullptr;
    }
    constexpr unsigned char kPercentRunBase = 168;  // 168 + k: k '%' characters
    constexpr unsigned char kLongRunEscape = 169;   // 169, c, (k - 4) + 37
    constexpr unsigned char kTripleEscape = 168;    // 168, c: three c
    const unsigned char* in = text;
    unsigned char* out = text;
    while (*in != 0) {
        const unsigned char c = *in;
        unsigned int run = 1;
        while (in[run] == c) {
            ++run;
        }
        in += run;
        if (run == 1) {
            *out++ = c;
            continue;
        }
        unsigned int remaining = run;
        if (c == kCharacterOffset) {
            while (remaining >= 2) {
                const unsigned int k = remaining < 15 ? remaining : 15;
                *out++ = static_cast<unsigned char>(kPercentRunBase + k);
                remaining -= k;
            }
            if (remaining == 1) {
                *out++ = c;
            }
            continue;
        }
        while (remaining >= 4) {
            const unsigned int k = remaining < 19 ? remaining : 19;
            *out++ = kLongRunEscape;
            *out++ = c;
            *out++ = static_cast<unsigned char>(k - 4 + kCharacterOffset);
            remaining -= k;
        }
        if (remaining == 3) {
            *out++ = kTripleEscape;
            *out++ = c;
        } else if (remaining == 2) {
            *out++ = c;
            *out++ = c;
        } else if (remaining == 1) {
            *out++ = c;
        }
    }
    *out = 0;
    if (length != nullptr) {
        *length = static_cast<int>(out - text);
    }
    return text;
}

unsigned char* dbg_code7rle(unsigned char* text) {
    return dbg_code7rle2(text, nullptr);
}

}  // namespace Ascii7Encoder
