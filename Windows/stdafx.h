// Entry points that exist so that application code links and runs. Any thread may call them.
#ifndef WINDOWS_STDAFX_H
#define WINDOWS_STDAFX_H

#include <Windows/types.h>

// Each posts one event (type 13, severity 7) and does nothing else; the result is 0 and means nothing.
HRESULT CoInitialize(void* reserved);
HRESULT CoUninitialize();

// Hooks for logging from BSTR code; both ignore everything.
void PostBSTRLogEventF(int severity, const char* format, ...);
void PostBSTRLogEventFB(int severity, const char* format, char* buffer, ...);

#endif
