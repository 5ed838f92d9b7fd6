#ifndef SUPPORT_HEXTEXT_H
#define SUPPORT_HEXTEXT_H

#include <string>

namespace ReplaySupport {

// Bytes as lower-case hex digits, two per byte: the form of the items in a
// demo client's journal.
std::string Hex(const std::string& bytes);

// The bytes of Hex text; false (and `bytes` unspecified) for an odd length
// or a character that is not a hex digit.
bool Unhex(const std::string& text, std::string& bytes);

}  // namespace ReplaySupport

#endif
