#include "server/LogCatalog.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>

#include "libreplay/server/ReplayLogReader.h"
#include "libreplay/server/ReplayLogRecord.h"

namespace ReplayServer {

namespace {

using ReplayCore::LogClientStatistics;
using ReplayCore::LogProblem;
using ReplayCore::LogSegmentStatistics;
using ReplayCore::LogStatistics;

// A log longer than this is plotted with its later items in the last second.
constexpr size_t kMaxTimelineSeconds = 24 * 3600;
// Gaps and damaged records marked on a timeline at most.
constexpr size_t kMaxMarkers = 2000;

bool PlainName(const std::string& name) {
    return !name.empty() && name[0] != '.' && name.find('/') == std::string::npos &&
           name.size() < 256;
}

LogCatalog::Json ClientJson(const LogClientStatistics& client) {
    return {{"name", client.name},
            {"records", client.records},
            {"items", client.items},
            {"bytes", client.bytes},
            {"sequence_gaps", client.sequenceGaps},
            {"missing_blocks", client.missingBlocks},
            {"checksum_failures", client.checksumFailures},
            {"first_ms", client.firstTimeMs},
            {"last_ms", client.lastTimeMs}};
}

int64_t TotalDurationMs(const LogStatistics& statistics) {
    int64_t total = 0;
    for (const LogSegmentStatistics& segment : statistics.Segments()) {
        total += std::max<int64_t>(0, segment.DurationMs());
    }
    return total;
}

}  // namespace

std::string LogCatalog::PathOf(const std::string& name) const {
    if (!PlainName(name)) {
        return "";
    }
    const std::string path = m_directory + "/" + name;
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return "";
    }
    return path;
}

ReplayPlatform::Status LogCatalog::Load(const std::string& name,
                                        std::shared_ptr<const Entry>& loaded) {
    const std::string path = PathOf(name);
    struct stat info {};
    if (path.empty() || stat(path.c_str(), &info) != 0) {
        return ReplayPlatform::Status::Failure("no log named '" + name + "' in " + m_directory);
    }
    const int64_t modifiedNs =
        static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_entries.find(name);
        if (found != m_entries.end() && found->second->size == info.st_size &&
            found->second->modifiedNs == modifiedNs) {
            loaded = found->second;
            return ReplayPlatform::Status::Ok();
        }
    }
    // Read outside the lock: other logs stay available meanwhile.
    auto entry = std::make_shared<Entry>();
    entry->size = info.st_size;
    entry->modifiedNs = modifiedNs;
    ReplayCore::ReplayLogReader reader;
    if (!reader.Open(path)) {
        return ReplayPlatform::Status::Failure(reader.LastError());
    }
    struct Place {
        uint64_t offset;
        size_t segment;
        std::string client;
        double seconds;
    };
    std::vector<Place> places;  // of every client record, for the problem markers
    ReplayCore::LogRecord record;
    ReplayCore::LogClientRecord fields;
    std::string previousPayload;
    while (reader.Next(record)) {
        entry->statistics.Add(record);
        // A record stored twice in a row is a duplicate, counted once, as
        // the statistics do.
        const bool repeated = record.kind == ReplayCore::LogRecordKind::kClient &&
                              !record.payload.empty() && record.payload[0] != '#' &&
                              record.payload == previousPayload;
        previousPayload = record.payload;
        if (repeated) {
            continue;
        }
        if (entry->timeline.empty() || (entry->timeline.back().index != record.segment &&
                                        entry->timeline.size() < LogStatistics::kMaxSegments)) {
            TimelineSegment segment;
            segment.index = record.segment;
            segment.startMs = -1;
            entry->timeline.push_back(segment);
        }
        TimelineSegment& segment = entry->timeline.back();
        if (record.kind == ReplayCore::LogRecordKind::kHeader) {
            int64_t timeMs = 0;
            if (ReplayCore::LogFormat::ParseHeaderPayload(record.payload, timeMs)) {
                segment.startMs = timeMs;
            }
            continue;
        }
        if (record.kind != ReplayCore::LogRecordKind::kClient ||
            !ReplayCore::ParseLogClientRecord(record.payload, fields)) {
            continue;
        }
        // The clients the statistics keep apart: the first ones of the segment.
        auto client = segment.items.find(fields.clientName);
        if (client == segment.items.end()) {
            if (segment.items.size() >= LogStatistics::kMaxClientsPerSegment) {
                continue;
            }
            client = segment.items.emplace(fields.clientName, std::vector<uint32_t>()).first;
        }
        if (fields.typeCharacter == '#') {
            continue;  // a status record: no data items
        }
        if (segment.startMs < 0) {
            segment.startMs = fields.blockTimeMs;
        }
        std::vector<uint32_t>& counts = client->second;
        ReplayCore::ForEachLogItem(
            record.payload, fields, [&](int64_t timeMs, const char*, size_t) {
                const int64_t second = (timeMs - segment.startMs) / 1000;
                const size_t bin = std::min<size_t>(
                    static_cast<size_t>(std::max<int64_t>(0, second)), kMaxTimelineSeconds);
                if (counts.size() <= bin) {
                    counts.resize(bin + 1, 0);
                }
                ++counts[bin];
            });
        places.push_back({record.offset, entry->timeline.size() - 1, fields.clientName,
                          static_cast<double>(fields.blockTimeMs - segment.startMs) / 1000.0});
    }
    entry->statistics.Finish(reader);
    if (reader.ReadFailed()) {
        return ReplayPlatform::Status::Failure(path + ": " + reader.LastError());
    }
    // Each gap or damaged record is marked at the client record it was found at.
    for (const LogProblem& problem : entry->statistics.Problems()) {
        if (entry->markers.size() >= kMaxMarkers) {
            break;
        }
        const auto at = std::lower_bound(
            places.begin(), places.end(), problem.offset,
            [](const Place& place, uint64_t offset) { return place.offset < offset; });
        if (at == places.end() || at->offset != problem.offset) {
            continue;
        }
        entry->markers.push_back({entry->timeline[at->segment].index, at->client,
                                  std::max(0.0, at->seconds),
                                  ReplayCore::LogProblemKindKey(problem.kind)});
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_entries[name] = entry;
    loaded = entry;
    return ReplayPlatform::Status::Ok();
}

