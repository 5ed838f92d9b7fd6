#ifndef LOGGER_LOGFILEWRITER_H
#define LOGGER_LOGFILEWRITER_H

// Appends to one file on a medium that may come and go: when the file's
// directory is missing nothing is written, and the file is opened again once
// the directory is back. A file that was removed or replaced while open is
// noticed by comparing it with the path before each write.

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <string>

namespace MulticoreLogService {

class LogFileWriter {
  public:
    explicit LogFileWriter(std::string path) : m_path(std::move(path)) {}
    ~LogFileWriter() { Close(); }
    LogFileWriter(const LogFileWriter&) = delete;
    LogFileWriter& operator=(const LogFileWriter&) = delete;

    // Writes all of `data` or nothing: false when the file cannot be opened
    // or the write fails (the data is then lost, what part of it was written
    // is cut off again, and the file is opened anew next time).
    bool Append(const char* data, size_t length);
    // The same for the concatenation of `count` buffers, in one writev where
    // the kernel takes it all.
    bool Append(const struct iovec* parts, int count);
    // Flushes written data to the medium.
    void Sync();
    void Close();

    const std::string& Path() const { return m_path; }
    bool IsOpen() const { return m_fd >= 0; }
    // The reason of the last failure, for the service's report.
    const std::string& LastError() const { return m_lastError; }

  private:
    bool EnsureOpen();

    std::string m_path;
    int m_fd = -1;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    bool m_dirty = false;
    std::string m_lastError;
};

}  // namespace MulticoreLogService

#endif
