#ifndef TESTS_E2E_CLIENTS_TIMEDITEMS_H
#define TESTS_E2E_CLIENTS_TIMEDITEMS_H

// Item i of a plan is recognisable from its bytes alone. Plan lines "<pause
// ms> <t|b> <bytes>"; journal lines "<i> <ms before> <ms after> <result>"
// around SendClientData, then "done".

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
