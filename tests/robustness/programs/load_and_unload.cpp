// load_and_unload COUNT LIBRARY
//
// Loads the library, uses it and unloads it so many times. In between it must be gone, and nothing may be
// left of it: no mapping, no descriptor, no thread. This program is not linked with the library and supplies
// the host's services itself, as a host does that loads its applications.
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <host/host.h>

#include <Windows/WinThread.h>
#include <Windows/synchelpers.h>

#include "Programs.h"

// ---------------------------------------------------------------------------------------------------------
// The host's services: a logger that is silent, no services, clocks

void CLogger::PostLogEvent(LogTypeEnum, LogSeverityEnum, const char*, const char*) {}
void CLogger::PostLogEvent(LogTypeEnum, LogSeverityEnum, XString&, const char*) {}
void CLogger::PostLogEventF(LogTypeEnum, LogSeverityEnum, const char*, ...) {}
void CLogger::PostLogEventFB(LogTypeEnum, LogSeverityEnum, const char*, const char*, ...) {}

bool IsDebugEnabled() { return false; }

CLogException* Exception(const char* where, const char* what, char* extra) {
    return new CLogException(where, what, extra);
}

CServiceAddress::CServiceAddress() : m_szIPAddress(), m_nPortNumber(0) {}
CServiceAddress::~CServiceAddress() {}
const char* CServiceAddress::getIPAddress() const { return m_szIPAddress; }
int CServiceAddress::getPortNumber() const { return m_nPortNumber; }
int RegSvcQueryForServiceAddress(const char*, CServiceAddress&, int) { return 0; }

CTimeValHelper::CTimeValHelper() : timeval() {}
CTimeValHelper::CTimeValHelper(bool) : timeval() { gettimeofday(this, nullptr); }
void CTimeValHelper::Init() { tv_sec = tv_usec = 0; }
void CTimeValHelper::AddSeconds(unsigned long seconds) { tv_sec += static_cast<time_t>(seconds); }
void CTimeValHelper::AddMilliSeconds(unsigned long milliSeconds) {
    const unsigned long us = static_cast<unsigned long>(tv_usec) + milliSeconds % 1000 * 1000;
    tv_sec += static_cast<time_t>(milliSeconds / 1000 + us / 1000000);
    tv_usec = static_cast<suseconds_t>(us % 1000000);
}

CTimeSpecHelper::CTimeSpecHelper(bool now) : timespec() {
    if (now)
        clock_gettime(CLOCK_REALTIME, this);
}
void CTimeSpecHelper::AddMilliSeconds(unsigned long milliSeconds) {
    const unsigned long ns = static_cast<unsigned long>(tv_nsec) + milliSeconds % 1000 * 1000000;
    tv_sec += static_cast<time_t>(milliSeconds / 1000 + ns / 1000000000);
    tv_nsec = static_cast<long>(ns % 1000000000);
}

extern "C" unsigned long GetTickCount() { return 1; }

void Sleep(unsigned long) { Pause(); }

// ---------------------------------------------------------------------------------------------------------
// The library

namespace {

// One of its functions, by the name that it is exported under.
template <class Function> void Find(void* library, const char* name, Function*& function) {
    function = reinterpret_cast<Function*>(dlsym(library, name));
    MUST(function);
}

struct Library {
    explicit Library(void* library) {
        Find(library, "AfxBeginThread", beginThread);
        Find(library, "PostThreadMessage", postThreadMessage);
        Find(library, "GetMessage", getMessage);
        Find(library, "_Z11CreateEventbb", createEvent);
        Find(library, "_Z8SetEventP12HANDLESTRUCT", setEvent);
        Find(library, "_Z19WaitForSingleObjectP12HANDLESTRUCTm", wait);
        Find(library, "_Z11CloseHandleRP12HANDLESTRUCT", closeHandle);
        Find(library, "_Z14SysAllocStringPKc", allocString);
        Find(library, "_Z13SysFreeStringRPc", freeString);
    }

    decltype(AfxBeginThread)* beginThread;
    decltype(PostThreadMessage)* postThreadMessage;
    decltype(GetMessage)* getMessage;
    HANDLE (*createEvent)(bool, bool);
    decltype(SetEvent)* setEvent;
    decltype(WaitForSingleObject)* wait;
    decltype(CloseHandle)* closeHandle;
    char* (*allocString)(const char*);
    void (*freeString)(char*&);
};

#ifdef __SANITIZE_THREAD__
const size_t kSanitizersThreads = 1; // begins with the first of the program
#else
const size_t kSanitizersThreads = 0;
#endif
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
const bool kCountsMappings = false; // sanitizers keep more and more
#else
const bool kCountsMappings = true;
#endif

const Library* g_library;
HANDLE g_event;

unsigned int SetWhenTold(void*) {
    MSG message;
    while (g_library->getMessage(&message, nullptr, 0, 0, 0, false) == 1 && message.message != WM_QUIT)
        g_library->setEvent(g_event);
    return 0;
}

// Undefined behaviour is not looked for where that would refer to the library, which is not there yet.
__attribute__((no_sanitize("vptr"))) void Use(const Library& library) {
    g_library = &library;
    g_event = library.createEvent(true, false);
    CWinThread* thread = library.beginThread(SetWhenTold, nullptr, 0, 0, 0);
    CWinThread* suspended = library.beginThread(SetWhenTold, nullptr, 0, 0, CREATE_SUSPENDED);
    MUST(library.postThreadMessage(thread->m_nThreadID, WM_USER, 0, nullptr) == 1);
    MUST(library.wait(g_event, INFINITE) == WAIT_OBJECT_0);
    MUST(library.postThreadMessage(thread->m_nThreadID, WM_QUIT, 0, nullptr) == 1);
    MUST(library.wait(thread->m_hThread, INFINITE) == WAIT_OBJECT_0);
    delete thread;
    delete suspended;
    MUST(library.closeHandle(g_event) == 1);

    char* text = library.allocString("text");
    MUST(text && strcmp(text, "text") == 0);
    library.freeString(text);
}

std::set<std::string> Mappings() {
    std::set<std::string> mappings;
    FILE* file = fopen("/proc/self/maps", "r");
    MUST(file);
    for (char line[1024]; fgets(line, sizeof line, file);)
        mappings.insert(line);
    fclose(file);
    return mappings;
}

} // namespace

int main(int argc, char** argv) {
    MUST(argc == 3);
    const size_t ownThreads =
        Names("/proc/self/task").size() + kSanitizersThreads; // an emulator has some too
    const int count = atoi(argv[1]);
    const int warmUp = 5; // stacks and heaps that the C library keeps
    std::set<std::string> descriptors;
    size_t mappings = 0;
    for (int round = 0; round < count + warmUp; round++) {
        if (round == warmUp) {
            descriptors = Names("/proc/self/fd");
            mappings = Mappings().size();
        }
        void* library = dlopen(argv[2], round % 2 ? RTLD_NOW : RTLD_LAZY);
        if (!library)
            puts(dlerror());
        MUST(library);
        Use(Library(library));
        WaitForThreads(ownThreads); // one whose handle is signalled still has to leave the library's code
        MUST(dlclose(library) == 0);
        MUST(!dlopen(argv[2], RTLD_NOW | RTLD_NOLOAD));
    }
    MUST(Names("/proc/self/fd") == descriptors);
    // The C library may still have taken one or the other; what the library left would be more each time.
    MUST(!kCountsMappings || Mappings().size() <= mappings + static_cast<size_t>(count / 2));
    puts("nothing is left");
    return 0;
}
