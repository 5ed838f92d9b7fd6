#ifndef LIBREPLAY_REPLAYCLIENTC_H
#define LIBREPLAY_REPLAYCLIENTC_H

/* The replay client's entry points under plain C names, for applications
 * that link libreplay.so directly or look the names up at run time, and for
 * C programs. Data types: 0 unspecified, 1 normalised text, 2 text, 3 status
 * text, 4 Ascii-encoded binary, 5 binary, 6 Ascii7 initialisation data. Flags
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

/* --- Binary data -----------------------------------------------------------
 * Raw bytes: send them with data type 5 (binary); the library turns them
 * into Ascii7 text for the log and hands the original bytes back on replay.
 * Data type 4 (Ascii-encoded binary) is for data the component has already
 * encoded with CEncodeAscii7: the text is logged as it is, and on replay the
 * callback receives the decoded bytes. CDecodeAscii7 reads such text back,
 * e.g. from an exported log. */

/* Bytes of text (terminator included) that nBytes of data encode to; 0 when
 * the size does not fit an unsigned int. */
REPLAY_API unsigned int CAscii7EncodedSize(unsigned int nBytes);
/* Encodes nBytes of data as zero-terminated Ascii7 text into `text`, which
 * holds `capacity` bytes. The text's length, or -1 for null pointers or an
 * output too small (then `text` is left empty when it has room for that). */
REPLAY_API int CEncodeAscii7(const void* data, unsigned int nBytes, char* text,
                             unsigned int capacity);
/* Decodes zero-terminated Ascii7 text into at most `capacity` bytes of
 * `data`; decoding stops at the first character that is not Ascii7. The
 * number of bytes decoded, or -1 for null pointers. */
REPLAY_API int CDecodeAscii7(const char* text, void* data, unsigned int capacity);

/* The version of the libreplay.so in use ("major.minor.patch"), which may be
 * newer than LIBREPLAY_VERSION of ReplayVersion.h, the version an application
 * was built against. */
REPLAY_API const char* CGetLibraryVersion(void);

/* --- The loading proxy (libreplayproxy.so) ----------------------------------
 * For applications that must run with or without libreplay.so: link
 * libreplayproxy instead of libreplay. Without the library every call does
 * nothing and reports "not recording, not replaying". */

/* Announces itself on standard output, then initialises through the proxy. */
REPLAY_API int CSafeInitializeReplayClient(const char* clientName,
                                           CReplayCallbackFunction replayCallback,
                                           CInitializationCallbackFunction initializationCallback,
                                           unsigned int dataType, const void* initData,
                                           unsigned int nBytes);
/* Sends (never immediately) only while recording; 0 otherwise. */
REPLAY_API int CSafeSendClientData(const void* data, unsigned int nBytes, unsigned int dataType);
/* Non-zero exactly while the client replays. */
REPLAY_API int CSafeReplayingLogFile(void);

#ifdef __cplusplus
}
#endif

#endif
