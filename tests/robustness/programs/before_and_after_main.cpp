// Uses the library before main, in main, and in every place where code runs behind it. Prints a line for
// each.
#include <stdio.h>
#include <string.h>

#include <Windows/Windows.h>

#include "Programs.h"

namespace {

unsigned int Add(void* p) {
    unsigned long& sum = *static_cast<unsigned long*>(p);
    MSG message;
    while (GetMessage(&message, NULL, 0, 0) == 1 && message.message != WM_QUIT)
        sum += message.wParam;
    return 0;
}

unsigned int Set(void* event) {
    SetEvent(static_cast<HANDLE>(event));
    return 0;
}

void End(CWinThread* thread) {
    MUST(WaitForSingleObject(thread->m_hThread, INFINITE) == WAIT_OBJECT_0);
    delete thread;
}

// Strings, a BSTR, a thread with its queue, an event that another thread sets.
void UseAll(const char* where) {
    XString text("used ");
    XString copy(text);
    copy += where;
    MUST(strcmp(text, "used ") == 0);

    BSTR bstr = SysAllocString(copy);
    MUST(bstr && SysStringLen(bstr) == strlen(copy));
    SysFreeString(bstr);

    unsigned long sum = 0;
    CWinThread* thread = AfxBeginThread(Add, &sum);
    for (unsigned long number = 1; number <= 4; number++)
        MUST(PostThreadMessage(thread->GetThreadID(), WM_USER, number, NULL) == 1);
    MUST(PostThreadMessage(thread->GetThreadID(), WM_QUIT, 0, NULL) == 1);
    End(thread);

    HANDLE event = CreateEvent(true, false);
    CWinThread* setter = AfxBeginThread(Set, event);
    MUST(WaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0);
    End(setter);
    MUST(CloseHandle(event) == 1);

    XString line;
    line.Format("%s: %lu", static_cast<const char*>(copy), sum);
    puts(line);
    fflush(stdout);
}

// In the order in which things happen.
__attribute__((constructor)) void Constructor() { UseAll("by a constructor function"); }
__attribute__((destructor)) void Destructor() { UseAll("by a destructor function"); }

struct User {
    User() {
        UseAll("by a static constructor");
        atexit([] { UseAll("by what a static constructor registered"); });
    }
    ~User() { UseAll("by a static destructor"); }
};
const User g_user;

// Objects of the library that live as long as the program: strings, and a thread that waits for messages.
const XString g_text("a static string");
struct Worker {
    unsigned long sum = 0;
    CWinThread* thread = AfxBeginThread(Add, &sum);
    ~Worker() {
        PostThreadMessage(thread->GetThreadID(), WM_USER, 5, NULL);
        PostThreadMessage(thread->GetThreadID(), WM_QUIT, 0, NULL);
        End(thread);
        printf("a static thread has ended: %lu\n", sum);
        puts(g_text);
        fflush(stdout);
    }
};
Worker g_worker;

} // namespace

int main() {
    UseAll("in main");
    atexit([] { UseAll("by what main registered"); });
    return 0;
}
