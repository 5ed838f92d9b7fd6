#ifndef REPLAYMANAGER_DEFAULTMESSAGEHANDLERS_H
#define REPLAYMANAGER_DEFAULTMESSAGEHANDLERS_H

// Default destinations of the debug message channels. An application that
// installs no handlers of its own (SetupLoggingHandlers in ReplayDebug.h) gets
// handlers that write to the multicore logger's default debug channel.

#include "libreplay/ReplayExport.h"

namespace ReplayInternal {
// Installs the default handlers under `appName` (the pointer is kept, not the
// text) unless the application installed its own; in every case makes sure
// the logger device is open. Cheap once the device is open.
REPLAY_API void SetupDefaultMessageHandlers(const char* appName);
}  // namespace ReplayInternal

// Same as ReplayInternal::SetupDefaultMessageHandlers.
REPLAY_API void SetupDefaultMessageHandlers(const char* appName);

#endif
