#include "tests/support/StoredLog.h"

#include <cstdio>

#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/ReplayLogReader.h"
#include "support/DemoJournal.h"

namespace ReplayTest {

namespace {

namespace LogFormat = ReplayCore::LogFormat;

constexpr size_t kBlockLimit = 2032;
constexpr int64_t kBlockSpanMs = 1000;
constexpr unsigned int kTextDataType = 2;

void AppendRecord(const std::string& payload, std::string& log) {
    std::string framed;
    if (LogFormat::FrameRecord(payload, framed)) {
        LogFormat::AppendStoredRecord(framed.data(), framed.size(), log);
    }
}

}  // namespace

std::string StoredClientLog(int64_t startMs, const std::string& client,
                            const std::vector<TimedItem>& items) {
    std::string log;
    AppendRecord(LogFormat::HeaderPayload(startMs), log);
    unsigned int sequence = 0;
    std::string block;
    int64_t blockStart = 0;
    auto flush = [&] {
        if (block.empty()) {
            return;
        }
        char trailer[16];
        std::snprintf(
            trailer, sizeof trailer, "%8x\n",
            ReplayCore::ComputeChecksum(block.data(), static_cast<unsigned int>(block.size())));
        AppendRecord(block + trailer, log);
        block.clear();
    };
    for (const TimedItem& item : items) {
        const std::string time = ReplayCore::MSTime::MSTimeStruct(0, item.timeMs).ToString();
        const std::string separated =
            static_cast<char>(ReplayCore::kItemSeparator) + time + ":" + item.bytes;
        if (!block.empty() && (block.size() + separated.size() >= kBlockLimit ||
                               item.timeMs - blockStart >= kBlockSpanMs)) {
            flush();
        }
        if (block.empty()) {
            blockStart = item.timeMs;
            block =
                "\"" + time + ":" + client + ":!1 " + std::to_string(++sequence) + ":" + item.bytes;
        } else {
            block += separated;
        }
    }
    flush();
    return log;
}

std::string DemoJournal(const std::vector<TimedItem>& items) {
    std::string journal;
    for (const TimedItem& item : items) {
        journal += ReplaySupport::JournalLine({item.timeMs, kTextDataType, item.bytes});
    }
    return journal;
}

}  // namespace ReplayTest
