#include "server/ReplayReport.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "server/ServerStatusJson.h"

namespace ReplayServer {

bool WriteReplayReport(const std::string& path, ReplayServer& server,
                       const ReplayPosition& position, const ReplayResult& result,
                       std::string& error) {
    // Written beside and renamed: a reader never sees half a report.
    const std::string partial = path + ".partial";
    {
        std::ofstream file(partial, std::ios::trunc);
        file << ReplayJson(position, server.Deliveries().Snapshot(), &result);
        file.flush();
        if (!file) {
            error = "cannot write " + partial + ": " + std::strerror(errno);
            return false;
        }
    }
    if (std::rename(partial.c_str(), path.c_str()) != 0) {
        error = "cannot rename " + partial + " to " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace ReplayServer
