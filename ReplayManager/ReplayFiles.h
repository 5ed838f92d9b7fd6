#ifndef REPLAYMANAGER_REPLAYFILES_H
#define REPLAYMANAGER_REPLAYFILES_H

// File-system helpers of the replay library: existence and size tests, path
// splitting, the search for support files, the classification of replay files
// by extension, an iterator over the matching files of a directory, and a
// diagnostic version report printed on the debug channels.

#include <dirent.h>

#include <string>

#include "libreplay/ReplayExport.h"

namespace ReplayFiles {

// A bit set; the directory iterator takes any combination as its mask.
typedef unsigned int ReplayFileType;
constexpr ReplayFileType kNotReplayFile = 0;
constexpr ReplayFileType kTraceFile = 1;  // "trc" (and "trc0" where noted)
constexpr ReplayFileType kLogFile = 2;    // "3X0", "4X0", "13XX", "14XX"
constexpr ReplayFileType kDirectory = 4;

// The fixed places searched for support files (target paths).
REPLAY_API extern const char* const s_supportPath;
REPLAY_API extern const char* const s_etfsSupportPath;
// The report files of the version report (target paths).
constexpr const char* kVersionReportFile = "/tmp/ReplayVersion.txt";
constexpr const char* kCommandLineFile = "/tmp/ReplayCL.txt";
constexpr const char* kVersionTextFile = "/version/version.txt";

REPLAY_API bool FileExists(const char* path);
REPLAY_API bool DirectoryExists(const char* path);
// The size in bytes, or all bits set when the file cannot be examined.
REPLAY_API unsigned int GetFileSize(const char* path);
// Empty when the working directory cannot be determined.
REPLAY_API std::string GetWorkingDirectory();

// Splits at the later of the last '/' and '\\'. Outputs that the path does not
// supply (no separator: directory; no '.': extension) are left untouched.
// Returns the file part (name and extension); an empty path returns empty.
REPLAY_API std::string SplitPathName(const std::string& path, std::string& directory,
                                     std::string& name, std::string& extension);
REPLAY_API std::string GetFileName(const std::string& path);
// The text after the last '.', or empty.
REPLAY_API std::string GetExtension(const std::string& path);
// Cuts at the last separator, ignoring one trailing separator; a path without
// separator is returned as it is.
REPLAY_API std::string GetParentDirectory(const std::string& path);
// Looks for the file as given, then by its name in the working directory, the
// two support directories and the parent of the working directory.
REPLAY_API bool GetSupportFilePath(const std::string& path, std::string& found);

REPLAY_API ReplayFileType GetFileType(const char* path);
REPLAY_API bool IsTraceFile(std::string extension);
REPLAY_API bool IsLogFile(std::string extension);

// Yields the entries of one directory that match a mask of ReplayFileType
// bits. The directory path is used as a prefix for the entry names, so it
// should end with '/'.
class REPLAY_API DirectoryFileIterator {
  public:
    DirectoryFileIterator(const std::string& directory, ReplayFileType mask);
    ~DirectoryFileIterator();
    DirectoryFileIterator(const DirectoryFileIterator&) = delete;
    DirectoryFileIterator& operator=(const DirectoryFileIterator&) = delete;

    // The next matching entry; with the directory bit the first result is "..".
    // Ends at the first entry that cannot be examined.
    bool GetNextFile(std::string& name);
    bool CheckFileType(const std::string& name) const;

  private:
    DIR* m_directory;
    ReplayFileType m_mask;
    std::string m_path;
    bool m_firstCall;
};

// Collects the version records of the replay programs into the version report
// file (when forced or when the file is missing) and prints the report, the
// system version text and the command lines of the replay processes on the
// debug channels.
REPLAY_API void WriteReplayFileVersions(bool force);
REPLAY_API void WriteVersionText();
// The first process-list line that mentions `process`, or empty.
REPLAY_API std::string GetCommandLine(const std::string& process);

}  // namespace ReplayFiles

#endif
