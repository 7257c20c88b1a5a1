#include <Windows/MemoryException.h>

CMemoryException g_oMemoryException;

void ThrowMemoryException() { throw &g_oMemoryException; }
