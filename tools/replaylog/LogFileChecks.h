#ifndef TOOLS_REPLAYLOG_LOGFILECHECKS_H
#define TOOLS_REPLAYLOG_LOGFILECHECKS_H

// Checks made before a subcommand reads a log, so that a mistake gets one
// line on standard error and the documented exit status instead of a block
// on a FIFO or an empty report.

#include <string>

#include "tools/replaylog/ToolSupport.h"

namespace ReplayLogTool {

// kExitOk when `path` is a regular, readable file that is empty or holds a
// record marker near its start; otherwise reports why and returns
// kExitFileError. FIFOs, devices and directories are refused without being
// opened for reading.
int CheckLogFile(const std::string& path);

// kExitOk when every client and segment the filter names occurs in the log;
// otherwise reports the first that does not and returns kExitUsage.
int CheckFilterNamesExist(const std::string& path, const RecordFilter& filter);

}  // namespace ReplayLogTool

#endif
