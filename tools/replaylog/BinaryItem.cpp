#include "tools/replaylog/BinaryItem.h"

#include "libreplay/ReplayClientC.h"

namespace ReplayLogTool {

std::string DecodeBinaryItem(const char* text, size_t length) {
    // n characters carry at most 7n / 8 whole bytes, so the decoder never
    // reads past the item into the next separator or the checksum.
    const size_t capacity = length * 7 / 8;
    // The decoder announces an empty result on standard output, which would
    // corrupt the tool's own output: it is only called when the first two
    // characters yield at least one byte.
    auto carriesBits = [](char c) {
        const unsigned char value = static_cast<unsigned char>(c);
        return value >= 37 && value - 37 <= 127;
    };
    if (capacity == 0 || !carriesBits(text[0]) || !carriesBits(text[1])) {
        return std::string();
    }
    // The decoder reads zero-terminated text; an item inside a record is not.
    const std::string terminated(text, length);
    std::string out(capacity, '\0');
    const int decoded =
        CDecodeAscii7(terminated.c_str(), &out[0], static_cast<unsigned int>(capacity));
    out.resize(decoded > 0 ? static_cast<size_t>(decoded) : 0);
    return out;
}

}  // namespace ReplayLogTool
