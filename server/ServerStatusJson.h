#ifndef SERVER_SERVERSTATUSJSON_H
#define SERVER_SERVERSTATUSJSON_H

// The `status --json` and `clients --json` replies: one JSON object on one
// line, for scripts.

#include <string>
#include <vector>

#include "server/ReplayRunner.h"
#include "server/ReplayServer.h"

namespace ReplayServer {

// {"clients": [{"name", "port", "status", "received", "sent", "dropped",
// "slot", "last_message", "note"}, ...]}
std::string ClientsJson(ReplayServer& server);

// {"state", "job_running", "counters": {...}, "clients": [...]}, and
// "replay": {...} (ReplayJson) when a replay has started.
std::string StatusJson(ReplayServer& server, bool jobRunning,
                       const ReplayPosition* replay = nullptr);

// A replay's position, rate and mode, and per client what it reported;
// with `result` (at its end) also its outcome. {"paused", "rate",
// "max_rate", "loop", "position_ms", "duration_ms", "record", "records",
// "records_sent", "loops", "clients": [{"name", "sent", "delivered",
// "missed", "skipped_by_seek", "checksum_errors", "last_report"}], ...}
std::string ReplayJson(const ReplayPosition& position,
                       const std::vector<ClientDelivery>& deliveries,
                       const ReplayResult* result = nullptr);

// Gaps a client found in its block numbers, less those a seek made.
uint64_t MissedRecords(const ClientDelivery& delivery, const ReplayPosition& position);

}  // namespace ReplayServer

#endif
