// Thrown by value when a socket cannot be made, bound or listened on.
//
// Lifetime: as for the base class, the text must outlive the exception.
#ifndef WINDOWS_SOCKETEXCEPTION_H
#define WINDOWS_SOCKETEXCEPTION_H

#include <Windows/Exception.h>

class SocketException : public Exception {
public:
    // Posts the text once, through the base class.
    SocketException(const char* description);
    SocketException(const SocketException&) = default;
    SocketException& operator=(const SocketException&) = default;
    ~SocketException();
};

#endif
