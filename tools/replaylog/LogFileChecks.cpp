// Checks of the log file and of the filter's names before a subcommand runs.

#include "tools/replaylog/LogFileChecks.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "libreplay/ReplayCore.h"
#include "reference/src/file_io.h"

namespace ReplayLogTool {

namespace {

// A log holds a marker within its first records; skipped bytes at its start
// (a cut file, a service re-attach line) are far shorter than this.
constexpr size_t kMarkerSearchBytes = 64 * 1024;

const char* FileKind(mode_t mode) {
    if (S_ISDIR(mode)) {
        return "a directory";
    }
    if (S_ISFIFO(mode)) {
        return "a FIFO";
    }
    if (S_ISCHR(mode) || S_ISBLK(mode)) {
        return "a device";
    }
    if (S_ISSOCK(mode)) {
        return "a socket";
    }
    return "not a regular file";
}

}  // namespace

int CheckLogFile(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        ReportError("cannot read " + path + ": " + strerror(errno));
        return kExitFileError;
    }
    if (!S_ISREG(status.st_mode)) {
        ReportError("cannot read " + path + ": it is " + FileKind(status.st_mode) +
                    ", not a log file");
        return kExitFileError;
    }
    // O_NONBLOCK: should the path have been replaced by a FIFO since the
    // stat, the open still returns at once.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        ReportError("cannot read " + path + ": " + strerror(errno));
        return kExitFileError;
    }
    std::string start(kMarkerSearchBytes, '\0');
    start.resize(ReplayPlatform::ReadUpTo(fd, &start[0], start.size()));
    ReplayPlatform::CloseDescriptor(fd);
    if (!start.empty() &&
        start.find(ReplayCore::SpecialStrings::kReplayMarker) == std::string::npos) {
        ReportError(path + " is not a replay log: no record marker in its first " +
                    std::to_string(start.size()) + " bytes");
        return kExitFileError;
    }
    return kExitOk;
}

int CheckFilterNamesExist(const std::string& path, const RecordFilter& filter) {
    if (filter.clients.empty() && filter.segments.empty()) {
        return kExitOk;
    }
    ReplayCore::ReplayLogReader reader;
    if (!reader.Open(path)) {
        ReportError("cannot open " + reader.LastError());
        return kExitFileError;
    }
    std::set<std::string> clients;
    std::set<uint32_t> segments;
    ReplayCore::LogRecord record;
    ReplayCore::LogClientRecord fields;
    while (reader.Next(record)) {
        segments.insert(record.segment);
        if (record.kind == ReplayCore::LogRecordKind::kClient &&
            ReplayCore::ParseLogClientRecord(record.payload, fields)) {
            clients.insert(fields.clientName);
        }
    }
    if (reader.ReadFailed()) {
        ReportError("cannot read " + path + ": " + reader.LastError());
        return kExitFileError;
    }
    for (const std::string& client : filter.clients) {
        if (clients.count(client) == 0) {
            ReportError("no client \"" + client + "\" in " + path);
            return kExitUsage;
        }
    }
    for (uint32_t segment : filter.segments) {
        if (segments.count(segment) == 0) {
            ReportError("no segment " + std::to_string(segment) + " in " + path +
                        (segments.empty()
                             ? std::string(": it holds no records")
                             : "; it has segments " + std::to_string(*segments.begin()) + " to " +
                                   std::to_string(*segments.rbegin())));
            return kExitUsage;
        }
    }
    return kExitOk;
}

}  // namespace ReplayLogTool
