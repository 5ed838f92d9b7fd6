#include "libreplay/ReplayLogStatistics.h"

#include <cinttypes>
#include <cstdio>

namespace ReplayCore {

const char* LogProblemKindName(LogProblem::Kind kind) {
    switch (kind) {
        case LogProblem::kChecksum:
            return "checksum";
        case LogProblem::kSequenceGap:
            return "sequence gap";
        case LogProblem::kTimeOrder:
            return "time order";
        case LogProblem::kSkipped:
            return "skipped";
    }
    return "unknown";
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
    ++m_records;
    m_payloadBytes += record.payload.size();
    LogSegmentStatistics& segment = SegmentFor(record);
    ++segment.records;
    switch (record.kind) {
        case LogRecordKind::kHeader:
            ++m_headerRecords;
            break;
        case LogRecordKind::kClient:
            ++m_clientRecords;
            AddClientRecord(record, segment);
            break;
        case LogRecordKind::kOther:
            ++m_otherRecords;
            ++segment.otherRecords;
            break;
    }
}

void LogStatistics::AddClientRecord(const LogRecord& record, LogSegmentStatistics& segment) {
    if (!ParseLogClientRecord(record.payload, m_fields)) {
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

    // Time order over all clients of the segment: the log manager writes
    // records oldest first, allowing a small reordering.
    const int64_t blockTime = m_fields.blockTimeMs;
    if (!status) {
        if (!segment.hasRecordTime) {
            segment.hasRecordTime = true;
            segment.firstRecordMs = blockTime;
            segment.lastRecordMs = blockTime;
            if (!segment.hasHeader) {
                segment.startTimeMs = blockTime;
            }
        } else if (blockTime < segment.lastRecordMs - kReorderToleranceMs) {
            ++segment.timeOrderViolations;
            snprintf(text, sizeof text,
                     "client %s: record time %s is %" PRId64 " ms before the latest record time %s",
                     m_fields.clientName.c_str(), LogFormat::FormatRecordTime(blockTime).c_str(),
                     segment.lastRecordMs - blockTime,
                     LogFormat::FormatRecordTime(segment.lastRecordMs).c_str());
            AddProblem(LogProblem::kTimeOrder, record.offset, text);
        } else if (blockTime < segment.lastRecordMs) {
            ++segment.reorderedRecords;
        } else {
            segment.lastRecordMs = blockTime;
        }
    }

    if (client == nullptr) {
        return;
    }
    ++client->records;
    client->bytes += record.payload.size();
    if (!checksumValid) {
        ++client->checksumFailures;
    }
    if (status) {
        ++client->statusRecords;
        return;
    }
    int64_t lastItemTime = blockTime;
    client->items += ForEachLogItem(record.payload, m_fields,
                                    [&lastItemTime](int64_t timeMs, const char*, size_t) {
                                        if (timeMs > lastItemTime) {
                                            lastItemTime = timeMs;
                                        }
                                    });
    if (!client->hasTime) {
        client->hasTime = true;
        client->firstTimeMs = blockTime;
        client->lastTimeMs = lastItemTime;
    } else {
        if (blockTime < client->firstTimeMs) {
            client->firstTimeMs = blockTime;
        }
        if (lastItemTime > client->lastTimeMs) {
            client->lastTimeMs = lastItemTime;
        }
    }

    // Sequence number 0 marks calibration records, outside the block count.
    if (!m_fields.hasSequence || m_fields.sequenceNumber == 0) {
        return;
    }
    const unsigned int sequence = m_fields.sequenceNumber;
    if (client->hasLastSequence && sequence != client->lastSequence + 1) {
        ++client->sequenceGaps;
        if (sequence > client->lastSequence) {
            client->missingBlocks += sequence - client->lastSequence - 1;
        }
        snprintf(text, sizeof text, "client %s: block %u follows block %u",
                 m_fields.clientName.c_str(), sequence, client->lastSequence);
        AddProblem(LogProblem::kSequenceGap, record.offset, text);
    }
    client->hasLastSequence = true;
    client->lastSequence = sequence;
}

void LogStatistics::Finish(const ReplayLogReader& reader) {
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
