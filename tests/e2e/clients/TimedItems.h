#ifndef TESTS_E2E_CLIENTS_TIMEDITEMS_H
#define TESTS_E2E_CLIENTS_TIMEDITEMS_H

// The items of the timed item client, shared with the test that checks
// them in the log: item i of a plan is recognisable from its bytes alone.
//
// Plan lines: "<pause ms> <t|b> <bytes>": wait, then hand over a text or
// binary item of that size. Journal lines: "<i> <ms before> <ms after>
// <result>", the client's clock just before and just after SendClientData,
// then "done" when the plan is through.

#include <cstddef>
#include <string>

namespace TimedItems {

inline std::string ItemBytes(size_t index, char type, size_t size) {
    std::string bytes;
    if (type == 't') {
        bytes = "I" + std::to_string(index) + ":";
        while (bytes.size() < size) {
            bytes += static_cast<char>('a' + (bytes.size() + index) % 26);
        }
    } else {
        // Every byte value, high ones included, after the index.
        for (size_t k = 0; k < 4; ++k) {
            bytes += static_cast<char>((index >> (8 * k)) & 0xFF);
        }
        while (bytes.size() < size) {
            bytes += static_cast<char>((index * 7 + bytes.size()) & 0xFF);
        }
    }
    bytes.resize(size);
    return bytes;
}

}  // namespace TimedItems

#endif
