#include "server/ReplayPlan.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "libreplay/server/ReplayLogReader.h"
#include "ReplayManager/ReplayLogRecord.h"

namespace ReplayServer {

namespace {

constexpr size_t kMaxDamageReports = 20;

void ReportDamage(ReplayPlan& plan, uint64_t offset, const char* what) {
    ++plan.damagedRecords;
    if (plan.damageReports.size() < kMaxDamageReports) {
        char text[128];
        std::snprintf(text, sizeof text, "offset %llu: %s", static_cast<unsigned long long>(offset),
                      what);
        plan.damageReports.push_back(text);
    }
}

bool BuildFromReader(ReplayCore::ReplayLogReader& reader, const PlanOptions& options,
                     ReplayPlan& plan, std::string& error) {
    plan = ReplayPlan();
    ReplayCore::LogRecord record;
    ReplayCore::LogClientRecord fields;
    while (reader.Next(record)) {
        if (options.segment >= 0 && record.segment != static_cast<uint32_t>(options.segment)) {
            continue;
        }
        if (record.kind == ReplayCore::LogRecordKind::kHeader) {
            continue;
        }
        if (record.kind != ReplayCore::LogRecordKind::kClient) {
            ReportDamage(plan, record.offset, "not a client record");
            continue;
        }
        if (!ReplayCore::LogRecordChecksumValid(record.payload.data(), record.payload.size())) {
            ReportDamage(plan, record.offset, "checksum does not match");
            continue;
        }
        if (!ReplayCore::ParseLogClientRecord(record.payload, fields)) {
            ReportDamage(plan, record.offset, "header does not parse");
            continue;
        }
        if (!fields.hasSequence) {
            // Status records (state reports, the server's stop) are not input.
            ++plan.skippedStatusRecords;
            continue;
        }
        PlannedRecord planned;
        planned.client = fields.clientName;
        planned.timeMs = fields.blockTimeMs;
        planned.sequence = fields.sequenceNumber;
        planned.offset = record.offset;
        planned.record = std::move(record.payload);
        // Sent without its line end: a client cuts the last item 8 bytes
        // before the end of the datagram, which is exactly where the checksum
        // field starts only when no line end follows it.
        while (!planned.record.empty() &&
               (planned.record.back() == '\n' || planned.record.back() == '\r')) {
            planned.record.pop_back();
        }
        plan.clients.insert(planned.client);
        if (planned.sequence == 0) {
            plan.initialisation.push_back(std::move(planned));
        } else {
            plan.records.push_back(std::move(planned));
        }
    }
    for (const ReplayCore::LogSkip& skip : reader.Skips()) {
        if (skip.kind != ReplayCore::LogSkip::kReconnect) {
            ReportDamage(plan, skip.offset, ReplayCore::LogSkipKindName(skip.kind));
        }
    }
    if (reader.ReadFailed()) {
        error = "cannot read the log: " + reader.LastError();
        return false;
    }
    std::stable_sort(
        plan.records.begin(), plan.records.end(),
        [](const PlannedRecord& a, const PlannedRecord& b) { return a.timeMs < b.timeMs; });
    if (plan.records.empty()) {
        error = "the log holds no data records to replay";
        return false;
    }
    plan.startMs = plan.records.front().timeMs + std::max<int64_t>(0, options.fromOffsetMs);
    const int64_t start = plan.startMs;
    plan.records.erase(std::remove_if(plan.records.begin(), plan.records.end(),
                                      [start](const PlannedRecord& r) { return r.timeMs < start; }),
                       plan.records.end());
    if (plan.records.empty()) {
        error = "the offset lies beyond the last record";
        return false;
    }
    plan.endMs = plan.records.back().timeMs;
    return true;
}

}  // namespace

bool LoadReplayPlan(const std::string& path, const PlanOptions& options, ReplayPlan& plan,
                    std::string& error) {
    // A FIFO or device would block the command that names it, or never end.
    struct stat file;
    if (stat(path.c_str(), &file) != 0) {
        error = "cannot open " + path + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(file.st_mode)) {
        error = path + " is not a regular file";
        return false;
    }
    ReplayCore::ReplayLogReader reader;
    if (!reader.Open(path)) {
        error = "cannot open " + path + ": " + reader.LastError();
        return false;
    }
    return BuildFromReader(reader, options, plan, error);
}

bool BuildReplayPlan(const char* data, size_t size, const PlanOptions& options, ReplayPlan& plan,
                     std::string& error) {
    ReplayCore::ReplayLogReader reader;
    reader.OpenMemory(data, size);
    return BuildFromReader(reader, options, plan, error);
}

}  // namespace ReplayServer
