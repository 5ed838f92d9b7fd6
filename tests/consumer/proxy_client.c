/* A C component that runs with or without libreplay.so: it links only the
 * loading proxy. Records one text item once the file named by its argument
 * exists (the proxy tells "buffered" and "not recording" apart by nothing)
 * and waits for the item's replay. */
#define _POSIX_C_SOURCE 200809L

#include <libreplay/ReplayClientC.h>

#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static const char kItem[] = "speed 12.5";
static volatile int g_replayed = 0;

static void Pause(void) {
    const struct timespec wait = {0, 100 * 1000 * 1000};
    nanosleep(&wait, NULL);
}

static int OnReplay(void* data, unsigned int nBytes, unsigned int clientTime) {
    (void)clientTime;
    if (nBytes == sizeof kItem - 1 && memcmp(data, kItem, nBytes) == 0) {
        g_replayed = 1;
    }
    return 1;
}

int main(int argc, char** argv) {
    int sent = 0;
    int i;
    if (argc != 2) {
        fprintf(stderr, "usage: proxy_client GO-FILE\n");
        return 2;
    }
    CSafeInitializeReplayClient("proxyclient", OnReplay, NULL, 2, NULL, 0);
    for (i = 0; i < 600 && !g_replayed; ++i) {
        if (!sent && access(argv[1], F_OK) == 0) {
            CSafeSendClientData(kItem, sizeof kItem - 1, 2);
            sent = 1;
            printf("sent\n");
            fflush(stdout);
        }
        Pause();
    }
    printf(g_replayed ? "replayed\n" : "not replayed\n");
    fflush(stdout);
    return g_replayed ? 0 : 1;
}
