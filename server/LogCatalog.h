#ifndef SERVER_LOGCATALOG_H
#define SERVER_LOGCATALOG_H

// The logs in the log directory as the web page shows them: per log its
// size, date, duration, clients, segments and verify result, and for one log
// the items each client stored per second of each segment, with the moments
// of gaps and damaged records. Statistics are kept per file and worked out
// again only when the file's size or time changes.

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "libreplay/server/ReplayLogStatistics.h"
#include "reference/src/status.h"

namespace ReplayServer {

class LogCatalog {
  public:
    using Json = nlohmann::ordered_json;

    explicit LogCatalog(std::string directory) : m_directory(std::move(directory)) {}

    const std::string& Directory() const { return m_directory; }
    // The path of a log in the directory; empty when `name` is not a plain
    // file name of a regular file there.
    std::string PathOf(const std::string& name) const;
    // [{"name", "size", "modified", "records", "segments", "clients",
    //   "duration_ms", "problems", "clean"}, ...], newest first.
    Json List();
    // The summary plus "segments" (with their clients) and "timeline".
    // Fails when the log cannot be read.
    ReplayPlatform::Status Detail(const std::string& name, Json& out);
    // {"clean", "problem_count", "counts", "problems"}.
    ReplayPlatform::Status Verify(const std::string& name, Json& out);

  private:
    struct TimelineSegment {
        uint32_t index = 0;
        int64_t startMs = 0;
        // Per client, items per second from the segment's start.
        std::map<std::string, std::vector<uint32_t>> items;
    };
    struct Marker {
        uint32_t segment;
        std::string client;
        double seconds;  // from the segment's start
        std::string kind;
    };
    struct Entry {
        off_t size = -1;
        int64_t modifiedNs = 0;
        ReplayCore::LogStatistics statistics;
        std::vector<TimelineSegment> timeline;
        std::vector<Marker> markers;
    };
    // The entry for a path, worked out again when the file changed.
    ReplayPlatform::Status Load(const std::string& name, std::shared_ptr<const Entry>& loaded);
    static Json Summary(const std::string& name, const Entry& entry);

    std::string m_directory;
    std::mutex m_mutex;
    std::map<std::string, std::shared_ptr<const Entry>> m_entries;
};

}  // namespace ReplayServer

#endif
