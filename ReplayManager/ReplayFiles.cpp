#include "ReplayManager/ReplayFiles.h"

#include <strings.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "libreplay/server/TargetRoot.h"
#include "reference/src/child_process.h"
#include "reference/src/file_io.h"

namespace ReplayFiles {

const char* const s_supportPath = "/fs/mmc0/app/share/replay";
const char* const s_etfsSupportPath = "/fs/etfs/usr/share/replay";

namespace {

using ReplayCore::FileLogger;

// A diagnostic utility that does not finish within this time is killed.
constexpr std::chrono::seconds kUtilityTimeout(10);

// Runs a diagnostic utility (searched on PATH) and writes the lines of its
// output that contain `filter` to `path`, appended or replacing the file.
// The utilities exist only on the target system, so on other hosts they
// must fail silently: nothing reaches the application's terminal, a utility
// that cannot be started leaves the file untouched and counts as failed, and
// one that does not finish in time is killed.
bool WriteUtilityOutput(const std::vector<std::string>& arguments, const std::string& filter,
                        const std::string& path, bool append) {
    std::string output;
    if (ReplayPlatform::RunProgram(arguments, kUtilityTimeout, output) == -1) {
        return false;
    }
    std::ofstream file(path, append ? std::ios::app : std::ios::trunc);
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.find(filter) != std::string::npos) {
            file << line << '\n';
        }
    }
    return true;
}

bool EqualsIgnoringCase(const std::string& text, const char* expected) {
    return strcasecmp(text.c_str(), expected) == 0;
}

}  // namespace

bool FileExists(const char* path) {
    return ReplayPlatform::PathExists(path);
}

bool DirectoryExists(const char* path) {
    if (!FileExists(path)) {
        return false;
    }
    struct stat status;
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

unsigned int GetFileSize(const char* path) {
    struct stat status;
    if (!FileExists(path) || stat(path, &status) != 0) {
        return static_cast<unsigned int>(-1);
    }
    return static_cast<unsigned int>(status.st_size);
}

std::string GetWorkingDirectory() {
    char directory[255];
    if (!ReplayPlatform::CurrentDirectory(directory, sizeof directory)) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Error Returned by GetCurrentDir: %s\n", DebugAppName(),
                     "libReplay::ReplayFiles::GetWorkingDirectory", std::strerror(errno));
        }
        return std::string();
    }
    return directory;
}

std::string SplitPathName(const std::string& path, std::string& directory, std::string& name,
                          std::string& extension) {
    if (path.empty()) {
        return std::string();
    }
    const size_t slash = path.rfind('/');
    const size_t backslash = path.rfind('\\');
    size_t separator = std::string::npos;
    if (slash != std::string::npos && backslash != std::string::npos) {
        separator = slash > backslash ? slash : backslash;
    } else {
        separator = slash != std::string::npos ? slash : backslash;
    }
    std::string filePart = path;
    if (separator != std::string::npos) {
        directory = path.substr(0, separator);
        filePart = path.substr(separator + 1);
    }
    name = filePart;
    const size_t dot = filePart.rfind('.');
    if (dot != std::string::npos) {
        extension = filePart.substr(dot + 1);
        name = filePart.substr(0, dot);
    }
    return filePart;
}

std::string GetFileName(const std::string& path) {
    std::string directory;
    std::string name;
    std::string extension;
    return SplitPathName(path, directory, name, extension);
}

std::string GetExtension(const std::string& path) {
    const size_t dot = path.rfind('.');
    return dot == std::string::npos ? std::string() : path.substr(dot + 1);
}

std::string GetParentDirectory(const std::string& path) {
    if (path.size() < 2) {
        return path;
    }
    // Searching from the second-to-last character ignores one trailing separator.
    const size_t from = path.size() - 2;
    const size_t slash = path.rfind('/', from);
    const size_t backslash = path.rfind('\\', from);
    size_t cut = std::string::npos;
    if (slash != std::string::npos && backslash != std::string::npos) {
        cut = slash > backslash ? slash : backslash;
    } else {
        cut = slash != std::string::npos ? slash : backslash;
    }
    return cut == std::string::npos ? path : path.substr(0, cut);
}

