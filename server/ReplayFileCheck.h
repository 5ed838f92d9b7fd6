#ifndef SERVER_REPLAYFILECHECK_H
#define SERVER_REPLAYFILECHECK_H

#include <string>

#include "reference/src/status.h"

namespace ReplayServer {

// Succeeds when `path` is a regular file the process can read; otherwise the
// failure says why ("cannot replay PATH: ..."). Never blocks: FIFOs and
// devices are refused by their type, before any open.
ReplayPlatform::Status CheckReplayFile(const std::string& path);

}  // namespace ReplayServer

#endif
