// Threads and the messages between them.
#include <fcntl.h>
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include <Windows/WinThread.h>
#include <Windows/synchelpers.h>
#include <host/Time.h>

#include "Bench.h"
#include "FloorLock.h"
#ifdef BENCH_QT
#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QEvent>
#include <QEventLoop>
#include <QObject>
#include <QThread>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif

namespace {

const int MANY = 1000000;
const unsigned int LAST = 0xFFFF;

// A queue has Post(number), from any thread, and Get(), on the thread that reads it: the next number. A
// column's Thread runs a function that reads the thread's own queue.

struct Library {
    class Thread {
    public:
        using Body = std::function<void(Thread&)>;
        explicit Thread(Body body) : m_body(std::move(body)), m_thread(Run, this) { m_thread.ResumeThread(); }
        void Post(unsigned int number) { m_thread.PostMessage(number, 0, nullptr); }
        unsigned int Get() {
            MSG message;
            m_thread.GetMessage(&message, 0, 0, 0, false);
            return message.message;
        }
        ~Thread() { WaitForSingleObject(m_thread.m_hThread, INFINITE); }

    private:
        static unsigned int Run(void* self) {
            static_cast<Thread*>(self)->m_body(*static_cast<Thread*>(self));
            return 0;
        }
        Body m_body;
        CWinThread m_thread;
    };
};

// Keeps a thread that may be cancelled from it, as it must not be with a lock in its hands; what was allowed
// before is allowed again afterwards.
thread_local bool t_isCancellable = false;

int DisableCancellation() {
    int before = PTHREAD_CANCEL_ENABLE;
    if (t_isCancellable)
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    return before;
}

void RestoreCancellation(int before) {
    if (t_isCancellable)
        pthread_setcancelstate(before, nullptr);
}

// A pipe of records with a lock at each end and a third for a list of what does not fit. A thread can be
// cancelled where it waits for a record.
struct Floor {
    struct Mutex {
        pthread_mutex_t mutex;
        Mutex() { pthread_mutex_init(&mutex, nullptr); }
        ~Mutex() { pthread_mutex_destroy(&mutex); }
    };

    struct Record {
        unsigned int number;
        unsigned long wParam;
        void* lParam;
        unsigned int time;
    };
    struct Node {
        Record record;
        Node* next;
    };

    struct Queue {
        int ends[2];
        Mutex writeLock, readLock, parkedLock;
        Node* first = nullptr;
        Node* last = nullptr;

        void Open() {
            if (pipe(ends) == 0)
                fcntl(ends[1], F_SETFL, fcntl(ends[1], F_GETFL) | O_NONBLOCK);
        }
        void Close() {
            close(ends[0]);
            close(ends[1]);
        }
        bool Write(const Record& record) { return write(ends[1], &record, sizeof record) != -1; }
        FLOOR_CALL void Post(unsigned int number) {
            const Record record = {number, 0, nullptr, static_cast<unsigned int>(GetTickCount())};
            const int before = DisableCancellation();
            FloorLock(writeLock.mutex);
            if (!Write(record)) {
                FloorLock(parkedLock.mutex);
                if (first || !Write(record)) { // the reader may have made room meanwhile
                    Node* node = new Node{record, nullptr};
                    (first ? last->next : first) = node;
                    last = node;
                }
                FloorUnlock(parkedLock.mutex);
            }
            FloorUnlock(writeLock.mutex);
            RestoreCancellation(before);
        }
        FLOOR_CALL unsigned int Get() {
            Record record;
            int before = DisableCancellation();
            FloorLock(readLock.mutex);
            RestoreCancellation(before);
            if (read(ends[0], &record, sizeof record) != sizeof record)
                record.number = 0;
            before = DisableCancellation();
            FloorLock(parkedLock.mutex);
            while (first && Write(first->record))
                delete std::exchange(first, first->next);
            FloorUnlock(parkedLock.mutex);
            FloorUnlock(readLock.mutex);
            RestoreCancellation(before);
            CLogger::PostLogEventF(LogTypeTraffic, LogSeverityTrace, "%d %d %ld %ld",
                                   static_cast<int>(record.number), static_cast<int>(record.number), 0L, 0L);
            return record.number;
        }
    };

    // What is set when a thread has ended, in a record of its own, as others wait for it by handle.
    struct End {
        pthread_cond_t condition;
        pthread_mutex_t lock;
        bool isSet = false;

