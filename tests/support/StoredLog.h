#ifndef TESTS_SUPPORT_STOREDLOG_H
#define TESTS_SUPPORT_STOREDLOG_H

// Logs made up for replay and the matching demo client journals. Free of the
// test framework: the benchmarks use it too.

#include <cstdint>
#include <string>
#include <vector>

namespace ReplayTest {

struct TimedItem {
    int64_t timeMs;
    std::string bytes;
};

// A log with its header at `startMs` and `client`'s text items in blocks as
// the client sends them: below 2032 bytes, each spanning less than a second.
std::string StoredClientLog(int64_t startMs, const std::string& client,
                            const std::vector<TimedItem>& items);

// A demo client journal of the same items as text (data type 2).
std::string DemoJournal(const std::vector<TimedItem>& items);

}  // namespace ReplayTest

#endif
