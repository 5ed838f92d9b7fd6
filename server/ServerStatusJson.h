#ifndef SERVER_SERVERSTATUSJSON_H
#define SERVER_SERVERSTATUSJSON_H

// The `status --json` and `clients --json` replies: one JSON object on one
// line, for scripts.

#include <string>

#include "server/ReplayServer.h"

namespace ReplayServer {

// {"clients": [{"name", "port", "status", "received", "sent", "dropped",
// "slot", "last_message"}, ...]}
std::string ClientsJson(ReplayServer& server);

// {"state", "job_running", "counters": {...}, "clients": [...]}
std::string StatusJson(ReplayServer& server, bool jobRunning);

}  // namespace ReplayServer

#endif
