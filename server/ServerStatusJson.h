#ifndef SERVER_SERVERSTATUSJSON_H
#define SERVER_SERVERSTATUSJSON_H

// The `status --json` and `clients --json` replies: one JSON object on one
// line, for scripts.

#include <string>

#include "server/ReplayRunner.h"
#include "server/ReplayServer.h"

namespace ReplayServer {

// {"clients": [{"name", "port", "status", "received", "sent", "dropped",
// "slot", "last_message"}, ...]}
std::string ClientsJson(ReplayServer& server);

// {"state", "job_running", "counters": {...}, "clients": [...]}, and
// "replay": {...} (ReplayJson) when a replay has started.
std::string StatusJson(ReplayServer& server, bool jobRunning,
                       const ReplayPosition* replay = nullptr);

// A replay's position, rate and mode; with `result` (at its end) also its
// outcome. {"paused", "rate", "max_rate", "loop", "position_ms",
// "duration_ms", "record", "records", "records_sent", "loops", ...}
std::string ReplayJson(const ReplayPosition& position, const ReplayResult* result = nullptr);

}  // namespace ReplayServer

#endif
