#include "server/ReplayPlan.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <climits>
#include <map>

#include "libreplay/server/ReplayLogReader.h"
#include "libreplay/server/ReplayLogRecord.h"
#include "server/ReplayItems.h"

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

ReplayPlatform::Status PlanItems(const std::vector<PlannedRecord>& stored,
                                 const PlanOptions& options, ReplayPlan& plan);

ReplayPlatform::Status BuildFromReader(ReplayCore::ReplayLogReader& reader,
                                       const PlanOptions& options, ReplayPlan& plan) {
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
        return ReplayPlatform::Status::Failure("cannot read the log: " + reader.LastError());
    }
    if (plan.records.empty()) {
        return ReplayPlatform::Status::Failure("the log holds no data records to replay");
    }
    std::vector<PlannedRecord> stored;
    stored.swap(plan.records);
    std::stable_sort(
        stored.begin(), stored.end(),
        [](const PlannedRecord& a, const PlannedRecord& b) { return a.timeMs < b.timeMs; });
    return PlanItems(stored, options, plan);
}

struct CutItem {
    std::string client;
    char typeCharacter = 0;
    // When it is due: never before the same client's previous item, which a
    // client hands over first.
    int64_t dueMs = 0;
    int64_t timeMs = 0;  // as recorded: the callback sees it
    uint64_t offset = 0;
    std::string data;
};

ReplayPlatform::Status PlanItems(const std::vector<PlannedRecord>& stored,
                                 const PlanOptions& options, ReplayPlan& plan) {
    std::vector<CutItem> items;
    std::map<std::string, int64_t> latest;
    ItemCut cut;
    for (const PlannedRecord& record : stored) {
        if (!CutRecordItems(record.record, cut)) {
            ReportDamage(plan, record.offset, "items do not parse");
            continue;
        }
        plan.skippedItems += cut.emptyItems + cut.itemsWithoutTime;
        auto previous = latest.emplace(cut.client, INT64_MIN).first;
        for (ReplayItem& item : cut.items) {
            CutItem entry;
            entry.client = cut.client;
            entry.typeCharacter = cut.typeCharacter;
            entry.timeMs = item.timeMs;
            entry.dueMs = std::max(item.timeMs, previous->second);
            previous->second = entry.dueMs;
            entry.offset = record.offset;
            entry.data = std::move(item.data);
            items.push_back(std::move(entry));
        }
    }
    if (items.empty()) {
        return ReplayPlatform::Status::Failure("the log holds no items to replay");
    }
    std::stable_sort(items.begin(), items.end(),
                     [](const CutItem& a, const CutItem& b) { return a.dueMs < b.dueMs; });

    const int64_t first = items.front().dueMs;
    plan.startMs = first + std::max<int64_t>(0, options.fromOffsetMs);
    const int64_t end = options.toOffsetMs >= 0 ? first + options.toOffsetMs : INT64_MAX;
    if (end <= plan.startMs) {
        return ReplayPlatform::Status::Failure(
            "nothing to replay: the end of the range is not after its start");
    }
    // Each client's last item before the range.
    std::map<std::string, size_t> lastBefore;
    size_t rangeBegin = 0;
    for (; rangeBegin < items.size() && items[rangeBegin].dueMs < plan.startMs; ++rangeBegin) {
        lastBefore[items[rangeBegin].client] = rangeBegin;
    }
    std::map<std::string, unsigned int> sequences;
    auto add = [&](const CutItem& item, std::vector<PlannedRecord>& into) {
        auto sequence = sequences.emplace(item.client, options.firstSequence).first;
        PlannedRecord planned;
        if (!FormItemRecord(item.typeCharacter, item.client, item.timeMs, sequence->second,
                            item.data, planned.record)) {
            ++plan.unformedItems;
            return;
        }
        planned.client = item.client;
        planned.timeMs = item.dueMs;
        planned.sequence = sequence->second++;
        planned.offset = item.offset;
        plan.clients.insert(item.client);
        into.push_back(std::move(planned));
    };
    if (options.withState) {
        std::vector<size_t> indexes;
        for (const auto& entry : lastBefore) {
            indexes.push_back(entry.second);
        }
        std::sort(indexes.begin(), indexes.end());
        for (size_t index : indexes) {
            add(items[index], plan.state);
        }
    }
    for (size_t i = rangeBegin; i < items.size() && items[i].dueMs < end; ++i) {
        add(items[i], plan.records);
    }
    if (plan.records.empty()) {
        return ReplayPlatform::Status::Failure(rangeBegin == items.size()
                                                   ? "the offset lies beyond the last record"
                                                   : "no item to replay in the range");
    }
    plan.endMs = plan.records.back().timeMs;
    return ReplayPlatform::Status::Ok();
}

}  // namespace

ReplayPlatform::Status LoadReplayPlan(const std::string& path, const PlanOptions& options,
                                      ReplayPlan& plan) {
    // A FIFO or device would block the command that names it, or never end.
    struct stat file;
    if (stat(path.c_str(), &file) != 0) {
        return ReplayPlatform::Status::SystemFailure("cannot open " + path, errno);
    }
    if (!S_ISREG(file.st_mode)) {
        return ReplayPlatform::Status::Failure(path + " is not a regular file");
    }
    ReplayCore::ReplayLogReader reader;
    if (!reader.Open(path)) {
        return ReplayPlatform::Status::Failure("cannot open " + path + ": " + reader.LastError());
    }
    return BuildFromReader(reader, options, plan);
}

ReplayPlatform::Status BuildReplayPlan(const char* data, size_t size, const PlanOptions& options,
                                       ReplayPlan& plan) {
    ReplayCore::ReplayLogReader reader;
    reader.OpenMemory(data, size);
    return BuildFromReader(reader, options, plan);
}

}  // namespace ReplayServer
