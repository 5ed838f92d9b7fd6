#include "support/DemoJournal.h"

#include <fstream>
#include <sstream>

#include "support/HexText.h"

namespace ReplaySupport {

std::string JournalLine(const JournalItem& item) {
    return std::to_string(item.timeMs) + ' ' + std::to_string(item.dataType) + ' ' +
           Hex(item.bytes) + '\n';
}

std::vector<JournalItem> ReadJournal(const std::string& path) {
    std::vector<JournalItem> items;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        JournalItem item;
        std::string hex;
        if (fields >> item.timeMs >> item.dataType >> hex && Unhex(hex, item.bytes)) {
            items.push_back(std::move(item));
        }
    }
    return items;
}

}  // namespace ReplaySupport
