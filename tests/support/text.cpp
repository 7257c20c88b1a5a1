#include "support/text.h"

#include <stdio.h>
#include <string.h>

#include "support/interpose.h"

std::string Text(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = TextV(format, args);
    va_end(args);
    return text;
}

std::string TextV(const char* format, va_list args) {
    Bypass bypass;
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(length < 0 ? 0 : length, '\0');
    vsnprintf(&text[0], text.size() + 1, format, args);
    return text;
}

std::string AssertionRegex(const std::string& source, int line, const std::string& function,
                           const std::string& expression) {
    std::string regex;
    for (const char c : Text("%s:%d: %s: Assertion `%s' failed", source.c_str(), line, function.c_str(),
                             expression.c_str())) {
        if (strchr("()[]{}*+?.|^$\\", c))
            regex += '\\';
        regex += c;
    }
    return regex;
}
