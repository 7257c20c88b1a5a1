// Type names and constants that the interfaces share.
#ifndef WINDOWS_TYPES_H
#define WINDOWS_TYPES_H

struct HANDLESTRUCT;

// A handle is a typed pointer, not a void*: CloseHandle takes the variable itself and sets it to NULL.
typedef HANDLESTRUCT* HANDLE;

typedef long HRESULT;

// NUL-terminated 8-bit text behind a hidden header; see bstr.h.
typedef char* BSTR;

// Wait without limit. It is 32 bits wide on every platform: never write it as ~0UL.
#ifndef INFINITE
#define INFINITE 0xFFFFFFFFUL
#endif

// Has the compiler check printf-style arguments; a member function counts its object as argument 1.
#define WINDOWS_PRINTF_FORMAT(formatIndex, firstIndex)                                                       \
    __attribute__((format(printf, formatIndex, firstIndex)))

#endif