        End() {
            pthread_cond_init(&condition, nullptr);
            pthread_mutex_init(&lock, nullptr);
        }
        ~End() {
            pthread_cond_destroy(&condition);
            pthread_mutex_destroy(&lock);
        }
        void Set() {
            pthread_mutex_lock(&lock);
            isSet = true;
            pthread_cond_broadcast(&condition);
            pthread_mutex_unlock(&lock);
        }
        void Wait() {
            pthread_mutex_lock(&lock);
            while (!isSet)
                pthread_cond_wait(&condition, &lock);
            pthread_mutex_unlock(&lock);
        }
    };
    struct Handle {
        unsigned int type;
        std::unique_ptr<End> end;
    };

    class Thread {
    public:
        using Body = std::function<void(Thread&)>;
        explicit Thread(Body body) : m_body(std::move(body)) {
            FloorLock(m_start.mutex); // created suspended
            m_handle.reset(new Handle{3, std::make_unique<End>()});
            m_queue.Open();
            pthread_attr_t attributes;
            pthread_attr_init(&attributes);
            pthread_attr_setinheritsched(&attributes, PTHREAD_INHERIT_SCHED);
            pthread_attr_setstacksize(&attributes, 0x40000);
            pthread_create(&m_thread, &attributes, Run, this);
            pthread_attr_destroy(&attributes);
            FloorLock(s_registryLock);
            s_registry.emplace(static_cast<int>(m_thread), this);
            CLogger::PostLogEventF(LogTypeGeneral, LogSeverityTrace, "added %x, %zd",
                                   static_cast<unsigned int>(m_thread), s_registry.size());
            FloorUnlock(s_registryLock);
            FloorUnlock(m_start.mutex);
        }
        void Post(unsigned int number) { m_queue.Post(number); }
        unsigned int Get() { return m_queue.Get(); }
        ~Thread() {
            m_handle->end->Wait();
            CLogger::PostLogEvent(LogTypeGeneral, LogSeverityTrace, "destroyed", nullptr);
            m_queue.Close();
            FloorLock(s_registryLock);
            s_registry.erase(static_cast<int>(m_thread));
            CLogger::PostLogEventF(LogTypeGeneral, LogSeverityTrace, "removed %x",
                                   static_cast<unsigned int>(m_thread));
            FloorUnlock(s_registryLock);
            pthread_detach(m_thread);
            CLogger::PostLogEventF(LogTypeGeneral, LogSeverityTrace, "completed %x",
                                   static_cast<unsigned int>(m_thread));
        }

    private:
        static void* Run(void* argument) {
            auto* self = static_cast<Thread*>(argument);
            t_isCancellable = true;
            const int before = DisableCancellation();
            FloorLock(self->m_start.mutex);
            FloorUnlock(self->m_start.mutex);
            RestoreCancellation(before);
            pthread_testcancel();
            self->m_body(*self);
            DisableCancellation();
            CLogger::PostLogEventF(LogTypeGeneral, LogSeverityTrace, "exiting %x",
                                   static_cast<unsigned int>(self->m_thread));
            self->m_handle->end->Set();
            pthread_exit(nullptr);
        }
        Body m_body;
        Queue m_queue;
        Mutex m_start;
        std::unique_ptr<Handle> m_handle;
        pthread_t m_thread;
    };

    static pthread_mutex_t s_registryLock;
    static std::map<int, Thread*> s_registry;
};
pthread_mutex_t Floor::s_registryLock = PTHREAD_MUTEX_INITIALIZER;
std::map<int, Floor::Thread*> Floor::s_registry;

struct Std {
    class Thread {
    public:
        using Body = std::function<void(Thread&)>;
        explicit Thread(Body body) : m_thread([this, body] { body(*this); }) {}
        ~Thread() { m_thread.join(); }
        void Post(unsigned int number) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_queue.push_back(number);
            m_posted.notify_one();
        }
        unsigned int Get() {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_posted.wait(lock, [this] { return !m_queue.empty(); });
            const unsigned int number = m_queue.front();
            m_queue.pop_front();
            return number;
        }

    private:
        std::mutex m_mutex;
        std::condition_variable m_posted;
        std::deque<unsigned int> m_queue;
        std::thread m_thread;
    };
};

#ifdef BENCH_QT
struct QtCore {
    class Message : public QEvent {
    public:
        explicit Message(unsigned int number) : QEvent(User), number(number) {}
        const unsigned int number;
    };

    // Takes the events that are posted to it.
    class Mailbox : public QObject {
    public:
        bool event(QEvent* event) override {
            if (event->type() != QEvent::User)
                return QObject::event(event);
            numbers.push_back(static_cast<Message*>(event)->number);
            return true;
        }
        std::deque<unsigned int> numbers;
    };

