/* A C component: records binary data as Ascii7 text (data type 4) and waits
 * until the replay hands the bytes back. */
#define _POSIX_C_SOURCE 200809L

#include <libreplay/ReplayClientC.h>

#include "replay_wait.h"

static const unsigned char kItem[] = {0x00, 0xFF, 0x10, 0x80, 0x7F, 0x25, 0x0A, 0x0D, 0x42};
static char g_text[32];

static int SendWhileRecording(void) {
    return CGetReplayState() == 1 &&
           CSendClientData(g_text, (unsigned int)strlen(g_text), 1, 4) > 0;
}

int main(void) {
    unsigned char back[sizeof kItem];
    int status;
    if (CEncodeAscii7(kItem, sizeof kItem, g_text, sizeof g_text) < 0 ||
        CDecodeAscii7(g_text, back, sizeof back) != (int)sizeof kItem ||
        memcmp(back, kItem, sizeof kItem) != 0) {
        fprintf(stderr, "c_client: Ascii7 round trip failed\n");
        return 1;
    }
    CInitializeReplayClient("cclient", OnReplay, NULL, 4, NULL, 0);
    status = SendAndAwaitReplay(kItem, sizeof kItem, SendWhileRecording);
    CShutDownClient(0);
    return status;
}
