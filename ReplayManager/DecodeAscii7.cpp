#include <cstdio>
#include <cstring>

#include "ReplayManager/Ascii7.h"
#include "libreplay/server/FileLogger.h"

namespace Ascii7Decoder {

namespace {

constexpr unsigned int kCharacterOffset = 37;  // '%'
constexpr unsigned int kLargestGroup = 127;

constexpr bool kLittleEndianHost = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

// Decodes whole groups of eight characters into seven bytes while at least
// seven more bytes are wanted. Each character is examined before the next is
// read, so nothing past the first character outside the alphabet is touched.
// A group with such a character is left entirely to the bit reader, which
// starts on a group boundary with an empty accumulator and so reproduces
// exactly where decoding stops. Returns the bytes decoded; `text` advances
// over the groups used.
unsigned int DecodeWholeGroups(const unsigned char*& text, unsigned int length, char* out) {
    if (!kLittleEndianHost) {
        return 0;
    }
    const unsigned char* in = text;
    unsigned int decoded = 0;
    while (length - decoded >= 7) {
        for (unsigned int i = 0; i < 8; ++i) {
            if (static_cast<unsigned int>(in[i] - kCharacterOffset) > kLargestGroup) {
                text = in;
                return decoded;
            }
        }
        // All eight characters are known to be in range: take them as one
        // word, remove the offset from every byte (no byte borrows) and pack
        // the eight 7-bit groups into 56 bits.
        uint64_t groups;
        std::memcpy(&groups, in, sizeof groups);
        groups -= 0x2525252525252525ull;
        groups = (groups & 0x007F007F007F007Full) | ((groups & 0x7F007F007F007F00ull) >> 1);
        groups = (groups & 0x00003FFF00003FFFull) | ((groups & 0x3FFF00003FFF0000ull) >> 2);
        groups = (groups & 0x000000000FFFFFFFull) | ((groups & 0x0FFFFFFF00000000ull) >> 4);
        std::memcpy(out + decoded, &groups, 7);
        decoded += 7;
        in += 8;
    }
    text = in;
    return decoded;
}

}  // namespace

void dbg_decode7bit_init(DBG_DECODE7BIT_T* state, const unsigned char* text) {
    if (state == nullptr) {
        return;
    }
    state->input = text;
    state->valid = 1;
    state->accumulator = 0;
    state->bitCount = 0;
}

int dbg_decode7bit_valid(const DBG_DECODE7BIT_T* state) {
    return state != nullptr ? state->valid : 0;
}

int dbg_decode7bit_get(DBG_DECODE7BIT_T* state, unsigned long* value, int bits) {
    if (state == nullptr) {
        return -1;
    }
    if (value == nullptr || bits < 1 || bits > 32 || state->valid == 0 || state->input == nullptr) {
        state->valid = 0;
        return -1;
    }
    const uint64_t wanted = (uint64_t{1} << bits) - 1;
    if (state->bitCount >= bits) {
        *value = static_cast<unsigned long>(state->accumulator & wanted);
        state->accumulator = static_cast<uint32_t>(uint64_t{state->accumulator} >> bits);
        state->bitCount -= bits;
        return 0;
    }
    // Keep the bits held as the low part; gather the rest from characters in
    // a 64-bit accumulator so that wide reads cannot lose bits.
    const uint64_t kept = state->accumulator;
    const int keptCount = state->bitCount;
    const int needed = bits - keptCount;
    state->accumulator = 0;
    state->bitCount = 0;
    uint64_t gathered = 0;
    int gatheredCount = 0;
    while (gatheredCount < needed) {
        const unsigned int c = *state->input;
        if (c < kCharacterOffset || c - kCharacterOffset > kLargestGroup) {
            state->valid = 0;
            return -1;
        }
        ++state->input;
        gathered |= static_cast<uint64_t>(c - kCharacterOffset) << gatheredCount;
        gatheredCount += 7;
    }
    const uint64_t neededMask = (uint64_t{1} << needed) - 1;
    *value = static_cast<unsigned long>(kept | ((gathered & neededMask) << keptCount));
    state->accumulator = static_cast<uint32_t>(gathered >> needed);
    state->bitCount = gatheredCount - needed;
    return 0;
}

unsigned int DecodeAscii7(const unsigned char* text, unsigned int length, char* out) {
    unsigned int decoded = 0;
    if (text != nullptr && out != nullptr && length > 0) {
        decoded = DecodeWholeGroups(text, length, out);
        DBG_DECODE7BIT_T state;
        dbg_decode7bit_init(&state, text);
        unsigned long byte = 0;
        while (decoded < length && dbg_decode7bit_get(&state, &byte, 8) == 0) {
            out[decoded++] = static_cast<char>(byte);
        }
    }
    if (decoded == 0) {
        std::printf("DecodeAscii7: Zero Length Buffer Read\n");
    }
    return decoded;
}

unsigned int DecodeAscii7(const unsigned char* text, unsigned int length,
                          ReplayCore::MemoryBuffer& out) {
    unsigned char* storage = out.ExpandBuffer(length, true);
    // Refused storage decodes nothing rather than writing into a buffer that
    // is too small.
    const unsigned int decoded =
        DecodeAscii7(text, storage != nullptr ? length : 0, reinterpret_cast<char*>(storage));
    if (decoded == 0) {
        ReplayCore::FileLogger::LogToFile(ReplayCore::FileLogger::eSeverityWarning,
                                          "Zero Length Buffer Read");
    }
    return decoded;
}

unsigned char* dbg_decode7rle2(const unsigned char* in, unsigned char* out, int outSize,
                               int* length) {
    constexpr unsigned char kFirstPercentRun = 170;
    constexpr unsigned char kPercentRunBase = 168;
    int count = 0;
    if (in != nullptr) {
        for (; *in != 0; ++in) {
            const unsigned char c = *in;
            const int repeat = c >= kFirstPercentRun ? c - kPercentRunBase : 1;
            const unsigned char written = c >= kFirstPercentRun ? '%' : c;
            for (int i = 0; i < repeat; ++i, ++count) {
                if (out != nullptr && count < outSize) {
                    out[count] = written;
                }
            }
        }
    }
    if (length != nullptr) {
        *length = count;
    }
    if (out == nullptr || count >= outSize) {
        return nullptr;
    }
    out[count] = 0;
    return out;
}

unsigned char* dbg_decode7rle(const unsigned char* in, unsigned char* out, int outSize) {
    return dbg_decode7rle2(in, out, outSize, nullptr);
}

}  // namespace Ascii7Decoder
