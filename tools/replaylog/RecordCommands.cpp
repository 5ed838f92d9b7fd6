// The dump, extract and cut subcommands: record by record, with filters.

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "support/HexText.h"
#include "tools/replaylog/ToolSupport.h"

namespace ReplayLogTool {

namespace {

using ReplayCore::LogClientRecord;
using ReplayCore::LogRecord;
using ReplayCore::LogRecordKind;
using ReplayCore::ReplayLogReader;
using ReplayCore::LogFormat::FormatRecordTime;
using Json = nlohmann::ordered_json;

std::string DumpJson(const Json& j) {
    return j.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool OpenLog(ReplayLogReader& reader, const std::string& path) {
    if (!reader.Open(path)) {
        ReportError("cannot open " + reader.LastError());
        return false;
    }
    return true;
}

int FinishReading(const ReplayLogReader& reader, const std::string& path) {
    if (reader.ReadFailed()) {
        ReportError("cannot read " + path + ": " + reader.LastError());
        return kExitFileError;
    }
    return kExitOk;
}

bool IsBinary(const LogClientRecord& fields) {
    return fields.typeCharacter == '$';
}

}  // namespace

int RunDump(const CommonOptions& options, const RecordFilter& filter) {
    ReplayLogReader reader;
    if (!OpenLog(reader, options.logFile)) {
        return kExitFileError;
    }
    LogRecord record;
    LogClientRecord fields;
    while (reader.Next(record)) {
        const bool parsed = record.kind == LogRecordKind::kClient &&
                            ReplayCore::ParseLogClientRecord(record.payload, fields);
        if (!filter.Selects(record, &fields, parsed)) {
            continue;
        }
        if (options.json) {
            Json j;
            j["offset"] = record.offset;
            j["segment"] = record.segment;
            j["kind"] = KindName(record.kind);
            if (parsed) {
                j["client"] = fields.clientName;
                j["type"] = std::string(1, fields.typeCharacter);
                j["time"] = FormatRecordTime(fields.blockTimeMs);
                if (fields.hasSequence) {
                    j["sequence"] = fields.sequenceNumber;
                }
                j["checksum_ok"] = ReplayCore::LogRecordChecksumValid(record.payload.data(),
                                                                      record.payload.size());
            }
            // Escaped so that binary bytes survive in JSON text.
            j["payload"] = Printable(record.payload);
            printf("%s\n", DumpJson(j).c_str());
        } else if (parsed) {
            printf("%" PRIu64 " [%u] %s %-20s %10s %6s %s\n", record.offset, record.segment,
                   KindName(record.kind), fields.clientName.c_str(),
                   FormatRecordTime(fields.blockTimeMs).c_str(),
                   fields.hasSequence ? std::to_string(fields.sequenceNumber).c_str() : "-",
                   Printable(record.payload).c_str());
        } else {
            printf("%" PRIu64 " [%u] %s %s\n", record.offset, record.segment, KindName(record.kind),
                   Printable(record.payload).c_str());
        }
    }
    return FinishReading(reader, options.logFile);
}

int RunExtract(const CommonOptions& options, const RecordFilter& filter,
               const std::string& outputDirectory) {
    if (!outputDirectory.empty()) {
        std::error_code error;
        std::filesystem::create_directories(outputDirectory, error);
        if (error) {
            ReportError("cannot create " + outputDirectory + ": " + error.message());
            return kExitFileError;
        }
    }
    ReplayLogReader reader;
    if (!OpenLog(reader, options.logFile)) {
        return kExitFileError;
    }
    LogRecord record;
    LogClientRecord fields;
    uint64_t itemNumber = 0;
    bool writeFailed = false;
    while (reader.Next(record) && !writeFailed) {
        if (record.kind != LogRecordKind::kClient ||
            !ReplayCore::ParseLogClientRecord(record.payload, fields) ||
            fields.typeCharacter == '#' || !filter.Selects(record, &fields, true)) {
            continue;
        }
        ReplayCore::ForEachLogItem(
            record.payload, fields, [&](int64_t timeMs, const char* data, size_t length) {
                if (writeFailed) {
                    return;
                }
                const std::string bytes =
                    IsBinary(fields) ? DecodeBinaryItem(data, length) : std::string(data, length);
                ++itemNumber;
                if (!outputDirectory.empty()) {
                    char name[96];
                    snprintf(name, sizeof name, "%06" PRIu64 "_%s_%s.%s", itemNumber,
                             fields.clientName.c_str(), FormatRecordTime(timeMs).c_str(),
                             IsBinary(fields) ? "bin" : "txt");
                    const std::string path = outputDirectory + "/" + name;
                    std::ofstream out(path, std::ios::binary);
                    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
                    if (!out) {
                        ReportError("cannot write " + path);
                        writeFailed = true;
                    }
                    return;
                }
                Json j;
                j["client"] = fields.clientName;
                j["time"] = FormatRecordTime(timeMs);
                j["time_ms"] = timeMs;
                j["segment"] = record.segment;
                j["sequence"] = fields.sequenceNumber;
                if (IsBinary(fields)) {
                    j["hex"] = ReplaySupport::Hex(bytes);
                } else {
                    j["text"] = bytes;
                }
                printf("%s\n", DumpJson(j).c_str());
            });
    }
    if (writeFailed) {
        return kExitFileError;
    }
    if (!outputDirectory.empty()) {
        fprintf(stderr, "replaylog: %" PRIu64 " items written to %s\n", itemNumber,
                outputDirectory.c_str());
    }
    return FinishReading(reader, options.logFile);
}

int RunCut(const CommonOptions& options, const RecordFilter& filter, const std::string& output) {
    ReplayLogReader reader;
    if (!OpenLog(reader, options.logFile)) {
        return kExitFileError;
    }
    FILE* out = fopen(output.c_str(), "wb");
    if (out == nullptr) {
        ReportError("cannot write " + output + ": " + strerror(errno));
        return kExitFileError;
    }
    LogRecord record;
    LogClientRecord fields;
    std::string headerOfSegment;  // the current segment's header, until written
    uint32_t segmentWithHeader = UINT32_MAX;
    std::string framed;
    std::string stored;
    uint64_t kept = 0;
    auto store = [&](const std::string& payload) {
        if (ReplayCore::LogFormat::FrameRecord(payload, framed)) {
            stored.clear();
            ReplayCore::LogFormat::AppendStoredRecord(framed.data(), framed.size(), stored);
            fwrite(stored.data(), 1, stored.size(), out);
        }
    };
    while (reader.Next(record)) {
        if (record.kind == LogRecordKind::kHeader) {
            headerOfSegment = record.payload;
            continue;
        }
        if (record.kind != LogRecordKind::kClient ||
            !ReplayCore::ParseLogClientRecord(record.payload, fields) ||
            !filter.Selects(record, &fields, true)) {
            continue;
        }
        // Every segment of the new log starts with a header: the original
        // one, or one made from the first record's time.
        if (segmentWithHeader != record.segment) {
            segmentWithHeader = record.segment;
            store(headerOfSegment.empty() ? ReplayCore::LogFormat::HeaderPayload(fields.blockTimeMs)
                                          : headerOfSegment);
            headerOfSegment.clear();
        }
        store(record.payload);
        ++kept;
    }
    const bool writeFailed = ferror(out) != 0;
    if (fclose(out) != 0 || writeFailed) {
        ReportError("cannot write " + output + ": " + strerror(errno));
        return kExitFileError;
    }
    if (options.json) {
        printf("%s\n", DumpJson(Json{{"output", output}, {"records", kept}}).c_str());
    } else {
        printf("%" PRIu64 " records written to %s\n", kept, output.c_str());
    }
    return FinishReading(reader, options.logFile);
}

}  // namespace ReplayLogTool
