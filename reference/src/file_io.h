#ifndef REFERENCE_SRC_FILE_IO_H
#define REFERENCE_SRC_FILE_IO_H

// File-descriptor calls for code outside the platform layer. Each retries a
// call interrupted by a signal, and every descriptor made here is closed on
// exec, so that no caller has to remember either.

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace ReplayPlatform {

constexpr int kStandardInput = 0;

// One read(); -1 with errno on failure, 0 at end of file.
ssize_t ReadSome(int fd, void* buffer, size_t size);
// Reads until `size` bytes arrived, the file ended or a read failed; returns
// the count read.
size_t ReadUpTo(int fd, void* buffer, size_t size);
// Appends everything up to end of file to `contents`.
bool ReadToEnd(int fd, std::string& contents);

// One write(): a write of up to PIPE_BUF bytes to a pipe stays one record.
ssize_t WriteSome(int fd, const void* data, size_t size);
// Writes `data`, continuing after short writes, until all of it is written or
// a write fails; returns the count written.
size_t WriteUpTo(int fd, const void* data, size_t size);
inline bool WriteAll(int fd, const void* data, size_t size) {
    return WriteUpTo(fd, data, size) == size;
}

// Closes once: after an interrupted close the descriptor is gone all the
// same, and closing it again could close one another thread just opened.
void CloseDescriptor(int fd);

// A pipe whose ends are closed on exec. In packet mode every write of up to
// PIPE_BUF bytes comes back from exactly one read; false (errno set) where the
// kernel does not offer it.
enum class PipeMode { kStream, kPacket };
bool OpenPipe(int ends[2], PipeMode mode, bool nonBlocking = false);
// Makes `target` refer to what `source` refers to, closed on exec.
bool ReplaceDescriptor(int source, int target);
// Another descriptor for `fd`, numbered `lowest` or above, closed on exec.
int DuplicateDescriptor(int fd, int lowest);

bool TruncateFile(int fd, off_t length);
// The size of the file: where an appending write starts. -1 on failure.
off_t FileEnd(int fd);
bool SyncFileData(int fd);

// Removes a file; false (errno set) unless it is gone afterwards, so a file
// that was not there counts as removed.
bool RemoveFile(const std::string& path);
bool IsReadable(const std::string& path);
bool IsExecutable(const std::string& path);
bool PathExists(const char* path);
// Fills `buffer` with the working directory; false when it does not fit.
bool CurrentDirectory(char* buffer, size_t size);

}  // namespace ReplayPlatform

#endif
