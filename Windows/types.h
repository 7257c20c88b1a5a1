// Type names and constants that the interfaces share, under the names that application code was written with.
//
// Mind two types: LPARAM is a pointer, so numbers passed in one need a cast, and HANDLE is a typed pointer.
#ifndef WINDOWS_TYPES_H
#define WINDOWS_TYPES_H

#include <stddef.h>

// Integers; BOOL is one too, so that TRUE is 1.
typedef int BOOL;
typedef unsigned char BYTE;
typedef unsigned short WORD;
typedef unsigned long DWORD; // as wide as long, which is 32 bits on the target
typedef int INT;
typedef unsigned int UINT;
typedef long LONG;
typedef unsigned long ULONG;

// Pointers to anything.
typedef void* LPVOID;
typedef const void* LPCVOID;

// Text has 8-bit characters under all of its names.
typedef char TCHAR;
typedef char OLECHAR;
typedef char* LPSTR;
typedef char* LPTSTR;
typedef char* LPOLESTR;
typedef const char* LPCSTR;
typedef const char* LPCTSTR;
typedef const char* LPCOLESTR;
#ifndef _T
#define _T(text) text
#endif

// NUL-terminated 8-bit text behind a hidden header; see bstr.h.
typedef char* BSTR;

typedef unsigned short VARTYPE; // the type code of a VARIANT; see variant.h
typedef short VARIANT_BOOL;     // VARIANT_TRUE or VARIANT_FALSE

// A handle is a typed pointer, not a void*: CloseHandle takes the variable itself and sets it to NULL.
struct HANDLESTRUCT;
typedef HANDLESTRUCT* HANDLE;

// There are no windows; the type is for parameters that are ignored. A message brings two parameters.
typedef void* HWND;
typedef unsigned long WPARAM;
typedef void* LPARAM;
typedef long LRESULT;

// A result: 0 and above is success.
typedef long HRESULT;
constexpr HRESULT S_OK = 0;
constexpr HRESULT E_FAIL = -0x7FFFBFFB; // 0x80004005 in 32 bits, and negative also where long has 64
inline bool SUCCEEDED(HRESULT result) { return result >= 0; }
inline bool FAILED(HRESULT result) { return result < 0; }

// The values of a BOOL.
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// Wait without limit. It is 32 bits wide on every platform: never write it as ~0UL.
#ifndef INFINITE
#define INFINITE 0xFFFFFFFFUL
#endif

// Calling conventions, of which there is one.
#ifndef WINAPI
#define WINAPI
#endif
#ifndef CALLBACK
#define CALLBACK
#endif
#ifndef AFXAPI
#define AFXAPI
#endif

// Has the compiler check printf-style arguments; a member function counts its object as argument 1.
#define WINDOWS_PRINTF_FORMAT(formatIndex, firstIndex)                                                       \
    __attribute__((format(printf, formatIndex, firstIndex)))

// Declares a function that is inline in the header and that the library exports too, for programs that were
// built when it was not.
#define WINDOWS_INLINE_EXPORT __attribute__((visibility("default")))

#endif
