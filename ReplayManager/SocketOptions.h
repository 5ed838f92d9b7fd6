#ifndef REPLAYMANAGER_SOCKETOPTIONS_H
#define REPLAYMANAGER_SOCKETOPTIONS_H

// Socket settings for code that holds a descriptor but not a socket class.
// Defined with the socket classes in UDPSockets.cpp.

namespace ReplaySockets {

// Shuts the socket's receiving side, which ends a blocking read on it in
// another thread.
void StopReceiving(int socket);

}  // namespace ReplaySockets

#endif
