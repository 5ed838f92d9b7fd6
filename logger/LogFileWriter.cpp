#include "logger/LogFileWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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
    if (!EnsureOpen()) {
        return false;
    }
    // Where this append starts: a write that fails part way (a full medium
    // takes what fits) is cut back to here, so the file never ends in a torn
    // record that the records written after recovery would follow.
    const off_t start = lseek(m_fd, 0, SEEK_END);
    bool partial = false;
    while (length > 0) {
        const ssize_t written = write(m_fd, data, length);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            m_lastError = m_path + ": " + strerror(written < 0 ? errno : ENOSPC);
            if (partial && start >= 0) {
                (void)!ftruncate(m_fd, start);
            }
            Close();
            return false;
        }
        partial = true;
        data += written;
        length -= static_cast<size_t>(written);
        m_dirty = true;
    }
    return true;
}

void LogFileWriter::Sync() {
    if (m_fd >= 0 && m_dirty) {
        fdatasync(m_fd);
        m_dirty = false;
    }
}

void LogFileWriter::Close() {
    if (m_fd >= 0) {
        if (m_dirty) {
            fdatasync(m_fd);
        }
        close(m_fd);
    }
    m_fd = -1;
    m_dirty = false;
}

}  // namespace MulticoreLogService
