#include "libreplay/server/ReplayRuntimeOptions.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "ReplayManager/ReplayFiles.h"
#include "libreplay/server/TargetRoot.h"

// The table lock guards values only: it is never held while calling out to the
// file logger, the debug handlers or ReplayEnabled, any of which may come back
// into this class.

namespace {

using ReplayCore::FileLogger;

constexpr const char* kSourcePath = "ReplayManager/ReplayRuntimeOptions";

// Negative indices are refused as well, so that no index reaches outside the
// table.
bool IndexValid(ReplayOptionsEnum ro, int line, const char* expression) {
    if (static_cast<int>(ro) < 0 || static_cast<int>(ro) >= eOptionsCount) {
        FileLogger::LogAssertion(line, kSourcePath, expression);
        return false;
    }
    return true;
}

struct DefaultOption {
    ReplayOptionsEnum index;
    const char* key;
    const char* value;
};

// Entries 6 (the support directory, set from the options file's location) and
// 21 (reserved) have no keyword.
const DefaultOption kDefaults[] = {
    {eReplayEnabled, "replayEnabled", "1"},
    {eReplayEnabledCookie, "replayEnabledCookie", k_replayEnabledCookie},
    {eAltReplayCookie, "altReplayCookie", k_altReplayEnabledCookie},
    {eHomePageLocation, "homePageLocation", k_htmlFileName},
    {eNetworkShare, "networkShare", k_networkSharePath},
    {eReplayOutputFile, "replayOutputFile", k_replayResultsFile},
    {eServerIP, "serverIP", "127.0.0.1"},
    {eHostIP, "hostIP", ""},
    {eValidateResults, "validateResults", "0"},
    {eAllowDisableGps, "allowDisableGps", "0"},
    {eUseTraceClient, "useTraceClient", "1"},
    {eTemporaryFilesPath, "temporaryFilesPath", k_temporaryFilePath},
    {eReconnectInterval, "reconnectInterval", "150"},
    {eExternalConnectWait, "externalConnectWait", "20"},
    {eNetworkingLatency, "networkingLatency", "100"},
    {eServerLeadTime, "serverLeadTime", "100"},
    {eTargetConfigPath, "targetConfigPath", k_optionsFileName},
    {eReplayFileLocation, "replayFileLocation", k_replayFilePath},
    {eReplayFileName, "replayFileName", "Replay.trc"},
    {eOutputFilePath, "outputFilePath", k_outputFilePath},
    {eHTTPServer, "HTTPServer", "1"},
    {eHTTPDebugLevel, "HTTPDebugLevel", "4"},
    {eServerUDPDebugLevel, "serverUDPDebugLevel", "4"},
    {eClientUDPDebugLevel, "clientUDPDebugLevel", "4"},
    {eLoadInitializationData, "loadInitializationData", "1"},
};

bool TargetDirectoryExists(const std::string& directory) {
    return ReplayFiles::DirectoryExists(ReplayPlatform::TargetPath(directory).c_str());
}

}  // namespace

ReplayRuntimeOptions& ReplayRuntimeOptions::Get() {
    static ReplayRuntimeOptions m_replayRuntimeOptions(nullptr);
    return m_replayRuntimeOptions;
}

ReplayRuntimeOptions::ReplayRuntimeOptions(const char* pFileName) {
    (void)ReplayFiles::GetWorkingDirectory();
    configFilePath = pFileName != nullptr ? pFileName : k_optionsFileName;

    if (!ReplayFiles::FileExists(configFilePath.c_str())) {
        std::string found;
        if (ReplayFiles::GetSupportFilePath(configFilePath, found)) {
            FileLogger::LogToFile(FileLogger::eSeverityInfo, "Options file located at %s\n",
                                  found.c_str());
            std::printf("Options file located at %s\n", found.c_str());
            configFilePath = found;
        } else {
            FileLogger::LogToFile(FileLogger::eSeverityWarning, "Config File Path %s Not Found\n",
                                  configFilePath.c_str());
            std::printf("Config File Path %s Not Found\n", configFilePath.c_str());
        }
    }

    for (const DefaultOption& option : kDefaults) {
        m_options[option.index] = KeyValPair(option.key, option.value);
    }

    const std::string path = configFilePath;
    OpenOptionsFile(path.c_str());

    if (!TargetDirectoryExists(GetStringValue(eTemporaryFilesPath))) {
        SetStringValue(eTemporaryFilesPath, k_temporaryFilePath);
    }
    if (!TargetDirectoryExists(GetStringValue(eReplayFileLocation))) {
        SetStringValue(eReplayFileLocation, GetStringValue(eTemporaryFilesPath));
    }
}

