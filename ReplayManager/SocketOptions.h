#ifndef REPLAYMANAGER_SOCKETOPTIONS_H
#define REPLAYMANAGER_SOCKETOPTIONS_H

// Socket settings for code that holds a descriptor but not a socket class.
// Defined with the socket classes in UDPSockets.cpp.

namespace ReplaySockets {

// Asks for a receive buffer of `wanted` bytes, past the system's cap where the
// process may, else up to it; returns the size in force (as the kernel counts
// it, with its bookkeeping), or 0 when it cannot be read.
int EnlargeReceiveBuffer(int socket, int wanted);

// Shuts the socket's receiving side, which ends a blocking read on it in
// another thread.
void StopReceiving(int socket);

}  // namespace ReplaySockets

#endif
