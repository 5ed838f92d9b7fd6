/* What the components share: a callback that notes the replay of the one
 * item they recorded, and the loop that sends it and waits for it. */
#ifndef TESTS_CONSUMER_REPLAY_WAIT_H
#define TESTS_CONSUMER_REPLAY_WAIT_H

#include <stdio.h>
#include <string.h>
#include <time.h>

static const void* g_expected;
static unsigned int g_expectedBytes;
static volatile int g_replayed = 0;

static int OnReplay(void* data, unsigned int nBytes, unsigned int clientTime) {
    (void)clientTime;
    if (nBytes == g_expectedBytes && memcmp(data, g_expected, nBytes) == 0) {
        g_replayed = 1;
    }
    return 1;
}

/* Calls `trySend` every 100 ms until it sends the item, then waits for it, a
 * minute in all; returns the exit status. */
static int SendAndAwaitReplay(const void* item, unsigned int nBytes, int (*trySend)(void)) {
    const struct timespec pause = {0, 100 * 1000 * 1000};
    int sent = 0;
    int i;
    g_expected = item;
    g_expectedBytes = nBytes;
    for (i = 0; i < 600 && !g_replayed; ++i) {
        if (!sent && trySend()) {
            sent = 1;
            printf("sent\n");
            fflush(stdout);
        }
        nanosleep(&pause, NULL);
    }
    printf(g_replayed ? "replayed\n" : "not replayed\n");
    fflush(stdout);
    return g_replayed ? 0 : 1;
}

#endif