bool ReplayRuntimeOptions::OpenOptionsFile(const char* pFileName) {
    std::string path;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_fileOpened = false;
        if (pFileName != nullptr) {
            configFilePath = pFileName;
        }
        path = configFilePath;
    }
    if (pFileName == nullptr && path.empty()) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: NULL pFileName and configFilePath\n", DebugAppName(),
                     "libReplay::ReplayRuntimeOptions::OpenOptionsFile");
        }
        return false;
    }

    std::ifstream file(path);
    if (!file.is_open()) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Unable to Open Config File %s\n", DebugAppName(),
                     "libReplay::ReplayRuntimeOptions::OpenOptionsFile", path.c_str());
        }
        // The header goes into the log as it stands, "%s" included.
        FileLogger::DumpTextToFile(FileLogger::eSeverityError, "Unable to Open Config File %s\n",
                                   path.c_str());
        return false;
    }

    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Reading Config File %s\n", DebugAppName(),
                   "libReplay::ReplayRuntimeOptions::OpenOptionsFile", path.c_str());
    }
    FileLogger::DumpTextToFile(FileLogger::eSeverityInfo, "Reading Config File %s\n", path.c_str());
    std::string directory;
    std::string name;
    std::string extension;
    ReplayFiles::SplitPathName(path, directory, name, extension);
    if (directory.size() > 1) {
        FileLogger::LogToFile(FileLogger::eSeverityInfo, "Setting support File Directory To %s",
                              directory.c_str());
        SetStringValue(eSupportFilePath, directory);
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_fileOpened = true;
    }

    // Nothing is trimmed: spaces and carriage returns belong to keys and values.
    bool changed = false;
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty() || line[0] == '/') {
            continue;
        }
        const size_t colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        const size_t semicolon = line.find(';', colon + 1);
        if (semicolon == std::string::npos) {
            continue;
        }
        const std::string keyword = line.substr(0, colon);
        const std::string value = line.substr(colon + 1, semicolon - colon - 1);

        bool recognised = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (KeyValPair& option : m_options) {
                if (option.key == keyword) {
                    recognised = true;
                    if (option.value != value) {
                        option.value = value;
                        changed = true;
                    }
                    break;
                }
            }
        }
        if (!recognised && DebugOutputAttached()) {
            dbgWarning("%s::%s: Keyword %s not recognized\n", DebugAppName(),
                       "libReplay::ReplayRuntimeOptions::OpenOptionsFile", keyword.c_str());
        }
    }
    file.close();

    if (changed) {
        // Only for its side effect: it records a disabled replay in the table.
        (void)ReplayEnabled();
    }
    return changed;
}

std::string ReplayRuntimeOptions::GetStringValue(ReplayOptionsEnum ro) const {
    if (!IndexValid(ro, __LINE__, "eOptionsCount>ro")) {
        return std::string();
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_options[ro].value;
}

int ReplayRuntimeOptions::GetIntegerValue(ReplayOptionsEnum ro) const {
    if (!IndexValid(ro, __LINE__, "eOptionsCount>ro")) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::atoi(m_options[ro].value.c_str());
}

bool ReplayRuntimeOptions::GetBooleanValue(ReplayOptionsEnum ro) const {
    if (!IndexValid(ro, __LINE__, "eOptionsCount>ro")) {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::string& value = m_options[ro].value;
    if (value.empty()) {
        return false;
    }
    // Only the lower-case word and the number one are true.
    return value == "true" || std::atoi(value.c_str()) == 1;
}

bool ReplayRuntimeOptions::SetStringValue(ReplayOptionsEnum ro, std::string value) {
    if (!IndexValid(ro, __LINE__, "eOptionsCount > ro")) {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_options[ro].value = std::move(value);
    return true;
}

bool ReplayRuntimeOptions::SetIntegerValue(ReplayOptionsEnum ro, int value) {
    if (!IndexValid(ro, __LINE__, "eOptionsCount>ro")) {
        return false;
    }
    // Ten characters: at most nine survive, sign included.
    char text[10];
    std::snprintf(text, sizeof text, "%d", value);
    return SetStringValue(ro, text);
}

bool ReplayRuntimeOptions::ReplayEnabled() {
    if (std::getenv("ENABLE_REPLAY") != nullptr) {
        FileLogger::LogToFile(FileLogger::eSeverityError, "Enable Replay is Set");
        return true;
    }
    const std::string cookie = GetStringValue(eReplayEnabledCookie);
    if (ReplayFiles::FileExists(ReplayPlatform::TargetPath(cookie).c_str())) {
        return true;
    }
    const std::string altCookie = GetStringValue(eAltReplayCookie);
    if (ReplayFiles::FileExists(ReplayPlatform::TargetPath(altCookie).c_str())) {
        return true;
    }
    char text[128];
    std::snprintf(text, sizeof text, "%s and %s Not Found, Replay Disabled\n", cookie.c_str(),
                  altCookie.c_str());
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: %s\n", DebugAppName(), "libReplay::ReplayRuntimeOptions::ReplayEnabled",
                   text);
    }
    FileLogger::LogToFile(FileLogger::eSeverityError, "%s", text);
    SetStringValue(eReplayEnabled, "0");
    return false;
}

std::string ReplayRuntimeOptions::GetNetworkSharePath() const {
    const std::string share = GetStringValue(eNetworkShare);
    // Writability is tested by writing; the test file is left in place.
    const std::string testPath = ReplayPlatform::TargetPath(share + "/" + "junk.txt");
    FILE* file = std::fopen(testPath.c_str(), "w");
    if (file != nullptr) {
        std::fclose(file);
        return share;
    }
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: Failed to Write to Network Share:%s\n", DebugAppName(),
                   "libReplay::ReplayRuntimeOptions::GetNetworkSharePath", share.c_str());
    }
    return std::string();
}

std::string ReplayRuntimeOptions::GetResultsFilePath(bool preferNetworkShare) const {
    if (preferNetworkShare) {
        const std::string share = GetNetworkSharePath();
        if (!share.empty()) {
            return share;
        }
    }
    return GetStringValue(eTemporaryFilesPath);
}

void ReplayRuntimeOptions::DisplayOptions() {
    KeyValPair options[eOptionsCount];
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (int index = 0; index < eOptionsCount; ++index) {
            options[index] = m_options[index];
        }
    }
    for (const KeyValPair& option : options) {
        char text[128];
        std::snprintf(text, sizeof text, "%s = %s; ", option.key.c_str(), option.value.c_str());
        FileLogger::LogToFile(FileLogger::eSeverityInfo, "Replay Options: %s", text);
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s:      %s\n", DebugAppName(),
                       "libReplay::ReplayRuntimeOptions::DisplayOptions", text);
        }
    }
}