    class Thread {
    public:
        using Body = std::function<void(Thread&)>;
        explicit Thread(Body body) {
            m_thread.reset(QThread::create([this, body] { body(*this); }));
            m_mailbox.moveToThread(m_thread.get());
            m_thread->start();
        }
        ~Thread() { m_thread->wait(); }
        void Post(unsigned int number) { QCoreApplication::postEvent(&m_mailbox, new Message(number)); }
        unsigned int Get() {
            while (m_mailbox.numbers.empty())
                QThread::currentThread()->eventDispatcher()->processEvents(QEventLoop::WaitForMoreEvents);
            const unsigned int number = m_mailbox.numbers.front();
            m_mailbox.numbers.pop_front();
            return number;
        }

    private:
        Mailbox m_mailbox;
        std::unique_ptr<QThread> m_thread;
    };
};
#endif

#ifdef BENCH_GLIB
struct Glib {
    class Thread {
    public:
        using Body = std::function<void(Thread&)>;
        explicit Thread(Body body) : m_body(std::move(body)), m_queue(g_async_queue_new()) {
            m_thread = g_thread_new("", Run, this);
        }
        ~Thread() {
            g_thread_join(m_thread);
            g_async_queue_unref(m_queue);
        }
        void Post(unsigned int number) { g_async_queue_push(m_queue, GUINT_TO_POINTER(number + 1)); }
        unsigned int Get() { return GPOINTER_TO_UINT(g_async_queue_pop(m_queue)) - 1; }

    private:
        static gpointer Run(gpointer self) {
            static_cast<Thread*>(self)->m_body(*static_cast<Thread*>(self));
            return nullptr;
        }
        Body m_body;
        GAsyncQueue* m_queue;
        GThread* m_thread;
    };
};
#endif

template <typename Column> void CreateToGone(benchmark::State& state) {
    for (auto _ : state) {
        int ran = 0;
        {
            typename Column::Thread thread([&](typename Column::Thread&) { ran = 1; });
        }
        if (!Agrees(state, ran == 1))
            return;
    }
}

// A message that the reader posts to itself.
template <typename Column> void PostAndGet(benchmark::State& state) {
    typename Column::Thread thread([&](typename Column::Thread& self) {
        for (auto _ : state) {
            self.Post(7);
            if (!Agrees(state, self.Get() == 7))
                return;
        }
    });
}

// The reader counts, as a message may overtake others that did not fit into the queue.
template <typename Column> void Million(benchmark::State& state) {
    for (auto _ : state) {
        unsigned long sum = 0;
        {
            typename Column::Thread reader([&](typename Column::Thread& self) {
                for (int i = 0; i < MANY; ++i)
                    sum += self.Get();
            });
            for (int i = 0; i < MANY; ++i)
                reader.Post(1);
        }
        if (!Agrees(state, sum == MANY))
            return;
    }
}

// A message to another thread and its answer.
template <typename Column> void PingPong(benchmark::State& state) {
    using Thread = typename Column::Thread;
    std::atomic<Thread*> first{nullptr};
    Thread second([&](Thread& self) {
        unsigned int number;
        do {
            number = self.Get();
            first.load()->Post(number);
        } while (number != LAST);
    });
    Thread here([&](Thread& self) {
        first = &self;
        for (auto _ : state) {
            second.Post(1);
            if (!Agrees(state, self.Get() == 1))
                break;
        }
        second.Post(LAST);
        self.Get();
    });
}

} // namespace

#define COLUMNS(operation, ...)                                                                              \
    BENCHMARK_TEMPLATE(operation, Library)->Apply(Turns) __VA_ARGS__;                                        \
    BENCHMARK_TEMPLATE(operation, Floor)->Apply(Turns) __VA_ARGS__;                                          \
    BENCHMARK_TEMPLATE(operation, Std) __VA_ARGS__;                                                          \
    BENCH_IF_QT(BENCHMARK_TEMPLATE(operation, QtCore) __VA_ARGS__;)                                          \
    BENCH_IF_GLIB(BENCHMARK_TEMPLATE(operation, Glib) __VA_ARGS__;)
COLUMNS(CreateToGone, ->MeasureProcessCPUTime()->UseRealTime())
COLUMNS(PostAndGet, ->MeasureProcessCPUTime()->UseRealTime())
COLUMNS(Million, ->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond))
COLUMNS(PingPong, ->MeasureProcessCPUTime()->UseRealTime())
