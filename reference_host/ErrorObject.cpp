#include <host/ErrorObject.h>

#include <stdlib.h>

#include <new>

#include <reference_host/internal/Timeline.h>

CLogException* Exception(const char* where, const char* what, char* extra) {
    if (reference_host::timeline::IsOn())
        reference_host::timeline::Error(where, what);
    try {
        return new CLogException(where, what, extra);
    } catch (const std::bad_alloc&) {
        abort(); // there is neither an object to return nor leave to throw
    }
}
