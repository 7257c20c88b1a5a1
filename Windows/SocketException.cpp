#include <Windows/SocketException.h>

// The base class keeps a char* for its callers' sake and never writes through it.
SocketException::SocketException(const char* description) : Exception(const_cast<char*>(description)) {}

SocketException::~SocketException() = default;