bool GetSupportFilePath(const std::string& path, std::string& found) {
    found = path;
    if (FileExists(found.c_str())) {
        return true;
    }
    FileLogger::LogToFile(FileLogger::eSeverityDebug, "FilePath %s Not Valid", path.c_str());
    const std::string fileName = GetFileName(path);
    if (fileName.empty()) {
        FileLogger::LogToFile(FileLogger::eSeverityError, "Unable to get filename from %s",
                              path.c_str());
        return false;
    }
    // The working directory candidates are real paths; only the fixed support
    // directories are target paths.
    const std::string workingDirectory = GetWorkingDirectory();
    const std::string candidates[] = {
        workingDirectory + "/" + fileName,
        ReplayPlatform::TargetPath(std::string(s_supportPath) + "/" + fileName),
        ReplayPlatform::TargetPath(std::string(s_etfsSupportPath) + "/" + fileName),
        GetParentDirectory(workingDirectory) + "/" + fileName,
    };
    for (const std::string& candidate : candidates) {
        found = candidate;
        if (FileExists(found.c_str())) {
            return true;
        }
        FileLogger::LogToFile(FileLogger::eSeverityDebug, "FilePath %s Not Valid", found.c_str());
    }
    FileLogger::LogToFile(FileLogger::eSeverityWarning, "File %s not found", fileName.c_str());
    return false;
}

bool IsTraceFile(std::string extension) {
    return EqualsIgnoringCase(extension, "trc") || EqualsIgnoringCase(extension, "trc0");
}

bool IsLogFile(std::string extension) {
    return EqualsIgnoringCase(extension, "3X0") || EqualsIgnoringCase(extension, "4X0") ||
           EqualsIgnoringCase(extension, "13XX") || EqualsIgnoringCase(extension, "14XX");
}

ReplayFileType GetFileType(const char* path) {
    if (path == nullptr) {
        return kNotReplayFile;
    }
    if (DirectoryExists(path)) {
        return kDirectory;
    }
    const std::string extension = GetExtension(path);
    if (IsLogFile(extension)) {
        return kLogFile;
    }
    // Only "trc" here: a "trc0" file is not classified as a trace file.
    if (EqualsIgnoringCase(extension, "trc")) {
        return kTraceFile;
    }
    return kNotReplayFile;
}

DirectoryFileIterator::DirectoryFileIterator(const std::string& directory, ReplayFileType mask)
    : m_directory(nullptr), m_mask(mask), m_path(directory), m_firstCall(true) {
    m_directory = opendir(m_path.c_str());
    if (m_directory == nullptr) {
        char text[128];
        std::snprintf(text, sizeof text, "Failed to Open Directory %s", m_path.c_str());
        if (DebugOutputAttached()) {
            dbgError("%s::%s: %s\n", DebugAppName(), "libReplay::ReplayFiles::ctor", text);
        }
    }
}

DirectoryFileIterator::~DirectoryFileIterator() {
    if (m_directory != nullptr) {
        closedir(m_directory);
    }
}

bool DirectoryFileIterator::CheckFileType(const std::string& name) const {
    const std::string extension = GetExtension(name);
    if (extension.empty()) {
        return false;
    }
    if (IsTraceFile(extension) && (m_mask & kTraceFile) != 0) {
        return true;
    }
    return IsLogFile(extension) && (m_mask & kLogFile) != 0;
}

bool DirectoryFileIterator::GetNextFile(std::string& name) {
    if (m_directory == nullptr) {
        return false;
    }
    if (m_firstCall) {
        m_firstCall = false;
        if ((m_mask & kDirectory) != 0) {
            name = "..";
            return true;
        }
    }
    while (const dirent* entry = readdir(m_directory)) {
        name = entry->d_name;
        const std::string fullPath = m_path + name;
        struct stat status;
        if (stat(fullPath.c_str(), &status) != 0) {
            if (DebugOutputAttached()) {
                dbgError("%s::%s: Error Returned by stat: %s\n", DebugAppName(),
                         "libReplay::ReplayFiles::GetNextFile", std::strerror(errno));
            }
            return false;
        }
        if (S_ISDIR(status.st_mode)) {
            if (DebugOutputAttached()) {
                dbgMessage("%s::%s: Directory %s Encountered\n", DebugAppName(),
                           "libReplay::ReplayFiles::GetNextFile", name.c_str());
            }
            if ((m_mask & kDirectory) != 0 && name != "." && name != "..") {
                return true;
            }
        } else if (CheckFileType(name)) {
            return true;
        }
    }
    return false;
}

