#ifndef LIBREPLAY_REPLAYCLIENTINTERFACE_H
#define LIBREPLAY_REPLAYCLIENTINTERFACE_H

// The run-time loading proxy of the replay client (libreplayproxy.so). An
// application that links the proxy instead of libreplay.so keeps running
// when libreplay.so is missing: the proxy opens the library with the dynamic
// loader, looks its C entry points up by name, and every operation whose
// entry point was not found does nothing and reports "not recording, not
// replaying".

#include "libreplay/ReplayClientC.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/ReplayExport.h"

class REPLAY_API ReplayClientInterface {
  public:
    // Opens "libreplay.so" and looks up its entry points, announcing each on
    // standard output.
    ReplayClientInterface();
    // Closes the library if it was opened.
    ~ReplayClientInterface();
    ReplayClientInterface(const ReplayClientInterface&) = delete;
    ReplayClientInterface& operator=(const ReplayClientInterface&) = delete;

    int SendClientData(const void* data, unsigned int nBytes, bool immediate,
                       unsigned int dataType);
    int WriteReplayOutput(const char* text);
    int DumpTextToFile(const char* name, const char* text);
    void DumpHexToFile(const char* name, const unsigned char* bytes, unsigned int count,
                       int showAscii);
    void ShutDownClient(int notifyServer);
    int InitializeReplayClient(const char* clientName, CReplayCallbackFunction replayCallback,
                               CInitializationCallbackFunction initializationCallback,
                               unsigned int dataType, const void* initData, unsigned int nBytes);
    int InitializeReplayClient(const char* clientName, ReplayMessageHandlerHandle* handler,
                               unsigned int dataType, bool asynchronous, const void* initData,
                               unsigned int nBytes);
    // eStateUnknown when the library or its entry point is missing.
    ReplayCore::ReplayState GetReplayState() const;
    // Without the library's set-up function the library's default handlers
    // are installed for `appName` instead.
    void SetupLoggingHandlers(const char* appName, CDebugMessageFunction message,
                              CDebugMessageFunction warning, CDebugMessageFunction error);

    bool IsLoaded() const { return m_libraryHandle != nullptr; }

  private:
    typedef int (*SendClientDataFunction)(const void*, unsigned int, int, unsigned int);
    typedef int (*InitializeFromHandlerFunction)(const char*, ReplayMessageHandlerHandle*,
                                                 unsigned int, int, const void*, unsigned int);
    typedef int (*GetReplayStateFunction)();
    typedef void (*ShutDownClientFunction)(int);
    typedef int (*InitializeReplayClientFunction)(const char*, CReplayCallbackFunction,
                                                  CInitializationCallbackFunction, unsigned int,
                                                  const void*, unsigned int);
    typedef void (*SetupLoggingHandlersFunction)(const char*, CDebugMessageFunction,
                                                 CDebugMessageFunction, CDebugMessageFunction);
    typedef int (*DumpTextToFileFunction)(const char*, const char*);
    typedef void (*DumpHexToFileFunction)(const char*, const unsigned char*, unsigned int, int);
    typedef int (*WriteReplayOutputFunction)(const char*);

    // Appends a text to the library's internal log, when the library is
    // there.
    void LogInternal(const char* text) const;

    void* m_libraryHandle = nullptr;
    SendClientDataFunction m_sendClientData = nullptr;
    InitializeFromHandlerFunction m_initializeFromHandler = nullptr;
    GetReplayStateFunction m_getReplayState = nullptr;
    ShutDownClientFunction m_shutDownClient = nullptr;
    InitializeReplayClientFunction m_initializeReplayClient = nullptr;
    SetupLoggingHandlersFunction m_setupLoggingHandlers = nullptr;
    DumpTextToFileFunction m_dumpTextToFile = nullptr;
    DumpHexToFileFunction m_dumpHexToFile = nullptr;
    WriteReplayOutputFunction m_writeReplayOutput = nullptr;
};

// The process's one proxy, built on first use and destroyed at exit.
REPLAY_API ReplayClientInterface& GetClientProxy();

// The CSafe entry points (declared in ReplayClientC.h) go through
// GetClientProxy().

#endif
