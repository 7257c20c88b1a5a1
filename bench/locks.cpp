// Mutexes and events, by themselves and by handle.
#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include <Windows/Mutex.h>
#include <Windows/event.h>
#include <Windows/synchelpers.h>

#include "Bench.h"
#include "FloorLock.h"
#ifdef BENCH_QT
#include <QMutex>
#include <QWaitCondition>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif

namespace {

struct Library {
    struct Mutex {
        CMutex mutex{false};
        void Lock() { mutex.Lock(INFINITE); }
        void Unlock() { mutex.Unlock(); }
    };
    struct MutexHandle {
        HANDLE handle = CreateMutex(nullptr, false, nullptr, 0);
        ~MutexHandle() { CloseHandle(handle); }
        bool Wait() { return WaitForSingleObject(handle, INFINITE) == WAIT_OBJECT_0; }
        void Release() { ReleaseMutex(handle); }
    };
    struct Event { // stays set until it is reset
        CEvent event{true, false};
        void Set() { event.SetEvent(); }
        void Wait() { event.WaitForEventSignal(INFINITE, nullptr); }
        void Reset() { event.ResetEvent(); }
    };
};

struct Floor {
    struct Mutex {
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        void Lock() { FloorLock(mutex); }
        void Unlock() { FloorUnlock(mutex); }
    };
    struct MutexHandle {
        struct Record {
            unsigned int type;
            void* object;
        };
        Mutex mutex;
        Record record{1, &mutex};
        FLOOR_CALL bool Wait() {
            Record* handle = &record;
            benchmark::DoNotOptimize(handle);
            if (handle->type != 1 || !handle->object)
                return false;
            static_cast<Mutex*>(handle->object)->Lock();
            return true;
        }
        FLOOR_CALL void Release() {
            Record* handle = &record;
            benchmark::DoNotOptimize(handle);
            if (handle->object)
                static_cast<Mutex*>(handle->object)->Unlock();
        }
    };
    // With its fields in the order that programs know them in.
    struct Event {
        bool set = false;
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
        FLOOR_CALL void Set() {
            pthread_mutex_lock(&mutex);
            if (!set) {
                set = true;
                pthread_cond_broadcast(&cond);
            }
            pthread_mutex_unlock(&mutex);
        }
        FLOOR_CALL void Wait() {
            pthread_mutex_lock(&mutex);
            while (!set)
                pthread_cond_wait(&cond, &mutex);
            pthread_mutex_unlock(&mutex);
        }
        FLOOR_CALL void Reset() {
            pthread_mutex_lock(&mutex);
            set = false;
            pthread_mutex_unlock(&mutex);
        }
    };
};

struct Std {
    struct Mutex {
        std::mutex mutex;
        void Lock() { mutex.lock(); }
        void Unlock() { mutex.unlock(); }
    };
    struct Event {
        std::mutex mutex;
        std::condition_variable condition;
        bool set = false;
        void Set() {
            std::lock_guard<std::mutex> lock(mutex);
            set = true;
            condition.notify_all();
        }
        void Wait() {
            std::unique_lock<std::mutex> lock(mutex);
            condition.wait(lock, [this] { return set; });
        }
        void Reset() {
            std::lock_guard<std::mutex> lock(mutex);
            set = false;
        }
    };
};

#ifdef BENCH_QT
struct QtCore {
    struct Mutex {
        QMutex mutex;
        void Lock() { mutex.lock(); }
        void Unlock() { mutex.unlock(); }
    };
    struct Event {
        QMutex mutex;
        QWaitCondition condition;
        bool set = false;
        void Set() {
            QMutexLocker lock(&mutex);
            set = true;
            condition.wakeAll();
        }
        void Wait() {
            QMutexLocker lock(&mutex);
            while (!set)
                condition.wait(&mutex);
        }
        void Reset() {
            QMutexLocker lock(&mutex);
            set = false;
        }
    };
};
#endif

#ifdef BENCH_GLIB
struct Glib {
    struct Mutex {
        Mutex() { g_mutex_init(&mutex); }
        ~Mutex() { g_mutex_clear(&mutex); }
        void Lock() { g_mutex_lock(&mutex); }
        void Unlock() { g_mutex_unlock(&mutex); }
        GMutex mutex;
    };
    struct Event {
        Mutex mutex;
        GCond condition;
        bool set = false;
        Event() { g_cond_init(&condition); }
        ~Event() { g_cond_clear(&condition); }
        void Set() {
            mutex.Lock();
            set = true;
            g_cond_broadcast(&condition);
            mutex.Unlock();
        }
        void Wait() {
            mutex.Lock();
            while (!set)
                g_cond_wait(&condition, &mutex.mutex);
            mutex.Unlock();
        }
        void Reset() {
            mutex.Lock();
            set = false;
            mutex.Unlock();
        }
    };
};
#endif

template <typename Column> void LockAndUnlock(benchmark::State& state) {
    typename Column::Mutex mutex;
    for (auto _ : state) {
        mutex.Lock();
        mutex.Unlock();
    }
}

template <typename Column> void WaitAndRelease(benchmark::State& state) {
    typename Column::MutexHandle mutex;
    for (auto _ : state) {
        if (!Agrees(state, mutex.Wait()))
            return;
        mutex.Release();
    }
}

template <typename Column> void SetWaitReset(benchmark::State& state) {
    typename Column::Event event;
    for (auto _ : state) {
        event.Set();
        event.Wait();
        event.Reset();
    }
}

// One thread sets an event and waits for the other's.
template <typename Column> void EventPingPong(benchmark::State& state) {
    typename Column::Event ping;
    typename Column::Event pong;
    bool over = false;
    std::thread other([&] {
        for (;;) {
            ping.Wait();
            ping.Reset();
            const bool last = over;
            pong.Set();
            if (last)
                return;
        }
    });
    for (auto _ : state) {
        ping.Set();
        pong.Wait();
        pong.Reset();
    }
    over = true;
    ping.Set();
    pong.Wait();
    other.join();
}

} // namespace

#define COLUMNS(operation, ...)                                                                              \
    BENCHMARK_TEMPLATE(operation, Library)->Apply(Turns) __VA_ARGS__;                                        \
    BENCHMARK_TEMPLATE(operation, Floor)->Apply(Turns) __VA_ARGS__;                                          \
    BENCHMARK_TEMPLATE(operation, Std) __VA_ARGS__;                                                          \
    BENCH_IF_QT(BENCHMARK_TEMPLATE(operation, QtCore) __VA_ARGS__;)                                          \
    BENCH_IF_GLIB(BENCHMARK_TEMPLATE(operation, Glib) __VA_ARGS__;)
COLUMNS(LockAndUnlock)
BENCHMARK_TEMPLATE(WaitAndRelease, Library)->Apply(Turns);
BENCHMARK_TEMPLATE(WaitAndRelease, Floor)->Apply(Turns);
COLUMNS(SetWaitReset)
COLUMNS(EventPingPong, ->MeasureProcessCPUTime()->UseRealTime())
