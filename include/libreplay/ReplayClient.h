#ifndef LIBREPLAY_REPLAYCLIENT_H
#define LIBREPLAY_REPLAYCLIENT_H

// The replay client: what a component that wants its input recorded and
// replayed calls. One client per process: initialise it once with a client
// name and callbacks, then hand every input item to SendClientData. While
// the server replays, the items come back through the callbacks on the
// client's read thread.
//
// Entry points return 1 or a positive byte count for success, 0 when nothing
// was done (replay disabled, not connected, not recording) and a negative
// value for failure. Nothing throws.

#include "libreplay/ReplayCore.h"
#include "libreplay/ReplayExport.h"

namespace ReplayClient {

typedef int (*ReplayCallbackFunction)(void* data, unsigned int nBytes, unsigned int clientTime);
typedef int (*InitializationCallbackFunction)(void* data, unsigned int nBytes);

// The client's callback interface. The handler lives for the rest of the
// process once given to InitializeReplayClient; it is never deleted by the
// library.
class REPLAY_API ReplayMessageHandlerBase {
  public:
    // The constructor's argument and the field it sets share their name.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
    explicit ReplayMessageHandlerBase(bool hasInitializer) : hasInitializer(hasInitializer) {}
#pragma GCC diagnostic pop

    // Each replayed item: its bytes, their count and the item's time on the
    // client's own clock.
    virtual int ReplayCallback(void* data, unsigned int nBytes, unsigned int clientTime) = 0;
    // The recorded initialisation data; the default only announces itself.
    virtual int InitializationCallback(void* data, unsigned int nBytes);
    // A replay has ended; `text` is a zeroed area of `size` bytes that the
    // handler may fill with a closing text for the server.
    virtual void ReplayComplete(unsigned int size, char* text);

    // Initialisation records go to InitializationCallback when the handler
    // has one; everything else to ReplayCallback.
    int DoCallback(void* data, unsigned int nBytes, unsigned int clientTime, bool isInitialization);

    bool hasInitializer;

  protected:
    // Not deleted through this class: the library keeps handlers forever.
    ~ReplayMessageHandlerBase() = default;
};

// Adapts two plain functions to the handler interface. With a null
// initialisation function, initialisation records reach the replay callback.
class REPLAY_API ReplayMessageHandler : public ReplayMessageHandlerBase {
  public:
    ReplayMessageHandler(ReplayCallbackFunction replayCallback,
                         InitializationCallbackFunction initializationCallback);

    int ReplayCallback(void* data, unsigned int nBytes, unsigned int clientTime) override;
    int InitializationCallback(void* data, unsigned int nBytes) override;

    ReplayCallbackFunction replayCallback;
    InitializationCallbackFunction initializationCallback;
};

// A ready-made initialisation callback: prints the data as text; returns 1.
REPLAY_API int DefaultInitializeReplayHandler(void* data, unsigned int nBytes);

// Initialises the process's client with two callbacks. `dataType` is the
// type of the first block; `initData` (null for none) is sent to the server
// as the client's initialisation record. 1 when connected, else 0. A second
// call is refused and leaves the first in force.
REPLAY_API int InitializeReplayClient(const char* clientName,
                                      ReplayCallbackFunction clientCallbackHandler,
                                      InitializationCallbackFunction initializationCallback,
                                      unsigned int dataType, const void* initData = nullptr,
                                      unsigned int nBytes = 0);
// The same with a handler object that the caller keeps alive. A second call
// replaces the handler and connects again. `asynchronous` is ignored.
REPLAY_API int InitializeReplayClient(const char* clientName,
                                      ReplayMessageHandlerBase* replayMessageHandler,
                                      unsigned int dataType, bool asynchronous,
                                      const void* initData = nullptr, unsigned int nBytes = 0);

// Records one input item. Buffered (0) or, when a block went out, the bytes
// sent; negative on failure. Items are taken only while recording (and
// buffered while reconnecting). `immediate` sends the item at once as a
// block of its own, discarding anything buffered.
REPLAY_API int SendClientData(const void* data, unsigned int nBytes, bool immediate,
                              unsigned int dataType);
// Sends one status record with `nBytes` of `text` (an empty one for 0).
REPLAY_API int SendClientMessage(const char* text, unsigned int nBytes);

REPLAY_API ReplayCore::ReplayState GetReplayState();
// Ends recording or replay (the argument is ignored).
REPLAY_API void StopClient(int);
// Ends the client for the life of the process; with `notifyServer` the
// reason (or the current error text) is reported to the server.
REPLAY_API void ShutDownClient(int notifyServer, char* reason);
// Marks the connection lost; the client reconnects. Returns the new state.
REPLAY_API int Disconnect();

}  // namespace ReplayClient

#endif
