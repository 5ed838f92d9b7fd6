#include "support/HexText.h"

namespace ReplaySupport {

namespace {

int DigitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

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
        const int high = DigitValue(text[i]);
        const int low = DigitValue(text[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes.push_back(static_cast<char>(high * 16 + low));
    }
    return true;
}

}  // namespace ReplaySupport
