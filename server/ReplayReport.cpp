#include "server/ReplayReport.h"

#include <cerrno>
#include <fstream>

#include "server/ServerStatusJson.h"

namespace ReplayServer {

ReplayPlatform::Status WriteReplayReport(const std::string& path, ReplayServer& server,
                                         const ReplayPosition& position,
                                         const ReplayResult& result) {
    // Written beside and renamed: a reader never sees half a report.
    const std::string partial = path + ".partial";
    {
        std::ofstream file(partial, std::ios::trunc);
        file << ReplayJson(position, server.Deliveries().Snapshot(), &result);
        file.flush();
        if (!file) {
            return ReplayPlatform::Status::SystemFailure("cannot write " + partial, errno);
        }
    }
    if (std::rename(partial.c_str(), path.c_str()) != 0) {
        return ReplayPlatform::Status::SystemFailure("cannot rename " + partial + " to " + path,
                                                     errno);
    }
    return ReplayPlatform::Status::Ok();
}

}  // namespace ReplayServer
