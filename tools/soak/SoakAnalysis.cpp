#include "tools/soak/SoakAnalysis.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unordered_map>

#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayLogReader.h"
#include "libreplay/server/ReplayLogRecord.h"
#include "support/HexText.h"
#include "tools/replaylog/BinaryItem.h"

namespace ReplaySoak {

using ReplaySupport::Unhex;

std::vector<ReplayedItem> ReadReplayed(const std::string& path) {
    std::vector<ReplayedItem> items;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        ReplayedItem item;
        std::string hex;
        if (fields >> item.momentMs >> hex && Unhex(hex, item.bytes)) {
            items.push_back(std::move(item));
        }
    }
    return items;
}

LogContents ReadLog(const std::string& path, const std::string& initialisationPrefix) {
    LogContents contents;
    ReplayCore::ReplayLogReader reader;
    if (!reader.Open(path)) {
        contents.error = reader.LastError();
        return contents;
    }
    contents.opened = true;
    ReplayCore::LogRecord record;
    ReplayCore::LogClientRecord fields;
    while (reader.Next(record)) {
        if (record.kind != ReplayCore::LogRecordKind::kClient) {
            continue;
        }
        if (!ReplayCore::LogRecordChecksumValid(record.payload.data(), record.payload.size())) {
            ++contents.checksumFailures;
            continue;
        }
        if (!ReplayCore::ParseLogClientRecord(record.payload, fields)) {
            ++contents.unparsable;
            continue;
        }
        if (fields.typeCharacter == '#') {
            continue;  // status reports are not data
        }
        const bool binary = fields.typeCharacter == '$';
        std::vector<LoggedItem>& items = contents.items[fields.clientName];
        ReplayCore::ForEachLogItem(
            record.payload, fields, [&](int64_t timeMs, const char* data, size_t length) {
                LoggedItem item;
                item.timeMs = timeMs;
                item.bytes = binary ? ReplayLogTool::DecodeBinaryItem(data, length)
                                    : std::string(data, length);
                if (item.bytes.compare(0, initialisationPrefix.size(), initialisationPrefix) != 0) {
                    items.push_back(std::move(item));
                }
            });
    }
    contents.skippedRegions = reader.SkipCount();
    if (reader.ReadFailed()) {
        contents.error = reader.LastError();
    }
    return contents;
}

ClientResult AnalyseClient(const std::vector<SentItem>& sent, const std::vector<LoggedItem>& logged,
                           const std::vector<ReplayedItem>& replayed, const LossLimits& limits) {
    ClientResult result;
    result.sent = sent.size();

    // Every item a client sends differs from the others (it carries a
    // count), so the bytes identify it.
    std::unordered_map<std::string, size_t> logIndex;
    for (size_t i = 0; i < logged.size(); ++i) {
        if (!logIndex.emplace(logged[i].bytes, i).second) {
            ++result.unexpected;  // stored twice
        }
    }

    std::unordered_map<std::string, size_t> sentBytes;
    std::vector<bool> inLog(sent.size(), false);
    for (size_t i = 0; i < sent.size(); ++i) {
        sentBytes.emplace(sent[i].bytes, i);
        inLog[i] = logIndex.count(sent[i].bytes) != 0;
        result.logged += inLog[i] ? 1 : 0;
    }
    for (const auto& entry : logIndex) {
        if (sentBytes.count(entry.first) == 0) {
            ++result.unexpected;
        }
    }

    // Items handed over after the stop moment may be missing; before it,
    // every missing item after the last stored one was lost at the stop.
    size_t tailStart = sent.size();
    while (tailStart > 0 && !inLog[tailStart - 1]) {
        --tailStart;
    }
    for (size_t i = tailStart; i < sent.size(); ++i) {
        if (limits.stopMomentMs != INT64_MAX &&
            sent[i].timeMs >= limits.stopMomentMs - limits.stampMarginMs) {
            ++result.afterStop;
        } else {
            ++result.lostAtStop;
        }
    }
    result.lost = tailStart - result.logged;

    // Runs of missing items before the tail: the next item sent after a run
    // went out no earlier than the run's block, so the time from the run's
    // first item to it bounds the block's age when it was sent.
    for (size_t i = 0; i < tailStart;) {
        if (inLog[i]) {
            ++i;
            continue;
        }
        size_t end = i;
        while (end < tailStart && !inLog[end]) {
            ++end;
        }
        if (end < sent.size() && sent[end].timeMs - sent[i].timeMs >= limits.lateAgeMs) {
            result.late += end - i;
            result.lost -= end - i;
        }
        i = end;
    }

    // Replay: every stored item once, in the stored order.
    std::vector<bool> seen(logged.size(), false);
    std::vector<int64_t> offsets;
    bool haveLast = false;
    size_t lastIndex = 0;
    for (const ReplayedItem& item : replayed) {
        const auto found = logIndex.find(item.bytes);
        if (found == logIndex.end() || seen[found->second] ||
            (haveLast && found->second < lastIndex)) {
            ++result.replayWrong;
            continue;
        }
        seen[found->second] = true;
        haveLast = true;
        lastIndex = found->second;
        ++result.replayed;
        offsets.push_back(item.momentMs - logged[found->second].timeMs);
    }
    result.replayLost = logIndex.size() - result.replayed;

    if (!offsets.empty()) {
        std::vector<int64_t> sorted = offsets;
        std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
        const int64_t median = sorted[sorted.size() / 2];
        result.timingErrorsMs.reserve(offsets.size());
        for (int64_t offset : offsets) {
            result.timingErrorsMs.push_back(std::llabs(offset - median));
        }
    }
    return result;
}

Distribution Summarise(std::vector<int64_t> values) {
    Distribution distribution;
    distribution.count = values.size();
    if (values.empty()) {
        return distribution;
    }
    std::sort(values.begin(), values.end());
    double sum = 0;
    for (int64_t value : values) {
        sum += static_cast<double>(value);
    }
    distribution.mean = sum / static_cast<double>(values.size());
    distribution.p99 = values[std::min(values.size() - 1, values.size() * 99 / 100)];
    distribution.max = values.back();
    return distribution;
}

double SlopeKbPerMinute(const std::vector<MemorySample>& samples) {
    if (samples.size() < 2) {
        return 0;
    }
    double meanX = 0;
    double meanY = 0;
    for (const MemorySample& sample : samples) {
        meanX += sample.minutes;
        meanY += static_cast<double>(sample.rssKb);
    }
    meanX /= static_cast<double>(samples.size());
    meanY /= static_cast<double>(samples.size());
    double covariance = 0;
    double variance = 0;
    for (const MemorySample& sample : samples) {
        covariance += (sample.minutes - meanX) * (static_cast<double>(sample.rssKb) - meanY);
        variance += (sample.minutes - meanX) * (sample.minutes - meanX);
    }
    return variance > 0 ? covariance / variance : 0;
}

}  // namespace ReplaySoak
