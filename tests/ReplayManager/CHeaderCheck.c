/* Compiled as strict C: the client's C header must stand on its own. */
#include "libreplay/ReplayClientC.h"

int ReplayCHeaderCheck(void) {
    char text[16];
    return CEncodeAscii7("ab", 2, text, sizeof text) + CGetReplayState() + CSafeReplayingLogFile();
}
