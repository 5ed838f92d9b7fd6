#ifndef REFERENCE_SRC_ASSERT_H
#define REFERENCE_SRC_ASSERT_H

// A reporting assertion for the platform layer: it prints the failed
// expression with its place in the source and yields false, so the caller can
// return that value and go on. It never stops the program.
// Include this header by its path from the repository root so that it never
// shadows the standard <assert.h>.

#include "libreplay/ReplayExport.h"

REPLAY_API bool assertAndReturnFalse(const char* expression, int line, const char* file);
REPLAY_API bool assertAndReturnFalse(int line, const char* file, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#endif
