// The Ascii7 codec under plain C names, so that a C component can produce
// the text of data type 4 itself and read such text back.

#include <cstring>

#include "ReplayManager/Ascii7.h"
#include "libreplay/ReplayClientC.h"

extern "C" {

unsigned int CAscii7EncodedSize(unsigned int nBytes) {
    // ceil(8n / 7) characters and the terminator, computed without overflow
    // for any 32-bit count the output could be sized for.
    const unsigned long long bits = 8ULL * nBytes;
    const unsigned long long size = (bits + 6) / 7 + 1;
    return size > 0xFFFFFFFFULL ? 0 : static_cast<unsigned int>(size);
}

int CEncodeAscii7(const void* data, unsigned int nBytes, char* text, unsigned int capacity) {
    if (text == nullptr || capacity == 0 || (data == nullptr && nBytes > 0)) {
        return -1;
    }
    text[0] = '\0';
    if (nBytes == 0) {
        return 0;
    }
    const unsigned int needed = CAscii7EncodedSize(nBytes);
    if (needed == 0 || needed > capacity || needed - 1 > 0x7FFFFFFFU) {
        return -1;
    }
    Ascii7Encoder::CAbstractMessageEncode encoder(reinterpret_cast<unsigned char*>(text), capacity);
    encoder.init();
    if (encoder.putRawData(static_cast<const unsigned char*>(data), nBytes) !=
            Ascii7Encoder::CMessage::ERROR_OK ||
        encoder.close() != Ascii7Encoder::CMessage::ERROR_OK) {
        text[0] = '\0';
        return -1;
    }
    unsigned int length = 0;
    encoder.getContent(length);
    return static_cast<int>(length);
}

int CDecodeAscii7(const char* text, void* data, unsigned int capacity) {
    if (text == nullptr || (data == nullptr && capacity > 0)) {
        return -1;
    }
    // An empty text is an empty item, not an error; the decoder would
    // announce it as one.
    if (text[0] == '\0' || capacity == 0) {
        return 0;
    }
    const unsigned int decoded = Ascii7Decoder::DecodeAscii7(
        reinterpret_cast<const unsigned char*>(text), capacity, static_cast<char*>(data));
    return decoded > 0x7FFFFFFFU ? -1 : static_cast<int>(decoded);
}

}  // extern "C"
