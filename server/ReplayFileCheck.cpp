#include "server/ReplayFileCheck.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "reference/src/file_io.h"

namespace ReplayServer {

bool CheckReplayFile(const std::string& path, std::string& error) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        error = "cannot replay " + path + ": " + std::strerror(errno);
        return false;
    }
    if (S_ISDIR(status.st_mode)) {
        error = "cannot replay " + path + ": it is a directory";
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        error = "cannot replay " + path + ": not a regular file";
        return false;
    }
    if (!ReplayPlatform::IsReadable(path)) {
        error = "cannot replay " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace ReplayServer
