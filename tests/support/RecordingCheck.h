#ifndef TESTS_SUPPORT_RECORDINGCHECK_H
#define TESTS_SUPPORT_RECORDINGCHECK_H

// Compares what clients handed over with what a log holds: the demo client's
// journal of sent items against the items `replaylog extract` finds.

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/DemoJournal.h"

namespace ReplayTest {

using HandedItem = ReplaySupport::JournalItem;
using ReplaySupport::ReadJournal;

// The items of each client in a directory written by `replaylog extract
// --out-dir` (files "<n>_<client>_<time>.<ext>"), in log order.
std::map<std::string, std::vector<std::string>> ReadExtractedItems(const std::string& directory);

// The journal items handed over before `beforeMs` that `logged` lacks.
std::vector<HandedItem> MissingItems(const std::vector<HandedItem>& handed,
                                     const std::vector<std::string>& logged, int64_t beforeMs);

}  // namespace ReplayTest

#endif
