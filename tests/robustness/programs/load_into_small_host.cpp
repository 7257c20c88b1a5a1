// load_into_small_host LIBRARY
//
// A host that supplies nothing but the function of the logger that loading the library calls. What needs no
// other service works in it, as each is looked up when it is first called.
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include <host/Logger.h>

#include "Programs.h"

void CLogger::PostLogEventF(LogTypeEnum, LogSeverityEnum, const char*, ...) {}

int main(int argc, char** argv) {
    MUST(argc == 2);
    void* library = dlopen(argv[1], RTLD_LAZY);
    if (!library)
        puts(dlerror());
    MUST(library);
    auto* allocString = reinterpret_cast<char* (*)(const char*)>(dlsym(library, "_Z14SysAllocStringPKc"));
    auto* freeString = reinterpret_cast<void (*)(char*&)>(dlsym(library, "_Z13SysFreeStringRPc"));
    MUST(allocString && freeString);
    char* text = allocString("text");
    MUST(text && strcmp(text, "text") == 0);
    freeString(text);
    MUST(!text);
    puts("used");
    return 0;
}
