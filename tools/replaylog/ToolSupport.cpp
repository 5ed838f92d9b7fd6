#include "tools/replaylog/ToolSupport.h"

#include <algorithm>
#include <cstdio>

#include "libreplay/ReplayClientC.h"

namespace ReplayLogTool {

bool RecordFilter::Prepare(std::string& error) {
    if (!fromText.empty()) {
        if (!ReplayCore::LogFormat::ParseRecordTime(fromText.data(), fromText.size(), fromMs)) {
            error = "--from: not a time in seconds (like 12.345): " + fromText;
            return false;
        }
        hasFrom = true;
    }
    if (!toText.empty()) {
        if (!ReplayCore::LogFormat::ParseRecordTime(toText.data(), toText.size(), toMs)) {
            error = "--to: not a time in seconds (like 12.345): " + toText;
            return false;
        }
        hasTo = true;
    }
    return true;
}

bool RecordFilter::SegmentSelected(uint32_t segment) const {
    return segments.empty() ||
           std::find(segments.begin(), segments.end(), segment) != segments.end();
}

bool RecordFilter::Selects(const ReplayCore::LogRecord& record,
                           const ReplayCore::LogClientRecord* fields, bool parsed) const {
    if (!SegmentSelected(record.segment)) {
        return false;
    }
    if (!parsed || fields == nullptr) {
        return !Active();
    }
    if (!clients.empty() &&
        std::find(clients.begin(), clients.end(), fields->clientName) == clients.end()) {
        return false;
    }
    if (hasFrom && fields->blockTimeMs < fromMs) {
        return false;
    }
    if (hasTo && fields->blockTimeMs > toMs) {
        return false;
    }
    return true;
}

std::string Printable(const char* data, size_t length) {
    std::string out;
    out.reserve(length);
    char escape[8];
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(data[i]);
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (c < 32 || c > 126) {
            snprintf(escape, sizeof escape, "\\x%02x", c);
            out += escape;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out;
}

std::string Printable(const std::string& bytes) {
    return Printable(bytes.data(), bytes.size());
}

std::string HexBytes(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 15]);
    }
    return out;
}

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

const char* KindName(ReplayCore::LogRecordKind kind) {
    switch (kind) {
        case ReplayCore::LogRecordKind::kHeader:
            return "header";
        case ReplayCore::LogRecordKind::kClient:
            return "client";
        case ReplayCore::LogRecordKind::kOther:
            return "other";
    }
    return "other";
}

void ReportError(const std::string& text) {
    fprintf(stderr, "replaylog: %s\n", text.c_str());
}

}  // namespace ReplayLogTool
