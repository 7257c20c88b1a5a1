// Threads that wait for something beside the main thread.
#ifndef EXAMPLES_HELPER_H
#define EXAMPLES_HELPER_H

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <utility>

#include <Windows/WinThread.h>
#include <Windows/synchelpers.h>

#include "Common.h"

// A thread that does one thing. The destructor waits for its end.
class Helper {
public:
    explicit Helper(std::function<void()> work)
        : m_work(std::move(work)), m_thread(AfxBeginThread(Run, this)) {
        if (!m_thread)
            throw std::bad_alloc();
    }
    ~Helper() { WaitForSingleObject(m_thread->m_hThread, INFINITE); }

    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    pthread_t Id() const { return m_thread->m_nThreadID; }

private:
    static unsigned int Run(void* helper) {
        static_cast<Helper*>(helper)->m_work();
        return 0;
    }

    const std::function<void()> m_work;
    const std::unique_ptr<CWinThread> m_thread;
};

// Does something when a signal arrives, as long as it exists.
class SignalWatcher {
public:
    SignalWatcher(const StopSignals& signals, const std::function<void()>& action)
        : m_helper([this, &signals, action] {
              signals.Wait();
              if (!m_ending)
                  action();
          }) {}

    ~SignalWatcher() {
        m_ending = true;
        // The helper blocks it and is only woken. NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread)
        pthread_kill(m_helper.Id(), SIGTERM);
    }

private:
    std::atomic<bool> m_ending{false};
    Helper m_helper;
};

#endif
