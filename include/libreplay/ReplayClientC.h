#ifndef LIBREPLAY_REPLAYCLIENTC_H
#define LIBREPLAY_REPLAYCLIENTC_H

/* The replay client's entry points under plain C names, for applications
 * that link libreplay.so directly or look the names up at run time. Flags
 * are plain integers: any non-zero value counts as true. Results follow the
 * client's convention: positive for success, 0 when nothing was done,
 * negative for failure. */

#include <stdarg.h>

#include "libreplay/ReplayExport.h"

#ifdef __cplusplus
namespace ReplayClient {
class ReplayMessageHandlerBase;
}
typedef ReplayClient::ReplayMessageHandlerBase ReplayMessageHandlerHandle;
extern "C" {
#else
typedef struct ReplayMessageHandlerBase ReplayMessageHandlerHandle;
#endif

typedef int (*CReplayCallbackFunction)(void* data, unsigned int nBytes, unsigned int clientTime);
typedef int (*CInitializationCallbackFunction)(void* data, unsigned int nBytes);
typedef void (*CDebugMessageFunction)(const char* format, va_list arguments);

REPLAY_API int CInitializeReplayClient(const char* clientName,
                                       CReplayCallbackFunction replayCallback,
                                       CInitializationCallbackFunction initializationCallback,
                                       unsigned int dataType, const void* initData,
                                       unsigned int nBytes);
REPLAY_API int CInitializeFromHandlerClass(const char* clientName,
                                           ReplayMessageHandlerHandle* handler,
                                           unsigned int dataType, int asynchronous,
                                           const void* initData, unsigned int nBytes);
REPLAY_API int CSendClientData(const void* data, unsigned int nBytes, int immediate,
                               unsigned int dataType);
/* The client's replay state: 0 stopped, 1 record, 2 replay, 3 shut down,
 * 4 disconnected, 5 connecting, 6 unknown. */
REPLAY_API int CGetReplayState(void);
REPLAY_API void CShutDownClient(int notifyServer);
REPLAY_API int CWriteReplayOutput(const char* text);
REPLAY_API int CDumpTextToFile(const char* name, const char* text);
REPLAY_API void CDumpHexToFile(const char* name, const unsigned char* bytes, unsigned int count,
                               int showAscii);
REPLAY_API void setLoggingHandlers(const char* appName, CDebugMessageFunction message,
                                   CDebugMessageFunction warning, CDebugMessageFunction error);

#ifdef __cplusplus
}
#endif

#endif
