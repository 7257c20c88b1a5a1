// What the string code throws when memory runs out: always a pointer to the one global object.
//
// Thread safety: any number of threads may throw it at once.
// Lifetime: never delete what was caught.
#ifndef WINDOWS_MEMORYEXCEPTION_H
#define WINDOWS_MEMORYEXCEPTION_H

class CMemoryException {};

extern CMemoryException g_oMemoryException;

// Throws &g_oMemoryException as a CMemoryException*.
[[noreturn]] void ThrowMemoryException();

#endif
