#include "logger/LogFileWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#include "reference/src/file_io.h"

namespace MulticoreLogService {

bool LogFileWriter::EnsureOpen() {
    struct stat onPath;
    const bool present = stat(m_path.c_str(), &onPath) == 0;
    if (m_fd >= 0) {
        if (present && onPath.st_dev == m_device && onPath.st_ino == m_inode) {
            return true;
        }
        // The medium went away or the file was replaced.
        Close();
    }
    m_fd = open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (m_fd < 0) {
        m_lastError = m_path + ": " + strerror(errno);
        return false;
    }
    struct stat opened;
    if (fstat(m_fd, &opened) == 0) {
        m_device = opened.st_dev;
        m_inode = opened.st_ino;
    }
    return true;
}

bool LogFileWriter::Append(const char* data, size_t length) {
    struct iovec part = {const_cast<char*>(data), length};
    return Append(&part, 1);
}

bool LogFileWriter::Append(const struct iovec* parts, int count) {
    if (!EnsureOpen()) {
        return false;
    }
    // Where this append starts: a write that fails part way (a full medium
    // takes what fits) is cut back to here, so the file never ends in a torn
    // record that the records written after recovery would follow.
    const off_t start = ReplayPlatform::FileEnd(m_fd);
    std::vector<struct iovec> rest(parts, parts + count);
    size_t next = 0;
    bool partial = false;
    while (next < rest.size()) {
        if (rest[next].iov_len == 0) {
            ++next;
            continue;
        }
        const int chunk = static_cast<int>(std::min<size_t>(rest.size() - next, IOV_MAX));
        const ssize_t written = writev(m_fd, rest.data() + next, chunk);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            m_lastError = m_path + ": " + strerror(written < 0 ? errno : ENOSPC);
            if (partial && start >= 0) {
                (void)ReplayPlatform::TruncateFile(m_fd, start);
            }
            Close();
            return false;
        }
        partial = true;
        m_dirty = true;
        // Skip what the kernel took.
        size_t taken = static_cast<size_t>(written);
        while (taken > 0) {
            struct iovec& part = rest[next];
            const size_t step = std::min(taken, part.iov_len);
            part.iov_base = static_cast<char*>(part.iov_base) + step;
            part.iov_len -= step;
            taken -= step;
            if (part.iov_len == 0) {
                ++next;
            }
        }
    }
    return true;
}

void LogFileWriter::Sync() {
    if (m_fd >= 0 && m_dirty) {
        (void)ReplayPlatform::SyncFileData(m_fd);
        m_dirty = false;
    }
}

void LogFileWriter::Close() {
    if (m_fd >= 0) {
        if (m_dirty) {
            (void)ReplayPlatform::SyncFileData(m_fd);
        }
        ReplayPlatform::CloseDescriptor(m_fd);
    }
    m_fd = -1;
    m_dirty = false;
}

}  // namespace MulticoreLogService
