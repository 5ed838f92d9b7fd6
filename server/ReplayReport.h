#ifndef SERVER_REPLAYREPORT_H
#define SERVER_REPLAYREPORT_H

// The report a replay writes when it ends: where it stood, its outcome and
// each client's delivery, as one JSON object in a file.

#include <string>

#include "server/ReplayRunner.h"
#include "server/ReplayServer.h"

namespace ReplayServer {

// False with `error` when the file cannot be written.
bool WriteReplayReport(const std::string& path, ReplayServer& server,
                       const ReplayPosition& position, const ReplayResult& result,
                       std::string& error);

}  // namespace ReplayServer

#endif
