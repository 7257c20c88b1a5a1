// Prints to standard output, for debugging.
#ifndef WINDOWS_TRACE_H
#define WINDOWS_TRACE_H

#include <Windows/types.h>

// Formats the arguments, cuts the result at 16,383 bytes and gives it to printf as a format once more. A
// percent sign that is to appear needs four in the format, and text arguments must not contain any: what they
// bring is read as a conversion without an argument. No newline is added. Any thread may call it.
void TRACE(const char* format, ...) WINDOWS_PRINTF_FORMAT(1, 2);

#endif
