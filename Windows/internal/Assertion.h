// Preconditions that end the process, in builds with NDEBUG too.
//
// The reports carry the source names, lines and signatures that the field's logs and scripts know, so they
// are literals at each use and do not follow this source.
#ifndef WINDOWS_INTERNAL_ASSERTION_H
#define WINDOWS_INTERNAL_ASSERTION_H

// The C library's reporter behind assert(); <assert.h> hides it where NDEBUG is defined.
extern "C" [[noreturn]] void __assert_fail(const char* expression, const char* source, unsigned int line,
                                           const char* function) noexcept;

namespace windows {

// Where a precondition is stated, as its report names it.
struct Place {
    const char* source;
    unsigned int line;
    const char* function;
};

// The process ends before what it has run is counted, so lines that only lead here are left out of the
// coverage.
inline void Require(bool holds, const char* expression, const Place& place) {
    if (!holds)
        __assert_fail(expression, place.source, place.line, place.function); // GCOVR_EXCL_LINE
}

} // namespace windows

#endif
