#include "server/ReplayFileCheck.h"

#include <sys/stat.h>

#include <cerrno>

#include "reference/src/file_io.h"

namespace ReplayServer {

ReplayPlatform::Status CheckReplayFile(const std::string& path) {
    using ReplayPlatform::Status;
    const std::string context = "cannot replay " + path;
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        return Status::SystemFailure(context, errno);
    }
    if (S_ISDIR(status.st_mode)) {
        return Status::Failure(context + ": it is a directory");
    }
    if (!S_ISREG(status.st_mode)) {
        return Status::Failure(context + ": not a regular file");
    }
    if (!ReplayPlatform::IsReadable(path)) {
        return Status::SystemFailure(context, errno);
    }
    return Status::Ok();
}

}  // namespace ReplayServer