void WriteReplayFileVersions(bool force) {
    const std::string reportFile = ReplayPlatform::TargetPath(kVersionReportFile);
    if (force || !FileExists(reportFile.c_str())) {
        static const char* const programs[] = {"ReplayManager", "libreplay.so", "pmx",
                                               "gpsfeed-dev"};
        for (size_t index = 0; index < sizeof programs / sizeof programs[0]; ++index) {
            if (!WriteUtilityOutput({"use", "-i", programs[index]}, "", reportFile, index > 0)) {
                if (DebugOutputAttached()) {
                    dbgError("%s::%s: use command failed for %s\n", DebugAppName(),
                             "libReplay::ReplayFiles::WriteReplayFileVersions", programs[index]);
                }
                break;
            }
        }
        (void)WriteUtilityOutput({"ifconfig"}, "address", reportFile, true);
    }

    std::ifstream report(reportFile);
    if (!report.is_open()) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: versionInfo: Failed to open %s\n", DebugAppName(),
                     "libReplay::ReplayFiles::WriteReplayFileVersions", reportFile.c_str());
        }
    } else {
        std::string paragraph;
        std::string line;
        while (std::getline(report, line)) {
            if (line.size() >= 5) {
                paragraph += line + "; ";
                continue;
            }
            if (paragraph.size() > 1 && DebugOutputAttached()) {
                dbgWarning("%s::%s: %s\n", DebugAppName(),
                           "libReplay::ReplayFiles::WriteReplayFileVersions", paragraph.c_str());
            }
            paragraph.clear();
        }
    }

    WriteVersionText();
    (void)GetCommandLine("ReplayManager");
    (void)GetCommandLine(" pmx");
    (void)GetCommandLine("gpsfeed-dev");
}

void WriteVersionText() {
    const std::string versionFile = ReplayPlatform::TargetPath(kVersionTextFile);
    if (!FileExists(versionFile.c_str())) {
        if (DebugOutputAttached()) {
            dbgWarning("%s::%s: %s not found\n", DebugAppName(),
                       "libReplay::ReplayFiles::WriteVersionText", versionFile.c_str());
        }
        return;
    }
    std::ifstream version(versionFile);
    if (!version.is_open()) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Failed to read from /version/version.txt\n", DebugAppName(),
                     "libReplay::ReplayFiles::WriteVersionText");
        }
        return;
    }
    std::string joined;
    std::string line;
    // The end of the file reads as an empty line and so ends the text too.
    while (std::getline(version, line) && line.size() >= 5) {
        joined += line + "; ";
    }
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: %s\n\n", DebugAppName(), "libReplay::ReplayFiles::WriteVersionText",
                   joined.c_str());
    }
}

std::string GetCommandLine(const std::string& process) {
    const std::string outputFile = ReplayPlatform::TargetPath(kCommandLineFile);
    // What runs is the equivalent of this shell command line, which failure
    // messages name.
    const std::string command = " pidin a | grep " + process + " > " + outputFile;
    if (!WriteUtilityOutput({"pidin", "a"}, process, outputFile, false)) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Command %s failed\n", DebugAppName(),
                     "libReplay::ReplayFiles::GetCommandLine", command.c_str());
        }
        return std::string();
    }
    std::ifstream output(outputFile);
    if (!output.is_open()) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Failed to read from /tmp/ReplayCL.txt\n", DebugAppName(),
                     "libReplay::ReplayFiles::GetCommandLine");
        }
        return std::string();
    }
    std::string line;
    if (!std::getline(output, line)) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: /tmp/ReplayCL.txt is empty\n", DebugAppName(),
                     "libReplay::ReplayFiles::GetCommandLine");
        }
        return std::string();
    }
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: %s\n\n", DebugAppName(), "libReplay::ReplayFiles::GetCommandLine",
                   line.c_str());
    }
    return line;
}

}  // namespace ReplayFiles
