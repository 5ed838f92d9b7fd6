#ifndef REPLAYMANAGER_CLIENTGLOBALS_H
#define REPLAYMANAGER_CLIENTGLOBALS_H

// Process-wide settings of the replay client that its logging reads.

#include <atomic>
#include <string>

// The client name given to initialisation; "clientNameNotSet" before. Set
// before the client's threads start, read by them afterwards.
extern std::string& g_clientName;

// The client's logging level (option clientUDPDebugLevel, set at
// initialisation); verbose client messages need 5 or more.
extern std::atomic<unsigned int> g_LoggingLevel;

#endif
