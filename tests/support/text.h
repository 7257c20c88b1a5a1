// Text(format, ...): printf into a string.
#ifndef SUPPORT_TEXT_H
#define SUPPORT_TEXT_H

#include <stdarg.h>

#include <string>

std::string Text(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string TextV(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

#endif
