// A worker thread with a message loop: the main thread hands it texts, it counts their words.
//
// A message is a number and two values. Whatever lParam points at needs an owner: here it is always the one
// who has the message, so each text is on the heap and the worker deletes it.

#include <stdio.h>
#include <string.h>

#include <memory>

#include <Windows/WinThread.h>
#include <Windows/XString.h>
#include <Windows/synchelpers.h>

namespace {

enum : unsigned int {
    kCount = WM_USER, // lParam is an XString, which belongs to the receiver; wParam numbers it
    kReport           // lParam is a HANDLE of an event, to set when everything before was counted
};

int CountWords(const char* text) {
    const char* const blanks = " \t\n";
    int words = 0;
    for (text += strspn(text, blanks); *text; text += strspn(text, blanks)) {
        ++words;
        text += strcspn(text, blanks);
    }
    return words;
}

// The worker's whole life. Messages of one sender arrive in the order in which they were posted.
unsigned int Work(void*) {
    int total = 0;
    MSG message;
    while (GetMessage(&message, nullptr, 0, 0) && message.message != WM_QUIT) {
        switch (message.message) {
        case kCount: {
            const std::unique_ptr<XString> text(static_cast<XString*>(message.lParam));
            const int words = CountWords(*text);
            printf("text %lu: %d words in \"%s\"\n", message.wParam, words, static_cast<const char*>(*text));
            total += words;
            break;
        }
        case kReport:
            printf("worker: %d words so far\n", total);
            SetEvent(static_cast<HANDLE>(message.lParam));
            break;
        }
    }
    printf("worker: %d words in all\n", total);
    return 0;
}

// A message that was not queued stays the sender's.
void Send(CWinThread& worker, unsigned long number, const char* text) {
    auto owned = std::make_unique<XString>(text);
    if (worker.PostMessage(kCount, number, owned.get()))
        static_cast<void>(owned.release());
}

} // namespace

int main() {
    const std::unique_ptr<CWinThread> worker(AfxBeginThread(Work, nullptr));
    HANDLE counted = CreateEvent(true, false);

    Send(*worker, 1, "a thread has a queue");
    Send(*worker, 2, "and a handle");
    worker->PostMessage(kReport, 0, counted);
    WaitForSingleObject(counted, INFINITE);
    puts("main: both were counted");

    Send(*worker, 3, "  blanks   do not count ");
    worker->PostMessage(WM_QUIT, 0, nullptr);
    WaitForSingleObject(worker->m_hThread, INFINITE); // or the destructor would cancel the thread at its work
    puts("main: the worker has ended");
    CloseHandle(counted);
}
