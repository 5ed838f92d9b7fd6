#ifndef TESTS_REPLAYMANAGER_RECORDTEXT_H
#define TESTS_REPLAYMANAGER_RECORDTEXT_H

#include <cstdint>
#include <string>
#include <vector>

#include "ReplayManager/Ascii7.h"
#include "libreplay/server/ReplayLogReader.h"
#include "tests/support/RawRecordText.h"

namespace RecordText {

using ReplayTest::WithChecksum;  // body + "%8x\n" checksum field

// Empty when the encoder refuses `bytes`.
inline std::string Ascii7(const std::string& bytes) {
    static Ascii7Encoder::CMessageEncode encoder;
    unsigned int length = 0;
    const char* text = Ascii7Encoder::ConvertToAscii7(
        encoder, reinterpret_cast<const unsigned char*>(bytes.data()),
        static_cast<unsigned int>(bytes.size()), length);
    return text != nullptr ? std::string(text, length) : std::string();
}

// `type` '"' for text, '$' for binary; the items after the first joined with Item().
inline std::string BlockBody(char type, const std::string& time, const std::string& client,
                             unsigned int sequence, const std::string& items) {
    return type + time + ":" + client + ":!1 " + std::to_string(sequence) + ":" + items;
}

inline std::string Item(const std::string& time, const std::string& data) {
    return '\xDE' + time + ":" + data;
}

inline std::string Stored(const std::string& payload) {
    std::string framed;
    ReplayCore::LogFormat::FrameRecord(payload, framed);
    std::string out;
    ReplayCore::LogFormat::AppendStoredRecord(framed.data(), framed.size(), out);
    return out;
}

// None if the file cannot be opened; `skips` receives the reader's skip count.
inline std::vector<std::string> LogPayloads(const std::string& path, uint64_t* skips = nullptr) {
    std::vector<std::string> payloads;
    ReplayCore::ReplayLogReader reader;
    if (reader.Open(path)) {
        ReplayCore::LogRecord record;
        while (reader.Next(record)) {
            payloads.push_back(record.payload);
        }
    }
    if (skips != nullptr) {
        *skips = reader.SkipCount();
    }
    return payloads;
}

}  // namespace RecordText

#endif
