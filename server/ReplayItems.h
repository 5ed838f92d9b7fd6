#ifndef SERVER_REPLAYITEMS_H
#define SERVER_REPLAYITEMS_H

// A stored data record taken apart into the items a client would hand to its
// callback, and each item formed into a record of its own. A client waits
// for an item's moment only when the item is more than 10 ms ahead of its
// clock at the time the client picks the record up; items of one block that
// follow closely are handed over early. One item per record lets the server
// send each at the moment that makes the client deliver it on time.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ReplayServer {

struct ReplayItem {
    int64_t timeMs = 0;
    std::string data;  // as stored: binary items stay Ascii7-encoded
};

struct ItemCut {
    char typeCharacter = 0;
    std::string client;
    unsigned int sequence = 0;
    int64_t blockTimeMs = 0;
    std::vector<ReplayItem> items;
    // Items a client would never hand over: shorter than two bytes, or
    // (after the first) without a "time:" prefix.
    size_t emptyItems = 0;
    size_t itemsWithoutTime = 0;
};

// Cuts a client data record (with or without its line end) the way a client
// cuts the record sent without line end: at each 0xDE byte and 8 bytes
// before the end, a later item's time up to its first ':'. An item time that
// does not parse is taken as the previous item's, which is when the client
// would hand it over. False for anything that is not a data record.
bool CutRecordItems(const std::string& record, ItemCut& cut);

// A data record holding one item: a header with the item's time and block
// number `sequence`, the item's bytes and the checksum, without line end.
// False when it would not fit in a datagram a client reads whole.
bool FormItemRecord(char typeCharacter, const std::string& client, int64_t timeMs,
                    unsigned int sequence, const std::string& data, std::string& record);

}  // namespace ReplayServer

#endif
