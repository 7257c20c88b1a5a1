// Text(format, ...): printf into a string. AssertionRegex(...): what a failed assertion prints.
#ifndef SUPPORT_TEXT_H
#define SUPPORT_TEXT_H

#include <stdarg.h>

#include <string>

std::string Text(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string TextV(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

// The message of a failed assertion, as a regular expression for EXPECT_DEATH.
std::string AssertionRegex(const std::string& source, int line, const std::string& function,
                           const std::string& expression);

#endif
