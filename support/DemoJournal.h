#ifndef SUPPORT_DEMOJOURNAL_H
#define SUPPORT_DEMOJOURNAL_H

// The journal a demo client keeps of what it hands over, one item a line:
// "<time ms> <data type> <hex bytes>". The client compares its replay with
// it; the tests and the soak program compare the log with it.

#include <cstdint>
#include <string>
#include <vector>

namespace ReplaySupport {

struct JournalItem {
    int64_t timeMs = 0;  // the client's clock when it handed the item over
    unsigned int dataType = 0;
    std::string bytes;
};

std::string JournalLine(const JournalItem& item);

// The items of a journal file; a line that does not parse (the last one of
// a client killed while writing it) is left out.
std::vector<JournalItem> ReadJournal(const std::string& path);

}  // namespace ReplaySupport

#endif
