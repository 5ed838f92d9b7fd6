#include "support/HexText.h"

#include <cctype>
#include <cstdlib>

namespace ReplaySupport {

std::string Hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        text.push_back(digits[c >> 4]);
        text.push_back(digits[c & 15]);
    }
    return text;
}

bool Unhex(const std::string& text, std::string& bytes) {
    if (text.size() % 2 != 0) {
        return false;
    }
    bytes.clear();
    bytes.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        const char pair[3] = {text[i], text[i + 1], '\0'};
        if (std::isxdigit(static_cast<unsigned char>(pair[0])) == 0 ||
            std::isxdigit(static_cast<unsigned char>(pair[1])) == 0) {
            return false;
        }
        bytes.push_back(static_cast<char>(std::strtol(pair, nullptr, 16)));
    }
    return true;
}

}  // namespace ReplaySupport
