#include "reference/src/file_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace ReplayPlatform {

ssize_t ReadSome(int fd, void* buffer, size_t size) {
    ssize_t got;
    do {
        got = ::read(fd, buffer, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

size_t ReadUpTo(int fd, void* buffer, size_t size) {
    char* const start = static_cast<char*>(buffer);
    size_t got = 0;
    while (got < size) {
        const ssize_t n = ReadSome(fd, start + got, size - got);
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    return got;
}

bool ReadToEnd(int fd, std::string& contents) {
    char chunk[65536];
    for (;;) {
        const ssize_t got = ReadSome(fd, chunk, sizeof chunk);
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            return true;
        }
        contents.append(chunk, static_cast<size_t>(got));
    }
}

ssize_t WriteSome(int fd, const void* data, size_t size) {
    ssize_t wrote;
    do {
        wrote = ::write(fd, data, size);
    } while (wrote < 0 && errno == EINTR);
    return wrote;
}

size_t WriteUpTo(int fd, const void* data, size_t size) {
    const char* const start = static_cast<const char*>(data);
    size_t wrote = 0;
    while (wrote < size) {
        const ssize_t n = WriteSome(fd, start + wrote, size - wrote);
        if (n <= 0) {
            break;
        }
        wrote += static_cast<size_t>(n);
    }
    return wrote;
}

void CloseDescriptor(int fd) {
    if (fd >= 0) {
        ::close(fd);
    }
}

bool OpenPipe(int ends[2], PipeMode mode, bool nonBlocking) {
    int flags = O_CLOEXEC;
    if (mode == PipeMode::kPacket) {
        flags |= O_DIRECT;
    }
    if (nonBlocking) {
        flags |= O_NONBLOCK;
    }
    return ::pipe2(ends, flags) == 0;
}

bool ReplaceDescriptor(int source, int target) {
    int result;
    do {
        result = ::dup3(source, target, O_CLOEXEC);
    } while (result < 0 && (errno == EINTR || errno == EBUSY));
    return result >= 0;
}

int DuplicateDescriptor(int fd, int lowest) {
    return ::fcntl(fd, F_DUPFD_CLOEXEC, lowest);
}

bool TruncateFile(int fd, off_t length) {
    int result;
    do {
        result = ::ftruncate(fd, length);
    } while (result < 0 && errno == EINTR);
    return result == 0;
}

off_t FileEnd(int fd) {
    return ::lseek(fd, 0, SEEK_END);
}

bool SyncFileData(int fd) {
    int result;
    do {
        result = ::fdatasync(fd);
    } while (result < 0 && errno == EINTR);
    return result == 0;
}

bool RemoveFile(const std::string& path) {
    return ::unlink(path.c_str()) == 0 || errno == ENOENT;
}

bool IsReadable(const std::string& path) {
    return ::access(path.c_str(), R_OK) == 0;
}

bool IsExecutable(const std::string& path) {
    return ::access(path.c_str(), X_OK) == 0;
}

bool PathExists(const char* path) {
    return path != nullptr && ::access(path, F_OK) == 0;
}

bool CurrentDirectory(char* buffer, size_t size) {
    return ::getcwd(buffer, size) != nullptr;
}

}  // namespace ReplayPlatform
