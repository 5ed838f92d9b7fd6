#ifndef SERVER_REPLAYREPORT_H
#define SERVER_REPLAYREPORT_H

// The report a replay writes when it ends: where it stood, its outcome and
// each client's delivery, as one JSON object in a file.

#include <string>

#include "reference/src/status.h"
#include "server/ReplayRunner.h"
#include "server/ReplayServer.h"

namespace ReplayServer {

// Writes the report of a replay to `path`; fails when it cannot be written.
ReplayPlatform::Status WriteReplayReport(const std::string& path, ReplayServer& server,
                                         const ReplayPosition& position,
                                         const ReplayResult& result);

}  // namespace ReplayServer

#endif
