#include "reference/src/assert.h"

#include <cstdarg>
#include <cstdio>
#include <iostream>

bool assertAndReturnFalse(const char* expression, int line, const char* file) {
    std::printf("ASSERTION, \"%s\", LINE: %d FILE: %s\n", expression, line, file);
    std::fflush(stdout);
    return false;
}

bool assertAndReturnFalse(int line, const char* file, const char* format, ...) {
    char message[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    std::cout << "ASSERTION, \"" << message << "\", LINE: " << line << " FILE: " << file
              << std::endl;
    return false;
}
