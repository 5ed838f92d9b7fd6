#ifndef LIBREPLAY_REPLAYEXPORT_H
#define LIBREPLAY_REPLAYEXPORT_H

// libreplay.so is built with hidden default visibility; only what client and
// server applications use is marked for export.
#define REPLAY_API __attribute__((visibility("default")))

#endif
