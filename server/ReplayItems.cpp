#include "server/ReplayItems.h"

#include <cstring>

#include "libreplay/server/ClientRecord.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayLogRecord.h"

namespace ReplayServer {

namespace {

// A client reads datagrams of at most this many bytes.
constexpr size_t kClientReadSize = 2048;
// A client's last item ends this many bytes before the record's end.
constexpr size_t kItemCutFromEnd = 8;
// Items shorter than this are never handed to a callback.
constexpr size_t kMinimumItemLength = 2;

}  // namespace

bool CutRecordItems(const std::string& record, ItemCut& cut) {
    cut = ItemCut();
    ReplayCore::LogClientRecord fields;
    if (!ReplayCore::ParseLogClientRecord(record, fields) || fields.typeCharacter == '#' ||
        !fields.hasSequence) {
        return false;
    }
    cut.typeCharacter = fields.typeCharacter;
    cut.client = fields.clientName;
    cut.sequence = fields.sequenceNumber;
    cut.blockTimeMs = fields.blockTimeMs;

    size_t length = record.size();
    while (length > 0 && (record[length - 1] == '\n' || record[length - 1] == '\r')) {
        --length;
    }
    const size_t end = length >= fields.payloadStart + kItemCutFromEnd ? length - kItemCutFromEnd
                                                                       : fields.payloadStart;
    const char* const base = record.data();
    size_t position = fields.payloadStart;
    int64_t timeMs = fields.blockTimeMs;
    bool first = true;
    for (;;) {
        const void* found =
            std::memchr(base + position, ReplayCore::kItemSeparator, end - position);
        const size_t itemEnd =
            found != nullptr ? static_cast<size_t>(static_cast<const char*>(found) - base) : end;
        size_t dataStart = position;
        bool keep = true;
        if (!first) {
            const void* colon = std::memchr(base + position, ':', itemEnd - position);
            if (colon == nullptr) {
                ++cut.itemsWithoutTime;
                keep = false;
            } else {
                dataStart = static_cast<size_t>(static_cast<const char*>(colon) - base) + 1;
                const ReplayCore::MSTime::MSTimeStruct itemTime(
                    record.substr(position, dataStart - 1 - position));
                // A negative time cannot be written into a header again.
                if (itemTime.m_timeMilliseconds > 0) {
                    timeMs = itemTime.m_timeMilliseconds;
                }
            }
        }
        if (keep && itemEnd - dataStart < kMinimumItemLength) {
            ++cut.emptyItems;
            keep = false;
        }
        if (keep) {
            ReplayItem item;
            item.timeMs = timeMs;
            item.data.assign(base + dataStart, itemEnd - dataStart);
            cut.items.push_back(std::move(item));
        }
        if (found == nullptr) {
            break;
        }
        position = itemEnd + 1;
        first = false;
    }
    return true;
}

bool FormItemRecord(char typeCharacter, const std::string& client, int64_t timeMs,
                    unsigned int sequence, const std::string& data, std::string& record) {
    char buffer[kClientReadSize + ReplayCore::kChecksumFieldLength + 1];
    const unsigned int header = ReplayCore::WriteDataBlockHeader(
        buffer, sizeof buffer, typeCharacter, ReplayCore::MSTime::MSTimeStruct(0, timeMs),
        client.c_str(), sequence);
    const size_t length = header + data.size();
    // The checksum field without its line end: the client's cut 8 bytes
    // before the end then falls exactly on it.
    // A client reads a record as text: it would end at a NUL.
    if (length + ReplayCore::kChecksumFieldLength - 1 > kClientReadSize ||
        std::memchr(data.data(), '\0', data.size()) != nullptr) {
        return false;
    }
    std::memcpy(buffer + header, data.data(), data.size());
    buffer[length] = '\0';
    unsigned int checksum = 0;
    const int total = ReplayCore::AppendChecksum(buffer, static_cast<unsigned int>(length),
                                                 sizeof buffer, checksum);
    if (total < 0) {
        return false;
    }
    record.assign(buffer, static_cast<size_t>(total) - 1);  // without the line feed
    return true;
}

}  // namespace ReplayServer
