// Decodes arbitrary text and checks the decoder against the plain bit reader,
// then re-encodes what it decoded and runs the run-length packer over the
// text. The first two bytes choose the length asked for.

#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "ReplayManager/Ascii7.h"
#include "ReplayManager/MemoryBuffer.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::Initialise();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    const unsigned int length = (data[0] | data[1] << 8) % 2100;
    // The text ends with its terminator exactly at the end of its allocation.
    std::vector<unsigned char> text(data + 2, data + size);
    text.push_back(0);

    std::vector<char> decoded(length + 1);
    const unsigned int count = Ascii7Decoder::DecodeAscii7(text.data(), length, decoded.data());

    std::vector<char> expected(length + 1);
    Ascii7Decoder::DBG_DECODE7BIT_T reader;
    Ascii7Decoder::dbg_decode7bit_init(&reader, text.data());
    unsigned int expectedCount = 0;
    unsigned long byte = 0;
    while (expectedCount < length && Ascii7Decoder::dbg_decode7bit_get(&reader, &byte, 8) == 0) {
        expected[expectedCount++] = static_cast<char>(byte);
    }
    if (count != expectedCount || decoded != expected) {
        __builtin_trap();
    }

    ReplayCore::MemoryBuffer buffer("Fuzz", 0, 4096);
    if (Ascii7Decoder::DecodeAscii7(text.data(), length, buffer) != count ||
        (count > 0 && std::memcmp(buffer.Get(), decoded.data(), count) != 0)) {
        __builtin_trap();
    }

    if (count > 0) {
        static Ascii7Encoder::CMessageEncode encoder;
        unsigned int encodedLength = 0;
        const char* encoded = Ascii7Encoder::ConvertToAscii7(
            encoder, reinterpret_cast<const unsigned char*>(decoded.data()), count, encodedLength);
        if (count <= 1791) {
            std::vector<char> again(count);
            if (encoded == nullptr ||
                Ascii7Decoder::DecodeAscii7(reinterpret_cast<const unsigned char*>(encoded), count,
                                            again.data()) != count ||
                std::memcmp(again.data(), decoded.data(), count) != 0) {
                __builtin_trap();
            }
        }
    }

    std::vector<unsigned char> packed = text;
    int packedLength = 0;
    Ascii7Encoder::dbg_code7rle2(packed.data(), &packedLength);
    if (packedLength < 0 ||
        static_cast<size_t>(packedLength) > std::strlen(reinterpret_cast<char*>(text.data()))) {
        __builtin_trap();
    }
    std::vector<unsigned char> unpacked(64);
    int unpackedLength = 0;
    Ascii7Decoder::dbg_decode7rle2(packed.data(), unpacked.data(),
                                   static_cast<int>(unpacked.size()), &unpackedLength);
    return 0;
}
