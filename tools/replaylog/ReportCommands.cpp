// The info and verify subcommands: statistics of a whole log.

#include <cinttypes>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "libreplay/server/ReplayLogStatistics.h"
#include "tools/replaylog/ToolSupport.h"

namespace ReplayLogTool {

namespace {

using ReplayCore::LogClientStatistics;
using ReplayCore::LogProblem;
using ReplayCore::LogSegmentStatistics;
using ReplayCore::LogStatistics;
using ReplayCore::LogFormat::FormatRecordTime;
using Json = nlohmann::ordered_json;

Json ClientJson(const LogClientStatistics& client) {
    Json j;
    j["name"] = client.name;
    j["records"] = client.records;
    j["status_records"] = client.statusRecords;
    j["items"] = client.items;
    j["bytes"] = client.bytes;
    if (client.hasTime) {
        j["first_time"] = FormatRecordTime(client.firstTimeMs);
        j["last_time"] = FormatRecordTime(client.lastTimeMs);
    }
    j["sequence_gaps"] = client.sequenceGaps;
    j["missing_blocks"] = client.missingBlocks;
    j["blocks_out_of_order"] = client.blocksOutOfOrder;
    j["duplicate_blocks"] = client.duplicateBlocks;
    j["restarts"] = client.restarts;
    j["checksum_failures"] = client.checksumFailures;
    return j;
}

Json SegmentJson(const LogSegmentStatistics& segment) {
    Json j;
    j["index"] = segment.index;
    j["has_header"] = segment.hasHeader;
    j["offset"] = segment.offset;
    j["start_time"] = FormatRecordTime(segment.startTimeMs);
    j["duration_ms"] = segment.DurationMs();
    j["records"] = segment.records;
    j["replay_records"] = segment.replayRecords;
    j["other_records"] = segment.otherRecords;
    j["reordered_records"] = segment.reorderedRecords;
    j["time_order_violations"] = segment.timeOrderViolations;
    Json clients = Json::array();
    for (const auto& entry : segment.clients) {
        clients.push_back(ClientJson(entry.second));
    }
    j["clients"] = clients;
    return j;
}

Json ProblemsJson(const LogStatistics& statistics) {
    Json problems = Json::array();
    for (const LogProblem& problem : statistics.Problems()) {
        problems.push_back({{"kind", ReplayCore::LogProblemKindName(problem.kind)},
                            {"offset", problem.offset},
                            {"text", problem.text}});
    }
    return problems;
}

// One count per problem kind, every kind present (0 when none).
Json CountsJson(const LogStatistics& statistics) {
    Json counts = Json::object();
    for (int kind = 0; kind < LogProblem::kKindCount; ++kind) {
        const auto k = static_cast<LogProblem::Kind>(kind);
        counts[ReplayCore::LogProblemKindKey(k)] = statistics.ProblemCount(k);
    }
    return counts;
}

void PrintClientTable(const char* indent, const std::vector<LogClientStatistics>& clients) {
    printf("%s%-20s %8s %8s %10s %10s %6s %8s\n", indent, "client", "records", "items", "first",
           "last", "gaps", "badsum");
    for (const LogClientStatistics& client : clients) {
        printf("%s%-20s %8" PRIu64 " %8" PRIu64 " %10s %10s %6" PRIu64 " %8" PRIu64 "\n", indent,
               client.name.c_str(), client.records, client.items,
               client.hasTime ? FormatRecordTime(client.firstTimeMs).c_str() : "-",
               client.hasTime ? FormatRecordTime(client.lastTimeMs).c_str() : "-",
               client.sequenceGaps, client.checksumFailures);
    }
}

void AddInfoJson(const LogStatistics& statistics, Json& j) {
    j["records"] = statistics.Records();
    j["header_records"] = statistics.HeaderRecords();
    j["client_records"] = statistics.ClientRecords();
    j["replay_records"] = statistics.ReplayRecords();
    j["other_records"] = statistics.OtherRecords();
    j["reconnect_lines"] = statistics.ReconnectLines();
    j["problems"] = statistics.ProblemCount();
    Json segments = Json::array();
    for (const LogSegmentStatistics& segment : statistics.Segments()) {
        segments.push_back(SegmentJson(segment));
    }
    j["segments"] = segments;
    Json clients = Json::array();
    for (const LogClientStatistics& client : statistics.Clients()) {
        clients.push_back(ClientJson(client));
    }
    j["clients"] = clients;
}

void PrintInfoText(const CommonOptions& options, const LogStatistics& statistics) {
    printf("%s: %" PRIu64 " records (%" PRIu64 " replay, %" PRIu64 " header, %" PRIu64
           " other), %zu segments, %" PRIu64 " reconnects, %" PRIu64 " problems\n",
           options.logFile.c_str(), statistics.Records(), statistics.ReplayRecords(),
           statistics.HeaderRecords(), statistics.OtherRecords(), statistics.Segments().size(),
           statistics.ReconnectLines(), statistics.ProblemCount());
    for (const LogSegmentStatistics& segment : statistics.Segments()) {
        printf("\nsegment %u%s at offset %" PRIu64 ": start %s, duration %s s, %" PRIu64
               " records, %" PRIu64 " replay records\n",
               segment.index, segment.hasHeader ? "" : " (before any header)", segment.offset,
               FormatRecordTime(segment.startTimeMs).c_str(),
               FormatRecordTime(segment.DurationMs()).c_str(), segment.records,
               segment.replayRecords);
        std::vector<LogClientStatistics> clients;
        for (const auto& entry : segment.clients) {
            clients.push_back(entry.second);
        }
        if (!clients.empty()) {
            PrintClientTable("  ", clients);
        }
    }
    const std::vector<LogClientStatistics> clients = statistics.Clients();
    if (statistics.Segments().size() > 1 && !clients.empty()) {
        printf("\nall segments\n");
        PrintClientTable("  ", clients);
    }
    if (!statistics.Clean()) {
        printf("\nrun 'replaylog verify %s' for the list of problems\n", options.logFile.c_str());
    }
}

void AddVerifyJson(const LogStatistics& statistics, Json& j) {
    j["clean"] = statistics.Clean();
    j["records"] = statistics.Records();
    j["problem_count"] = statistics.ProblemCount();
    j["counts"] = CountsJson(statistics);
    j["problems"] = ProblemsJson(statistics);
}

void PrintVerifyText(const CommonOptions& options, const LogStatistics& statistics) {
    for (const LogProblem& problem : statistics.Problems()) {
        printf("offset %" PRIu64 ": %s: %s\n", problem.offset,
               ReplayCore::LogProblemKindName(problem.kind), problem.text.c_str());
    }
    if (statistics.ProblemCount() > statistics.Problems().size()) {
        printf("... and %" PRIu64 " more\n",
               statistics.ProblemCount() - statistics.Problems().size());
    }
    printf("%s: %s: %" PRIu64 " records, %" PRIu64 " checksum failures, %" PRIu64
           " sequence gaps, %" PRIu64 " time order violations, %" PRIu64
           " skipped regions, %" PRIu64 " blocks out of order, %" PRIu64 " duplicates, %" PRIu64
           " unreadable records%s\n",
           options.logFile.c_str(), statistics.Clean() ? "clean" : "PROBLEMS", statistics.Records(),
           statistics.ProblemCount(LogProblem::kChecksum),
           statistics.ProblemCount(LogProblem::kSequenceGap),
           statistics.ProblemCount(LogProblem::kTimeOrder),
           statistics.ProblemCount(LogProblem::kSkipped),
           statistics.ProblemCount(LogProblem::kBlockOrder),
           statistics.ProblemCount(LogProblem::kDuplicate),
           statistics.ProblemCount(LogProblem::kUnreadable),
           statistics.ProblemCount(LogProblem::kEmpty) > 0    ? ", empty"
           : statistics.ProblemCount(LogProblem::kHeader) > 0 ? ", no header first"
                                                              : "");
}

// A report over the statistics of the whole log, as text or as one JSON
// object that starts with the file name.
struct Report {
    void (*addJson)(const LogStatistics&, Json&);
    void (*printText)(const CommonOptions&, const LogStatistics&);
    bool problemsFail;  // the exit status tells a log with problems
};

int PrintReport(const CommonOptions& options, const Report& report) {
    LogStatistics statistics;
    std::string error;
    if (!ReplayCore::CollectLogStatistics(options.logFile, statistics, error)) {
        ReportError("cannot read " + error);
        return kExitFileError;
    }
    if (options.json) {
        Json j;
        j["file"] = options.logFile;
        report.addJson(statistics, j);
        printf("%s\n", j.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
    } else {
        report.printText(options, statistics);
    }
    return report.problemsFail && !statistics.Clean() ? kExitProblems : kExitOk;
}

}  // namespace

int RunInfo(const CommonOptions& options) {
    return PrintReport(options, {&AddInfoJson, &PrintInfoText, false});
}

int RunVerify(const CommonOptions& options) {
    return PrintReport(options, {&AddVerifyJson, &PrintVerifyText, true});
}

}  // namespace ReplayLogTool
