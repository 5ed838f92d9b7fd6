/* A C component: records binary data as Ascii7 text (data type 4) and waits
 * until the replay hands the bytes back. */
#define _POSIX_C_SOURCE 200809L

#include <libreplay/ReplayClientC.h>

#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static const unsigned char kItem[] = {0x00, 0xFF, 0x10, 0x80, 0x7F, 0x25, 0x0A, 0x0D, 0x42};
static volatile int g_replayed = 0;

static void Pause(void) {
    const struct timespec wait = {0, 100 * 1000 * 1000};
    nanosleep(&wait, NULL);
}

static int OnReplay(void* data, unsigned int nBytes, unsigned int clientTime) {
    (void)clientTime;
    if (nBytes == sizeof kItem && memcmp(data, kItem, nBytes) == 0) {
        g_replayed = 1;
    }
    return 1;
}

int main(void) {
    char text[32];
    unsigned char back[sizeof kItem];
    int sent = 0;
    int i;
    if (CEncodeAscii7(kItem, sizeof kItem, text, sizeof text) < 0 ||
        CDecodeAscii7(text, back, sizeof back) != (int)sizeof kItem ||
        memcmp(back, kItem, sizeof kItem) != 0) {
        fprintf(stderr, "c_client: Ascii7 round trip failed\n");
        return 1;
    }
    CInitializeReplayClient("cclient", OnReplay, NULL, 4, NULL, 0);
    for (i = 0; i < 600 && !g_replayed; ++i) {
        if (!sent && CGetReplayState() == 1) {
            sent = CSendClientData(text, (unsigned int)strlen(text), 1, 4) > 0;
            if (sent) {
                printf("sent\n");
                fflush(stdout);
            }
        }
        Pause();
    }
    printf(g_replayed ? "replayed\n" : "not replayed\n");
    fflush(stdout);
    CShutDownClient(0);
    return g_replayed ? 0 : 1;
}
