#include "tests/support/RecordingCheck.h"

#include <dirent.h>

#include <algorithm>

#include "tests/support/TestSupport.h"

namespace ReplayTest {

std::map<std::string, std::vector<std::string>> ReadExtractedItems(const std::string& directory) {
    std::vector<std::string> names;
    if (DIR* dir = opendir(directory.c_str())) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') {
                names.push_back(entry->d_name);
            }
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());  // the item number leads, zero-padded
    std::map<std::string, std::vector<std::string>> items;
    for (const std::string& name : names) {
        const size_t first = name.find('_');
        const size_t last = name.rfind('_');
        if (first == std::string::npos || last <= first) {
            continue;
        }
        items[name.substr(first + 1, last - first - 1)].push_back(ReadFile(directory + "/" + name));
    }
    return items;
}

std::vector<HandedItem> MissingItems(const std::vector<HandedItem>& handed,
                                     const std::vector<std::string>& logged, int64_t beforeMs) {
    const std::multiset<std::string> present(logged.begin(), logged.end());
    std::vector<HandedItem> missing;
    for (const HandedItem& item : handed) {
        if (item.timeMs < beforeMs && present.count(item.bytes) == 0) {
            missing.push_back(item);
        }
    }
    return missing;
}

}  // namespace ReplayTest