LogCatalog::Json LogCatalog::Summary(const std::string& name, const Entry& entry) {
    const LogStatistics& statistics = entry.statistics;
    // The clients a replay can feed: a name with status records only (the
    // server's own stop marks) has nothing to replay.
    Json clients = Json::array();
    for (const LogClientStatistics& client : statistics.Clients()) {
        if (client.records > client.statusRecords) {
            clients.push_back(client.name);
        }
    }
    return {{"name", name},
            {"size", entry.size},
            {"modified", entry.modifiedNs / 1000000000},
            {"records", statistics.Records()},
            {"replay_records", statistics.ReplayRecords()},
            {"segments", statistics.Segments().size()},
            {"clients", clients},
            {"duration_ms", TotalDurationMs(statistics)},
            {"problems", statistics.ProblemCount()},
            {"clean", statistics.Clean()}};
}

LogCatalog::Json LogCatalog::List() {
    std::vector<std::string> names;
    if (DIR* directory = opendir(m_directory.c_str())) {
        while (const dirent* item = readdir(directory)) {
            if (PlainName(item->d_name)) {
                names.push_back(item->d_name);
            }
        }
        closedir(directory);
    }
    Json logs = Json::array();
    for (const std::string& name : names) {
        if (PathOf(name).empty()) {
            continue;
        }
        std::shared_ptr<const Entry> entry;
        const ReplayPlatform::Status loaded = Load(name, entry);
        if (loaded.IsOk()) {
            logs.push_back(Summary(name, *entry));
        } else {
            logs.push_back({{"name", name}, {"error", loaded.Message()}});
        }
    }
    std::stable_sort(logs.begin(), logs.end(), [](const Json& a, const Json& b) {
        return a.value("modified", int64_t{0}) > b.value("modified", int64_t{0});
    });
    return logs;
}

ReplayPlatform::Status LogCatalog::Detail(const std::string& name, Json& out) {
    std::shared_ptr<const Entry> entry;
    ReplayPlatform::Status loaded = Load(name, entry);
    if (!loaded.IsOk()) {
        return loaded;
    }
    out = Summary(name, *entry);
    Json segments = Json::array();
    for (const LogSegmentStatistics& segment : entry->statistics.Segments()) {
        Json clients = Json::array();
        for (const auto& client : segment.clients) {
            clients.push_back(ClientJson(client.second));
        }
        segments.push_back({{"index", segment.index},
                            {"has_header", segment.hasHeader},
                            {"start_ms", segment.startTimeMs},
                            {"duration_ms", segment.DurationMs()},
                            {"records", segment.records},
                            {"clients", clients}});
    }
    out["segments"] = segments;
    Json timeline = Json::array();
    for (const TimelineSegment& segment : entry->timeline) {
        Json items = Json::object();
        for (const auto& client : segment.items) {
            if (!client.second.empty()) {  // a name without items draws no line
                items[client.first] = client.second;
            }
        }
        timeline.push_back({{"segment", segment.index},
                            {"start_ms", segment.startMs},
                            {"bin_ms", 1000},
                            {"items", items}});
    }
    out["timeline"] = timeline;
    Json markers = Json::array();
    for (const Marker& marker : entry->markers) {
        markers.push_back({{"segment", marker.segment},
                           {"client", marker.client},
                           {"seconds", marker.seconds},
                           {"kind", marker.kind}});
    }
    out["markers"] = markers;
    return ReplayPlatform::Status::Ok();
}

ReplayPlatform::Status LogCatalog::Verify(const std::string& name, Json& out) {
    std::shared_ptr<const Entry> entry;
    ReplayPlatform::Status loaded = Load(name, entry);
    if (!loaded.IsOk()) {
        return loaded;
    }
    const LogStatistics& statistics = entry->statistics;
    Json counts = Json::object();
    for (int kind = 0; kind < LogProblem::kKindCount; ++kind) {
        const auto k = static_cast<LogProblem::Kind>(kind);
        counts[ReplayCore::LogProblemKindKey(k)] = statistics.ProblemCount(k);
    }
    Json problems = Json::array();
    for (const LogProblem& problem : statistics.Problems()) {
        problems.push_back({{"kind", ReplayCore::LogProblemKindName(problem.kind)},
                            {"offset", problem.offset},
                            {"text", problem.text}});
    }
    out = {{"name", name},
           {"clean", statistics.Clean()},
           {"records", statistics.Records()},
           {"problem_count", statistics.ProblemCount()},
           {"counts", counts},
           {"problems", problems}};
    return ReplayPlatform::Status::Ok();
}

}  // namespace ReplayServer
