// The hook of the reference host.
#include <reference_host/reference_host.h>

#include "hook.h"

void HostConformanceHook(const char* file) {
    reference_host::SetMaximumSeverity(LogSeverityTrace);
    reference_host::AddService("conformance", "127.0.0.1", 4711);
    if (file)
        reference_host::LogToFile(file);
}
