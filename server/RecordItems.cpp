#include "server/RecordItems.h"

#include <vector>

#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/ReplayLogRecord.h"

namespace ReplayServer {

bool KeepItemsBefore(const std::string& record, int64_t momentMs, RecordCut& cut) {
    ReplayCore::LogClientRecord fields;
    if (!ReplayCore::ParseLogClientRecord(record, fields) || fields.typeCharacter == '#') {
        return false;
    }
    size_t keptEnd = 0;
    cut = RecordCut();
    ReplayCore::ForEachLogItem(record, fields,
                               [&](int64_t timeMs, const char* data, size_t length) {
                                   if (timeMs < momentMs && cut.itemsCut == 0) {
                                       ++cut.itemsKept;
                                       keptEnd = static_cast<size_t>(data - record.data()) + length;
                                   } else {
                                       ++cut.itemsCut;
                                   }
                               });
    if (cut.itemsCut == 0) {
        cut.record = record;
        return true;
    }
    if (cut.itemsKept == 0) {
        return true;
    }
    // The header and the kept items, then the checksum trailer anew.
    std::vector<char> buffer(record.begin(), record.begin() + static_cast<std::ptrdiff_t>(keptEnd));
    buffer.resize(keptEnd + 64);
    unsigned int checksum = 0;
    const int total =
        ReplayCore::AppendChecksum(buffer.data(), static_cast<unsigned int>(keptEnd),
                                   static_cast<unsigned int>(buffer.size()), checksum);
    if (total < 0) {
        return false;
    }
    cut.record.assign(buffer.data(), static_cast<size_t>(total));
    return true;
}

}  // namespace ReplayServer
