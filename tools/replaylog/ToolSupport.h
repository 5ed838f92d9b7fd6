#ifndef TOOLS_REPLAYLOG_TOOLSUPPORT_H
#define TOOLS_REPLAYLOG_TOOLSUPPORT_H

// Options and helpers shared by the replaylog subcommands.

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "libreplay/server/ReplayLogReader.h"
#include "libreplay/server/ReplayLogRecord.h"
#include "reference/src/status.h"
#include "tools/replaylog/BinaryItem.h"

namespace ReplayLogTool {

// Exit statuses, also listed in the tool's help: the convention of every
// program of the project.
enum ExitStatus {
    kExitOk = 0,
    kExitProblems = 1,   // verify found problems
    kExitFileError = 1,  // the operation failed: a file cannot be read or written, or is no log
    kExitUsage = 2,      // bad command line, or a client or segment the log does not have
};

struct CommonOptions {
    std::string logFile;
    bool json = false;
};

// Which records dump, extract and cut take.
struct RecordFilter {
    std::vector<std::string> clients;
    std::vector<uint32_t> segments;
    std::string fromText;
    std::string toText;
    // Parsed from the texts by Prepare.
    bool hasFrom = false;
    bool hasTo = false;
    int64_t fromMs = 0;
    int64_t toMs = 0;

    // Parses the --from and --to times; fails naming the one that does not
    // parse.
    ReplayPlatform::Status Prepare();
    bool Active() const { return !clients.empty() || hasFrom || hasTo; }
    bool SegmentSelected(uint32_t segment) const;
    // A client record passes when its client and block time are selected;
    // header and other records pass only when no client or time filter is set.
    bool Selects(const ReplayCore::LogRecord& record, const ReplayCore::LogClientRecord* fields,
                 bool parsed) const;
};

// The payload with bytes outside printable ASCII shown as \n, \r, \t or \xNN.
std::string Printable(const std::string& bytes);
std::string Printable(const char* data, size_t length);

const char* KindName(ReplayCore::LogRecordKind kind);

// Prints "replaylog: <text>" on standard error.
void ReportError(const std::string& text);

int RunInfo(const CommonOptions& options);
int RunVerify(const CommonOptions& options);
int RunDump(const CommonOptions& options, const RecordFilter& filter);
int RunExtract(const CommonOptions& options, const RecordFilter& filter,
               const std::string& outputDirectory);
int RunCut(const CommonOptions& options, const RecordFilter& filter, const std::string& output);

}  // namespace ReplayLogTool

#endif
