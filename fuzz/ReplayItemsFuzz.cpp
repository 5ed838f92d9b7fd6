// Cuts arbitrary records into items as the replay plan does, forms each item
// into a record of its own and checks that the formed record is valid and
// cuts back into exactly that item.

#include <cstdint>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "libreplay/server/ClientRecord.h"
#include "server/ReplayItems.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::Initialise();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string record(reinterpret_cast<const char*>(data), size);
    ReplayServer::ItemCut cut;
    if (!ReplayServer::CutRecordItems(record, cut)) {
        return 0;
    }
    unsigned int sequence = 1;
    for (const ReplayServer::ReplayItem& item : cut.items) {
        if (item.data.size() < 2 || item.data.size() > size) {
            __builtin_trap();
        }
        std::string formed;
        if (!ReplayServer::FormItemRecord(cut.typeCharacter, cut.client, item.timeMs, sequence++,
                                          item.data, formed)) {
            continue;
        }
        if (formed.size() > 2048 ||
            !ReplayCore::CheckSumValid(formed.data(), static_cast<unsigned int>(formed.size()))) {
            __builtin_trap();
        }
        ReplayServer::ItemCut again;
        if (!ReplayServer::CutRecordItems(formed, again) || again.items.size() != 1 ||
            again.items[0].data != item.data || again.client != cut.client) {
            __builtin_trap();
        }
    }
    return 0;
}
