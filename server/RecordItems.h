#ifndef SERVER_RECORDITEMS_H
#define SERVER_RECORDITEMS_H

// Item-level surgery on one client data record, for the server's stop (and
// for any later work that needs a record limited to a time range).

#include <cstddef>
#include <cstdint>
#include <string>

namespace ReplayServer {

struct RecordCut {
    std::string record;  // the record with only the kept items
    size_t itemsKept = 0;
    size_t itemsCut = 0;
};

// Keeps the items of a client data record stamped before `momentMs`: the
// same header (so the same block time and sequence), those items, and a
// checksum computed anew. A record whose items are all before the moment is
// returned as it is; one with none before it keeps no items (the caller
// drops it). False for anything that is not a parsable data record.
bool KeepItemsBefore(const std::string& record, int64_t momentMs, RecordCut& cut);

}  // namespace ReplayServer

#endif
