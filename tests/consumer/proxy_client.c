/* A C component that runs with or without libreplay.so: it links only the
 * loading proxy. Records one text item once the file named by its argument
 * exists (the proxy tells "buffered" and "not recording" apart by nothing)
 * and waits for the item's replay. */
#define _POSIX_C_SOURCE 200809L

#include <libreplay/ReplayClientC.h>

#include <unistd.h>

#include "replay_wait.h"

static const char kItem[] = "speed 12.5";
static const char* g_goFile;

static int SendOnceTheGoFileExists(void) {
    if (access(g_goFile, F_OK) != 0) {
        return 0;
    }
    CSafeSendClientData(kItem, sizeof kItem - 1, 2);
    return 1;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: proxy_client GO-FILE\n");
        return 2;
    }
    g_goFile = argv[1];
    CSafeInitializeReplayClient("proxyclient", OnReplay, NULL, 2, NULL, 0);
    return SendAndAwaitReplay(kItem, sizeof kItem - 1, SendOnceTheGoFileExists);
}
