#include "tools/replaylog/ToolSupport.h"

#include <algorithm>
#include <cstdio>

namespace ReplayLogTool {

ReplayPlatform::Status RecordFilter::Prepare() {
    if (!fromText.empty()) {
        if (!ReplayCore::LogFormat::ParseRecordTime(fromText.data(), fromText.size(), fromMs)) {
            return ReplayPlatform::Status::Failure("--from: not a time in seconds (like 12.345): " +
                                                   fromText);
        }
        hasFrom = true;
    }
    if (!toText.empty()) {
        if (!ReplayCore::LogFormat::ParseRecordTime(toText.data(), toText.size(), toMs)) {
            return ReplayPlatform::Status::Failure("--to: not a time in seconds (like 12.345): " +
                                                   toText);
        }
        hasTo = true;
    }
    return ReplayPlatform::Status::Ok();
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
