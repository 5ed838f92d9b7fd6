// The client's entry points under unmangled names with plain argument
// types, so that any application (or the run-time loading proxy) can reach
// them without C++ name mangling.

#include "libreplay/ReplayClientC.h"

#include "ReplayManager/ReplayClientInternal.h"
#include "libreplay/server/FileLogger.h"
#include "libreplay/ReplayClient.h"
#include "libreplay/server/ReplayDebug.h"
#include "ReplayManager/ReplayOutputFiler.h"
#include "libreplay/ReplayVersion.h"

using ReplayCore::FileLogger;

extern "C" {

int CInitializeReplayClient(const char* clientName, CReplayCallbackFunction replayCallback,
                            CInitializationCallbackFunction initializationCallback,
                            unsigned int dataType, const void* initData, unsigned int nBytes) {
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: ClientName=%s\n", DebugAppName(),
                   "libReplay::CReplayClient::CInitializeReplayClient",
                   clientName != nullptr ? clientName : "");
    }
    return ReplayClient::InitializeReplayClient(clientName, replayCallback, initializationCallback,
                                                dataType, initData, nBytes);
}

int CInitializeFromHandlerClass(const char* clientName, ReplayMessageHandlerHandle* handler,
                                unsigned int dataType, int asynchronous, const void* initData,
                                unsigned int nBytes) {
    return ReplayClient::InitializeReplayClient(clientName, handler, dataType, asynchronous != 0,
                                                initData, nBytes);
}

int CSendClientData(const void* data, unsigned int nBytes, int immediate, unsigned int dataType) {
    return g_UDPSendBuffer.SendClientData(data, nBytes, immediate != 0, dataType);
}

int CGetReplayState(void) {
    return static_cast<int>(ReplayClient::GetReplayState());
}

void CShutDownClient(int notifyServer) {
    ReplayClient::ShutDownClient(notifyServer, nullptr);
}

int CWriteReplayOutput(const char* text) {
    return text != nullptr ? ReplayOutputFiler::Get().Write(text) : 0;
}

int CDumpTextToFile(const char* name, const char* text) {
    return FileLogger::DumpTextToFile(FileLogger::eSeverityInfo, name, text);
}

void CDumpHexToFile(const char* name, const unsigned char* bytes, unsigned int count,
                    int showAscii) {
    FileLogger::DumpHexToFile(FileLogger::eSeverityInfo, name, bytes, count, showAscii != 0);
}

void setLoggingHandlers(const char* appName, CDebugMessageFunction message,
                        CDebugMessageFunction warning, CDebugMessageFunction error) {
    SetupLoggingHandlers(appName, message, warning, error);
}

const char* CGetLibraryVersion(void) {
    return LIBREPLAY_VERSION;
}

}  // extern "C"
