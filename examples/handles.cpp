// Events, mutexes and threads by handle: WaitForSingleObject() waits for each of them.

#include <stdio.h>

#include <memory>
#include <vector>

#include <Windows/WinThread.h>
#include <Windows/synchelpers.h>

namespace {

const char* NameOf(unsigned long result) {
    switch (result) { // by name, as the numbers are this library's own
    case WAIT_OBJECT_0:
        return "there it is";
    case WAIT_TIMEOUT:
        return "not in time";
    default:
        return "cannot be waited for";
    }
}

struct Shared {
    HANDLE gate;  // a manual-reset event: once set, it lets everybody through
    HANDLE mutex; // guards sum
    long sum;
};

unsigned int Add(void* argument) {
    auto* shared = static_cast<Shared*>(argument);
    WaitForSingleObject(shared->gate, INFINITE);
    for (int i = 0; i < 1000; ++i) {
        WaitForSingleObject(shared->mutex, INFINITE);
        ++shared->sum;
        ReleaseMutex(shared->mutex);
    }
    return 0;
}

unsigned int TryMutex(void* argument) {
    HANDLE mutex = static_cast<HANDLE>(argument);
    const unsigned long result = WaitForSingleObject(mutex, 20);
    printf("mutex, from another thread: %s\n", NameOf(result));
    if (result == WAIT_OBJECT_0)
        ReleaseMutex(mutex);
    return 0;
}

void WaitFor(CWinThread* thread) {
    const std::unique_ptr<CWinThread> owned(thread);
    WaitForSingleObject(owned->m_hThread, INFINITE);
}

void ShowEvent() {
    HANDLE event = CreateEvent(true, false);
    printf("event, not set: %s\n", NameOf(WaitForSingleObject(event, 20)));
    SetEvent(event);
    printf("event, set: %s\n", NameOf(WaitForSingleObject(event, INFINITE)));
    printf("event, still set: %s\n", NameOf(WaitForSingleObject(event, 0)));
    ResetEvent(event);
    printf("event, reset: %s\n", NameOf(WaitForSingleObject(event, 0)));
    CloseHandle(event);
}

void ShowMutex() {
    HANDLE mutex = CreateMutex(nullptr, true, nullptr); // the caller's from the beginning
    printf("mutex, once more: %s\n", NameOf(WaitForSingleObject(mutex, INFINITE)));
    WaitFor(AfxBeginThread(TryMutex, mutex));
    ReleaseMutex(mutex); // as often as it was taken
    ReleaseMutex(mutex);
    WaitFor(AfxBeginThread(TryMutex, mutex));
    CloseHandle(mutex);
}

void ShowThreads() {
    Shared shared = {CreateEvent(true, false), CreateMutex(nullptr, false, nullptr), 0};
    std::vector<CWinThread*> threads;
    for (int i = 0; i < 3; ++i)
        threads.push_back(AfxBeginThread(Add, &shared));
    printf("thread, at the gate: %s\n", NameOf(WaitForSingleObject(threads[0]->m_hThread, 20)));
    SetEvent(shared.gate);
    for (CWinThread* thread : threads)
        WaitFor(thread);
    printf("sum of three threads: %ld\n", shared.sum);
    CloseHandle(shared.mutex);
    CloseHandle(shared.gate);
}

} // namespace

int main() {
    ShowEvent();
    ShowMutex();
    ShowThreads();
}
