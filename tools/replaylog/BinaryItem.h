#ifndef TOOLS_REPLAYLOG_BINARYITEM_H
#define TOOLS_REPLAYLOG_BINARYITEM_H

// Decoding of a binary item as stored in a log record, for every program
// that reads logs back (replaylog, the soak program).

#include <cstddef>
#include <string>

namespace ReplayLogTool {

// The bytes of a binary item's Ascii7 text; decoding stops at the first
// character outside the code.
std::string DecodeBinaryItem(const char* text, size_t length);

}  // namespace ReplayLogTool

#endif
