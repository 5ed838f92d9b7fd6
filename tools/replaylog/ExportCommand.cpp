// The export subcommand: one row per item for analysis tools, as CSV or as
// JSON lines. Binary items are given in base64, everything else as text.

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/replaylog/ExportCommand.h"

namespace ReplayLogTool {

namespace {

using ReplayCore::LogClientRecord;
using ReplayCore::LogRecord;
using ReplayCore::LogRecordKind;
using ReplayCore::ReplayLogReader;
using ReplayCore::LogFormat::FormatRecordTime;

// A CSV field, quoted when it holds a separator, a quote or a line break.
std::string CsvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) {
        return text;
    }
    std::string quoted = "\"";
    for (char c : text) {
        quoted += c;
        if (c == '"') {
            quoted += '"';
        }
    }
    return quoted + "\"";
}

}  // namespace

std::string Base64(const std::string& bytes) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const unsigned value = static_cast<unsigned char>(bytes[i]) << 16 |
                               static_cast<unsigned char>(bytes[i + 1]) << 8 |
                               static_cast<unsigned char>(bytes[i + 2]);
        out += kAlphabet[value >> 18];
        out += kAlphabet[(value >> 12) & 63];
        out += kAlphabet[(value >> 6) & 63];
        out += kAlphabet[value & 63];
    }
    const size_t rest = bytes.size() - i;
    if (rest > 0) {
        unsigned value = static_cast<unsigned char>(bytes[i]) << 16;
        if (rest == 2) {
            value |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        }
        out += kAlphabet[value >> 18];
        out += kAlphabet[(value >> 12) & 63];
        out += rest == 2 ? kAlphabet[(value >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

int RunExport(const CommonOptions& options, const RecordFilter& filter, ExportFormat format) {
    ReplayLogReader reader;
    if (!reader.Open(options.logFile)) {
        ReportError("cannot open " + reader.LastError());
        return kExitFileError;
    }
    if (format == ExportFormat::kCsv) {
        std::printf("time,client,data_type,sequence,encoding,data\n");
    }
    LogRecord record;
    LogClientRecord fields;
    while (reader.Next(record)) {
        if (record.kind != LogRecordKind::kClient ||
            !ReplayCore::ParseLogClientRecord(record.payload, fields) ||
            fields.typeCharacter == '#' || !filter.Selects(record, &fields, true)) {
            continue;
        }
        const bool binary = fields.typeCharacter == '$';
        ReplayCore::ForEachLogItem(
            record.payload, fields, [&](int64_t timeMs, const char* data, size_t length) {
                const std::string value =
                    binary ? Base64(DecodeBinaryItem(data, length)) : std::string(data, length);
                const char* encoding = binary ? "base64" : "text";
                if (format == ExportFormat::kCsv) {
                    std::printf("%s,%s,%u,%u,%s,%s\n", FormatRecordTime(timeMs).c_str(),
                                CsvField(fields.clientName).c_str(), fields.dataType,
                                fields.sequenceNumber, encoding, CsvField(value).c_str());
                    return;
                }
                nlohmann::ordered_json row;
                row["time"] = FormatRecordTime(timeMs);
                row["client"] = fields.clientName;
                row["data_type"] = fields.dataType;
                row["sequence"] = fields.sequenceNumber;
                row["encoding"] = encoding;
                row["data"] = value;
                std::printf("%s\n", row.dump(-1, ' ', false,
                                             nlohmann::ordered_json::error_handler_t::replace)
                                        .c_str());
            });
    }
    if (reader.ReadFailed()) {
        ReportError("cannot read " + options.logFile + ": " + reader.LastError());
        return kExitFileError;
    }
    return kExitOk;
}

}  // namespace ReplayLogTool
