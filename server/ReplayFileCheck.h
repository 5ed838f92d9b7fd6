#ifndef SERVER_REPLAYFILECHECK_H
#define SERVER_REPLAYFILECHECK_H

#include <string>

namespace ReplayServer {

// True when `path` is a regular file the process can read. Otherwise false
// with `error` set ("cannot replay PATH: ..."). Never blocks: FIFOs and
// devices are refused by their type, before any open.
bool CheckReplayFile(const std::string& path, std::string& error);

}  // namespace ReplayServer

#endif
