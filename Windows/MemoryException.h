// What the string code throws when memory runs out: always a pointer to the one global object.
//
// Thread safety: any number of threads may throw it at once.
// Lifetime: never delete what was caught.
#ifndef WINDOWS_MEMORYEXCEPTION_H
#define WINDOWS_MEMORYEXCEPTION_H

// Has nothing to tell.
class CMemoryException {};

// The one that is thrown, by its address.
extern CMemoryException g_oMemoryException;

// Throws &g_oMemoryException as a CMemoryException*.
[[noreturn]] void ThrowMemoryException();

#endif
