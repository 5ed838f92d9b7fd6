#ifndef LIBREPLAY_SERVER_REPLAYRUNTIMEOPTIONS_H
#define LIBREPLAY_SERVER_REPLAYRUNTIMEOPTIONS_H

// The process-wide table of run-time options, filled with defaults and
// overridden from the options file "ReplayConfig.txt" (lines "keyword:value;").
// Values are kept as text; the typed getters convert on every read.

#include <mutex>
#include <string>

#include "libreplay/ReplayExport.h"

// The texts that feed the defaults. Paths are target paths, resolved through
// the target root where the file system is touched.
inline constexpr const char* k_optionsFileName = "ReplayConfig.txt";
inline constexpr const char* k_htmlFileName = "index.html";
inline constexpr const char* k_replayFilePath = "/fs/etfs";
inline constexpr const char* k_replayEnabledCookie = "/fs/etfs/REPLAY_ENABLED";
inline constexpr const char* k_altReplayEnabledCookie = "/fs/usb0/REPLAY_ENABLED";
inline constexpr const char* k_temporaryFilePath = "/tmp";
inline constexpr const char* k_networkSharePath = "/mnt/net";
inline constexpr const char* k_replayResultsFile = "ReplayOutput.txt";
inline constexpr const char* k_supportPath = "/fs/mmc0/app/share/replay";
inline constexpr const char* k_outputFilePath = k_temporaryFilePath;

enum ReplayOptionsEnum {
    eReplayEnabled = 0,
    eReplayEnabledCookie,
    eAltReplayCookie,
    eHomePageLocation,
    eNetworkShare,
    eReplayOutputFile,
    eSupportFilePath,
    eServerIP,
    eHostIP,
    eValidateResults,
    eAllowDisableGps,
    eUseTraceClient,
    eTemporaryFilesPath,
    eReconnectInterval,
    eExternalConnectWait,
    eNetworkingLatency,
    eServerLeadTime,
    eTargetConfigPath,
    eReplayFileLocation,
    eReplayFileName,
    eOutputFilePath,
    eReservedOption,
    eHTTPServer,
    eHTTPDebugLevel,
    eServerUDPDebugLevel,
    eClientUDPDebugLevel,
    eLoadInitializationData,
    eOptionsCount
};

class REPLAY_API ReplayRuntimeOptions {
  public:
    struct REPLAY_API KeyValPair {
        std::string key;  // the keyword as written in the file; empty for 6 and 21
        std::string value;

        KeyValPair() = default;
        KeyValPair(const char* keyText, const char* valueText)
            : key(keyText ? keyText : ""), value(valueText ? valueText : "") {}
    };

    // The single instance, constructed on first use with no file name.
    static ReplayRuntimeOptions& Get();

    explicit ReplayRuntimeOptions(const char* pFileName);
    ReplayRuntimeOptions(const ReplayRuntimeOptions&) = delete;
    ReplayRuntimeOptions& operator=(const ReplayRuntimeOptions&) = delete;

    // Reads an options file over the current values; true when a value changed.
    bool OpenOptionsFile(const char* pFileName);

    std::string GetStringValue(ReplayOptionsEnum ro) const;
    int GetIntegerValue(ReplayOptionsEnum ro) const;
    // True for "true" (lower case) or a value whose atoi is 1.
    bool GetBooleanValue(ReplayOptionsEnum ro) const;
    bool SetStringValue(ReplayOptionsEnum ro, std::string value);
    bool SetIntegerValue(ReplayOptionsEnum ro, int value);

    // ENABLE_REPLAY set (even empty), or one of the two marker files exists.
    bool ReplayEnabled();
    // The network share when writable, else empty.
    std::string GetNetworkSharePath() const;
    std::string GetResultsFilePath(bool preferNetworkShare) const;
    void DisplayOptions();

  private:
    mutable std::mutex m_mutex;  // guards the table against a concurrent reload
    KeyValPair m_options[eOptionsCount];
    std::string configFilePath;
    bool m_fileOpened = false;
};

#endif
