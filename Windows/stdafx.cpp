#include <Windows/stdafx.h>

#include <host/Logger.h>

HRESULT CoInitialize(void* /*reserved*/) {
    CLogger::PostLogEvent(LogTypeLife, LogSeverityInformation, "CoInitialize() called!", nullptr);
    return 0;
}

HRESULT CoUninitialize() {
    // Spelled so: scripts look for it.
    CLogger::PostLogEvent(LogTypeLife, LogSeverityInformation, "CoUinitialize() called!", nullptr);
    return 0;
}

void PostBSTRLogEventF(int /*severity*/, const char* /*format*/, ...) {}

void PostBSTRLogEventFB(int /*severity*/, const char* /*format*/, char* /*buffer*/, ...) {}
