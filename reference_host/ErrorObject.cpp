#include <host/ErrorObject.h>

#include <stdlib.h>

#include <new>

CLogException* Exception(const char* where, const char* what, char* extra) {
    try {
        return new CLogException(where, what, extra);
    } catch (const std::bad_alloc&) {
        abort(); // there is neither an object to return nor leave to throw
    }
}
