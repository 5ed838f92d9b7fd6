#include "libreplay/server/ReplayLogStatistics.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <functional>
#include <iterator>

namespace ReplayCore {

namespace {

// Names and JSON keys of the problem kinds, in the order of the enum.
const char* const kKindNames[][2] = {
    {"checksum", "checksum"},
    {"sequence gap", "sequence_gap"},
    {"time order", "time_order"},
    {"skipped", "skipped"},
    {"block order", "block_order"},
    {"duplicate", "duplicate"},
    {"unreadable", "unreadable"},
    {"header", "header"},
    {"empty", "empty"},
};
static_assert(sizeof kKindNames / sizeof kKindNames[0] == LogProblem::kKindCount,
              "a name for every problem kind");

// The start of a payload in printable form, for problem texts.
std::string Excerpt(const std::string& payload) {
    constexpr size_t kLength = 40;
    std::string text;
    for (size_t i = 0; i < payload.size() && i < kLength; ++i) {
        const unsigned char byte = static_cast<unsigned char>(payload[i]);
        if (byte >= 32 && byte < 127) {
            text += static_cast<char>(byte);
        } else {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            text += escaped;
        }
    }
    if (payload.size() > kLength) {
        text += "...";
    }
    return text;
}

}  // namespace

const char* LogProblemKindName(LogProblem::Kind kind) {
    return kind < LogProblem::kKindCount ? kKindNames[kind][0] : "unknown";
}

const char* LogProblemKindKey(LogProblem::Kind kind) {
    return kind < LogProblem::kKindCount ? kKindNames[kind][1] : "unknown";
}

void LogStatistics::AddProblem(LogProblem::Kind kind, uint64_t offset, const std::string& text) {
    ++m_problemCount;
    ++m_problemCounts[kind];
    if (m_problems.size() < kMaxKeptProblems) {
        m_problems.push_back(LogProblem{kind, offset, text});
    }
}

LogSegmentStatistics& LogStatistics::SegmentFor(const LogRecord& record) {
    const bool startsSegment = record.kind == LogRecordKind::kHeader || m_segments.empty();
    if (startsSegment && m_segments.size() < kMaxSegments) {
        if (!m_segments.empty()) {
            // Block numbers are followed within a segment only.
            ReportMissing(m_segments.back());
        }
        LogSegmentStatistics segment;
        segment.index = record.segment;
        segment.offset = record.offset;
        if (record.kind == LogRecordKind::kHeader) {
            segment.hasHeader = LogFormat::ParseHeaderPayload(record.payload, segment.startTimeMs);
        }
        m_segments.push_back(std::move(segment));
    }
    // Past kMaxSegments the last segment takes every further record.
    return m_segments.back();
}

void LogStatistics::Add(const LogRecord& record) {
    if (m_records == 0 && record.kind != LogRecordKind::kHeader) {
        AddProblem(LogProblem::kHeader, record.offset,
                   "the log does not begin with a header: " + Excerpt(record.payload));
    }
    ++m_records;
    m_payloadBytes += record.payload.size();
    // The server never writes the same header or data record twice in a
    // row: every data block has a number of its own. Status records are left
    // out: a client may report the same state twice within a millisecond.
    const bool status = record.kind == LogRecordKind::kClient && !record.payload.empty() &&
                        record.payload[0] == '#';
    m_payloadHash = std::hash<std::string>()(record.payload);
    const bool repeated = m_records > 1 && !status && m_payloadHash == m_previousHash &&
                          record.payload.size() == m_previousLength;
    m_previousHash = m_payloadHash;
    m_previousLength = record.payload.size();
    if (repeated) {
        AddProblem(LogProblem::kDuplicate, record.offset,
                   "record repeated: " + Excerpt(record.payload));
    }
    LogSegmentStatistics& segment = SegmentFor(record);
    ++segment.records;
    switch (record.kind) {
        case LogRecordKind::kHeader:
            ++m_headerRecords;
            if (!repeated && !m_headerTimes.insert(segment.startTimeMs).second) {
                AddProblem(LogProblem::kDuplicate, record.offset,
                           "header of " + LogFormat::FormatRecordTime(segment.startTimeMs) +
                               " stored a second time");
            }
            break;
        case LogRecordKind::kClient:
            ++m_clientRecords;
            if (!repeated) {
                AddClientRecord(record, segment);
            }
            break;
        case LogRecordKind::kOther:
            ++m_otherRecords;
            ++segment.otherRecords;
            AddProblem(LogProblem::kUnreadable, record.offset,
                       "neither a header nor a client record: " + Excerpt(record.payload));
            break;
    }
}

void LogStatistics::AddClientRecord(const LogRecord& record, LogSegmentStatistics& segment) {
    if (!ParseLogClientRecord(record.payload, m_fields)) {
        AddProblem(LogProblem::kUnreadable, record.offset,
                   "client record does not parse: " + Excerpt(record.payload));
        return;
    }
    const bool status = m_fields.typeCharacter == '#';
    if (!status) {
        ++m_replayRecords;
        ++segment.replayRecords;
    }

    auto found = segment.clients.find(m_fields.clientName);
    LogClientStatistics* client = nullptr;
    if (found != segment.clients.end()) {
        client = &found->second;
    } else if (segment.clients.size() < kMaxClientsPerSegment) {
        client = &segment.clients[m_fields.clientName];
        client->name = m_fields.clientName;
    } else {
        ++segment.untrackedClientRecords;
    }

    char text[160];
    const bool checksumValid = LogRecordChecksumValid(record.payload.data(), record.payload.size());
    if (!checksumValid) {
        snprintf(text, sizeof text, "client %s: checksum mismatch in record at %s",
                 m_fields.clientName.c_str(),
                 LogFormat::FormatRecordTime(m_fields.blockTimeMs).c_str());
        AddProblem(LogProblem::kChecksum, record.offset, text);
    }

    const int64_t blockTime = m_fields.blockTimeMs;
    bool timeReported = false;
    if (client != nullptr) {
        ++client->records;
        client->bytes += record.payload.size();
        if (!checksumValid) {
            ++client->checksumFailures;
        }
        if (status) {
            ++client->statusRecords;
        } else {
            timeReported = TrackBlock(record, *client, checksumValid);
        }
    }
    if (status) {
        return;
    }

    // Time order over all clients of the segment: the log manager writes
    // records oldest first, allowing a small reordering.
    if (!segment.hasRecordTime) {
        segment.hasRecordTime = true;
        segment.firstRecordMs = blockTime;
        segment.lastRecordMs = blockTime;
        if (!segment.hasHeader) {
            segment.startTimeMs = blockTime;
        }
    } else if (blockTime < segment.lastRecordMs - kReorderToleranceMs) {
        ++segment.timeOrderViolations;
        if (!timeReported) {
            snprintf(text, sizeof text,
                     "client %s: record time %s is %" PRId64 " ms before the latest record time %s",
                     m_fields.clientName.c_str(), LogFormat::FormatRecordTime(blockTime).c_str(),
                     segment.lastRecordMs - blockTime,
                     LogFormat::FormatRecordTime(segment.lastRecordMs).c_str());
            AddProblem(LogProblem::kTimeOrder, record.offset, text);
        }
    } else if (blockTime < segment.lastRecordMs) {
        ++segment.reorderedRecords;
    } else {
        segment.lastRecordMs = blockTime;
    }
}

bool LogStatistics::TrackBlock(const LogRecord& record, LogClientStatistics& client,
                               bool checksumValid) {
    char text[200];
    const char* name = m_fields.clientName.c_str();
    const int64_t blockTime = m_fields.blockTimeMs;

    // Item times, and whether they run backwards inside the block.
    int64_t lastItemTime = blockTime;
    bool itemsBackwards = false;
    client.items +=
        ForEachLogItem(record.payload, m_fields, [&](int64_t timeMs, const char*, size_t) {
            if (timeMs < lastItemTime) {
                itemsBackwards = true;
            } else {
                lastItemTime = timeMs;
            }
        });
    if (!client.hasTime) {
        client.hasTime = true;
        client.firstTimeMs = blockTime;
        client.lastTimeMs = lastItemTime;
    } else {
        if (blockTime < client.firstTimeMs) {
            client.firstTimeMs = blockTime;
        }
        if (lastItemTime > client.lastTimeMs) {
            client.lastTimeMs = lastItemTime;
        }
    }

    bool inOrder = true;
    if (m_fields.hasSequence) {
        const unsigned int sequence = m_fields.sequenceNumber;
        const size_t hash = m_payloadHash;
        // A new run starts strictly after the last item of the old one; a
        // low block number at the same millisecond is a block out of order.
        const bool laterThanAll = !client.hasLastItemTime || blockTime > client.lastItemTimeMs;
        if (!client.hasLastSequence) {
            client.lastSequence = sequence;
        } else if (sequence == client.lastSequence + 1) {
            client.lastSequence = sequence;
        } else if (sequence < client.lastSequence && client.pendingMissing.erase(sequence) > 0) {
            // A block that was missing turns up late.
            ++client.blocksOutOfOrder;
            inOrder = false;
            snprintf(text, sizeof text, "client %s: block %u stored after block %u", name, sequence,
                     client.lastSequence);
            AddProblem(LogProblem::kBlockOrder, record.offset, text);
        } else if (sequence <= 1 && laterThanAll) {
            // A new run of the client counts its blocks from 0 (its
            // initialisation record) or 1 again.
            ReportMissing(client);
            ++client.restarts;
            client.lastSequence = sequence;
            client.recentCount = 0;
        } else if (sequence > client.lastSequence) {
            const unsigned int first = client.lastSequence + 1;
            const unsigned int missing = sequence - first;
            if (missing <= kMaxPendingGap &&
                client.pendingMissing.size() + missing <= kMaxPendingMissing) {
                for (unsigned int s = first; s < sequence; ++s) {
                    client.pendingMissing.emplace(s, record.offset);
                }
            } else {
                ReportMissing(client);
                ++client.sequenceGaps;
                client.missingBlocks += missing;
                snprintf(text, sizeof text, "client %s: blocks %u to %u missing (block %u follows)",
                         name, first, sequence - 1, sequence);
                AddProblem(LogProblem::kSequenceGap, record.offset, text);
            }
            client.lastSequence = sequence;
        } else {
            bool repeated = false;
            const size_t kept = std::min(client.recentCount, LogClientStatistics::kRecentBlocks);
            for (size_t i = 0; i < kept && !repeated; ++i) {
                repeated = client.recent[i].sequence == sequence && client.recent[i].hash == hash;
            }
            if (repeated) {
                ++client.duplicateBlocks;
                snprintf(text, sizeof text, "client %s: block %u stored a second time", name,
                         sequence);
                AddProblem(LogProblem::kDuplicate, record.offset, text);
                return true;
            }
            client.pendingMissing.erase(sequence);
            ++client.blocksOutOfOrder;
            inOrder = false;
            snprintf(text, sizeof text, "client %s: block %u stored after block %u", name, sequence,
                     client.lastSequence);
            AddProblem(LogProblem::kBlockOrder, record.offset, text);
        }
        client.recent[client.recentCount % LogClientStatistics::kRecentBlocks] = {sequence, hash};
        ++client.recentCount;
        client.hasLastSequence = true;
    }

    // Times within a client never run backwards: a block starts at or after
    // the last item of the block before it. A block out of order or with a
    // damaged checksum is already reported and does not move the mark.
    if (!inOrder || !checksumValid) {
        return !inOrder;
    }
    bool reported = false;
    if (client.hasLastItemTime && blockTime < client.lastItemTimeMs) {
        snprintf(text, sizeof text,
                 "client %s: time runs backwards: block at %s starts %" PRId64
                 " ms before the item at %s",
                 name, LogFormat::FormatRecordTime(blockTime).c_str(),
                 client.lastItemTimeMs - blockTime,
                 LogFormat::FormatRecordTime(client.lastItemTimeMs).c_str());
        AddProblem(LogProblem::kTimeOrder, record.offset, text);
        reported = true;
    } else if (itemsBackwards) {
        snprintf(text, sizeof text, "client %s: item times run backwards within the block at %s",
                 name, LogFormat::FormatRecordTime(blockTime).c_str());
        AddProblem(LogProblem::kTimeOrder, record.offset, text);
        reported = true;
    }
    if (!client.hasLastItemTime || lastItemTime > client.lastItemTimeMs) {
        client.lastItemTimeMs = lastItemTime;
    }
    client.hasLastItemTime = true;
    return reported;
}

void LogStatistics::ReportMissing(LogClientStatistics& client) {
    char text[160];
    auto run = client.pendingMissing.begin();
    while (run != client.pendingMissing.end()) {
        // One problem per run of consecutive block numbers.
        auto last = run;
        auto next = std::next(run);
        while (next != client.pendingMissing.end() && next->first == last->first + 1) {
            last = next++;
        }
        const unsigned int count = last->first - run->first + 1;
        ++client.sequenceGaps;
        client.missingBlocks += count;
        if (count == 1) {
            snprintf(text, sizeof text, "client %s: block %u missing", client.name.c_str(),
                     run->first);
        } else {
            snprintf(text, sizeof text, "client %s: blocks %u to %u missing", client.name.c_str(),
                     run->first, last->first);
        }
        AddProblem(LogProblem::kSequenceGap, run->second, text);
        run = next;
    }
    client.pendingMissing.clear();
}

void LogStatistics::ReportMissing(LogSegmentStatistics& segment) {
    for (auto& entry : segment.clients) {
        ReportMissing(entry.second);
    }
}

void LogStatistics::Finish(const ReplayLogReader& reader) {
    if (m_finished) {
        return;
    }
    m_finished = true;
    if (!m_segments.empty()) {
        ReportMissing(m_segments.back());
    }
    if (m_records == 0) {
        AddProblem(LogProblem::kEmpty, 0, "the log holds no records");
    }
    m_reconnectLines = reader.ReconnectCount();
    char text[96];
    for (const LogSkip& skip : reader.Skips()) {
        if (skip.kind == LogSkip::kReconnect) {
            continue;
        }
        snprintf(text, sizeof text, "%s: %" PRIu64 " bytes skipped", LogSkipKindName(skip.kind),
                 skip.length);
        AddProblem(LogProblem::kSkipped, skip.offset, text);
    }
    // Skips beyond those the reader kept are counted all the same.
    uint64_t kept = 0;
    for (const LogSkip& skip : reader.Skips()) {
        kept += skip.kind != LogSkip::kReconnect ? 1 : 0;
    }
    if (reader.SkipCount() > kept) {
        const uint64_t more = reader.SkipCount() - kept;
        m_problemCount += more;
        m_problemCounts[LogProblem::kSkipped] += more;
    }
    // Missing blocks and skips are found after the records around them.
    std::stable_sort(m_problems.begin(), m_problems.end(),
                     [](const LogProblem& a, const LogProblem& b) { return a.offset < b.offset; });
}

std::vector<LogClientStatistics> LogStatistics::Clients() const {
    std::map<std::string, LogClientStatistics> merged;
    for (const LogSegmentStatistics& segment : m_segments) {
        for (const auto& entry : segment.clients) {
            const LogClientStatistics& part = entry.second;
            auto inserted = merged.emplace(entry.first, part);
            if (inserted.second) {
                continue;
            }
            LogClientStatistics& total = inserted.first->second;
            total.records += part.records;
            total.statusRecords += part.statusRecords;
            total.items += part.items;
            total.bytes += part.bytes;
            total.checksumFailures += part.checksumFailures;
            total.sequenceGaps += part.sequenceGaps;
            total.missingBlocks += part.missingBlocks;
            total.blocksOutOfOrder += part.blocksOutOfOrder;
            total.duplicateBlocks += part.duplicateBlocks;
            total.restarts += part.restarts;
            if (part.hasTime) {
                if (!total.hasTime || part.firstTimeMs < total.firstTimeMs) {
                    total.firstTimeMs = part.firstTimeMs;
                }
                if (!total.hasTime || part.lastTimeMs > total.lastTimeMs) {
                    total.lastTimeMs = part.lastTimeMs;
                }
                total.hasTime = true;
            }
        }
    }
    std::vector<LogClientStatistics> result;
    result.reserve(merged.size());
    for (auto& entry : merged) {
        result.push_back(std::move(entry.second));
    }
    return result;
}

bool CollectLogStatistics(const std::string& path, LogStatistics& statistics, std::string& error) {
    ReplayLogReader reader;
    if (!reader.Open(path)) {
        error = reader.LastError();
        return false;
    }
    LogRecord record;
    while (reader.Next(record)) {
        statistics.Add(record);
    }
    statistics.Finish(reader);
    if (reader.ReadFailed()) {
        error = path + ": " + reader.LastError();
        return false;
    }
    return true;
}

}  // namespace ReplayCore
