// What the operations that programs do all the time may cost: allocations, system calls and locks, counted.
//
// A pass of a loop or a frame is the same calls in the same order each time; the lists here are all of them.
#include <errno.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/Windows.h>

#include "NetworkFixtures.h"
#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"

namespace {

typedef std::vector<std::string> Texts;

// The longest payload that goes out from the object's own buffer.
const size_t INLINE_LIMIT = 32764;

// ---------------------------------------------------------------------------------------------------------
// Counting

// The calling thread's allocations in an operation, such as "malloc 1 free 1"; "" for none.
std::string Allocations(const std::function<void()>& operation) {
    const AllocationCounter counter;
    operation();
    const std::pair<const char*, int> counts[] = {
        {"malloc", counter.Mallocs()},
        {"realloc", counter.Reallocs()},
        {"free", counter.Frees()},
        {"new", counter.News()},
        {"delete", counter.Deletes()},
        {"new[]", counter.ArrayNews()},
        {"delete[]", counter.ArrayDeletes()},
    };
    std::string text;
    for (const auto& [name, count] : counts)
        if (count != 0)
            text += Text("%s%s %d", text.empty() ? "" : " ", name, count);
    return text;
}

// Without pipe(), by which a sanitizer finds out whether an address can be read.
const std::vector<Call> SYSTEM = {Call::Fcntl,   Call::Ioctl, Call::Select, Call::Read,   Call::Write,
                                  Call::Close,   Call::Dup,   Call::Socket, Call::Accept, Call::Setsockopt,
                                  Call::Connect, Call::Recv,  Call::Send,   Call::Bind,   Call::Listen};

const std::vector<Call> LOCKS = {Call::MutexLock,  Call::MutexTrylock,  Call::MutexUnlock,
                                 Call::CondWait,   Call::CondTimedwait, Call::CondBroadcast,
                                 Call::CondSignal, Call::SchedYield,    Call::Sleep};

const std::vector<Call> ALLOCATIONS = {Call::Malloc, Call::Calloc, Call::Realloc, Call::New, Call::ArrayNew};

Texts CallsIn(const std::vector<Call>& calls, const std::function<void()>& operation) {
    const CallLog log(calls);
    operation();
    return log.Texts();
}

// What one thread has called.
Texts CallsOf(pthread_t thread, const CallLog& log) {
    Texts texts;
    for (const CallRecord& record : log.Records())
        if (pthread_equal(record.thread, thread))
            texts.push_back(record.text);
    return texts;
}

std::string Record(const char* call) { return Text("%s(%zu)", call, sizeof(MSG)); }

const Texts LOCK_AND_UNLOCK = {"pthread_mutex_lock()", "pthread_mutex_unlock()"};

// ---------------------------------------------------------------------------------------------------------
// Allocations of strings, BSTR, VARIANT and containers

typedef std::function<void()> Operation;

struct Budget {
    const char* name;
    const char* allocations; // as Allocations() has them
    std::function<Operation()> prepare;
};

std::ostream& operator<<(std::ostream& stream, const Budget& budget) { return stream << budget.name; }

// An operation on a string that has room for more than its text.
Budget OnString(const char* name, const char* allocations, const std::function<void(XString&)>& operation) {
    return {name, allocations, [operation] {
                const auto s = std::make_shared<XString>("some text");
                s->Resize(200);
                return [s, operation] { operation(*s); };
            }};
}

CObject* Object(unsigned long number) { return reinterpret_cast<CObject*>(number); }

// Compared with, so that nothing is left out by a compiler.
volatile int g_result;

const Budget BUDGETS[] = {
    OnString("String_copied_and_destroyed", "", [](XString& s) { const XString copy(s); }),
    OnString("String_assigned", "", [](XString& s) { s = XString(s); }),
    OnString("Character_appended_within_room", "", [](XString& s) { s += 'x'; }),
    OnString("Character_assigned", "malloc 1 free 1", [](XString& s) { s = 'x'; }),
    OnString("Text_assigned", "malloc 1 free 1", [](XString& s) { s = "other"; }),
    OnString("Text_appended", "malloc 1 free 1 new 1 delete 1", [](XString& s) { s += "other"; }),
    OnString("Format_within_room", "", [](XString& s) { s.Format("%d of %s, %c", 7, "nine", 'x'); }),
    OnString("Insert_within_room", "", [](XString& s) { s.Insert(2, "xyz"); }),
    OnString("Insert_of_a_character_within_room", "", [](XString& s) { s.Insert(2, 'x'); }),
    OnString("Edited_in_place", "",
             [](XString& s) {
                 s.MakeUpper();
                 s.MakeLower();
                 s.MakeReverse();
                 s.Replace('e', 'i');
                 s.Remove('t');
                 s.Delete(1, 1);
                 s.SetAt(0, ' ');
                 s.TrimLeft();
                 s.TrimRight();
             }),
    OnString("Replace_of_what_is_not_there", "", [](XString& s) { g_result = s.Replace("no", "yes"); }),
    OnString("Searched", "",
             [](XString& s) {
                 g_result = s.Find('t') + s.Find("text") + s.ReverseFind('e') + s.FindOneOf("xyz") +
                            s.GetLength() + s.GetAt(1);
             }),
    OnString("Compared", "",
             [](XString& s) { // with a text: an XString would be made for nothing
                 g_result = s.Compare("some") + s.CompareNoCase("SOME") + s.Collate("some") + (s == "some") +
                            (s < "some") + (s == s);
             }),
    OnString("Raw_buffer", "",
             [](XString& s) {
                 s.GetBuffer(100)[0] = 'S';
                 s.ReleaseBuffer();
             }),
    OnString("String_made_of_a_text", "malloc 1 free 1 new 1 delete 1",
             [](XString&) { const XString made("text"); }),
    OnString("String_made_empty", "new 1 delete 1", [](XString&) { const XString made; }),
    OnString("Strings_joined", "malloc 1 free 1 new 1 delete 1",
             [](XString& s) { const XString sum = s + s; }),
    OnString("Shared_string_edited", "malloc 1 free 1 new 1 delete 1",
             [](XString& s) {
                 XString copy(s);
                 copy.MakeUpper();
             }),
    {"Characters_appended_from_nothing", "malloc 1 realloc 3", // 16, 32, 48 and 64 bytes
     [] {
         const auto s = std::make_shared<XString>();
         return [s] {
             for (int i = 0; i < 60; ++i)
                 *s += 'x';
         };
     }},

    {"SysAllocString_and_SysFreeString", "malloc 1 free 1",
     [] {
         return [] {
             BSTR bstr = SysAllocString("text");
             g_result = static_cast<int>(SysStringLen(bstr)) + IsBSTR(bstr, true);
             SysFreeString(bstr);
         };
     }},
    {"FormatBSTR", "malloc 1 free 1",
     [] {
         return [] {
             BSTR bstr = FormatBSTR("%d %s", 7, "text");
             SysFreeString(bstr);
         };
     }},
    {"Int_to_text_and_back", "malloc 1 free 1",
     [] {
         return [] {
             _variant_t v(4711);
             v.ChangeType(VT_BSTR);
             v.ChangeType(VT_I4);
             g_result = v.lVal;
         };
     }},

    {"ObList_AddTail_and_RemoveHead", "new 1 delete 1",
     [] {
         const auto list = std::make_shared<CObList>();
         return [list] {
             list->AddTail(Object(1));
             list->RemoveHead();
         };
     }},
    {"ObList_walked", "",
     [] {
         const auto list = std::make_shared<CObList>();
         list->AddTail(Object(1));
         return [list] {
             for (POSITION at = list->GetHeadPosition(); at;)
                 g_result = list->GetNext(at) == Object(1);
             g_result = list->Find(Object(1)) == list->FindIndex(0);
         };
     }},
    {"PtrArray_Add_within_room", "",
     [] {
         const auto array = std::make_shared<CPtrArray>();
         array->Add(Object(1));
         return [array] {
             for (int i = 1; i < 16; ++i)
                 array->Add(Object(2));
         };
     }},
    {"PtrArray_Add_without_room", "new[] 1 delete[] 1",
     [] {
         const auto array = std::make_shared<CPtrArray>();
         for (int i = 0; i < 16; ++i)
             array->Add(Object(1));
         return [array] { array->Add(Object(2)); };
     }},
    {"StringArray_element_copied", "",
     [] {
         const auto array = std::make_shared<CStringArray>();
         array->Add("text");
         return [array] { const XString copy = array->GetAt(0); };
     }},
    {"StringArray_element_replaced", "",
     [] {
         const auto array = std::make_shared<CStringArray>();
         array->Add("text");
         return [array] { array->SetAt(0, array->GetAt(0)); };
     }},

    {"MemFile_written_within_its_buffer", "",
     [] {
         const auto file = std::make_shared<CMemFile>();
         file->Write("x", 1); // 1024 bytes
         return [file] {
             file->Write("some text", 9);
             file->WriteF("<%d>", 7);
             file->WriteStrEntities("<&>");
             g_result = *file->GetAsStr();
         };
     }},
    {"MemFile_read", "",
     [] {
         const auto file = std::make_shared<CMemFile>();
         file->Write("some text", 9);
         return [file] {
             char bytes[9];
             file->Seek(0, CMemFile::begin);
             g_result = static_cast<int>(file->Read(bytes, sizeof bytes));
         };
     }},
};

class BudgetsAllocations : public testing::TestWithParam<Budget> {};

} // namespace

TEST_P(BudgetsAllocations, Are_what_the_operation_needs) {
    if (!Interpose::MallocAvailable())
        GTEST_SKIP() << Interpose::MallocReason();
    const Operation operation = GetParam().prepare();
    EXPECT_EQ(Allocations(operation), GetParam().allocations);
}

INSTANTIATE_TEST_SUITE_P(, BudgetsAllocations, testing::ValuesIn(BUDGETS),
                         [](const auto& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------------------
// Locks

TEST(Budgets, Mutex_is_one_pthread_call_for_a_lock_and_one_for_an_unlock) {
    CMutex mutex(false);
    EXPECT_EQ(CallsIn(LOCKS, [&] { mutex.Lock(INFINITE); }), (Texts{"pthread_mutex_lock()"}));
    EXPECT_EQ(CallsIn(LOCKS, [&] { mutex.Unlock(); }), (Texts{"pthread_mutex_unlock()"}));
}

TEST(Budgets, Mutex_that_is_free_is_locked_with_a_timeout_by_one_try) {
    for (unsigned long timeout : {0UL, 5000UL}) {
        CMutex mutex(false);
        EXPECT_EQ(CallsIn(LOCKS, [&] { mutex.Lock(timeout); }), (Texts{"pthread_mutex_trylock()"}));
        mutex.Unlock();
    }
}

TEST(Budgets, Mutex_posts_two_events_for_a_lock_and_two_for_an_unlock) {
    CMutex mutex(false);
    Recorder::Clear();
    mutex.Lock(INFINITE);
    mutex.Unlock();
    EXPECT_EQ(Recorder::AllEvents().size(), 4U);
}

TEST(Budgets, SingleLock_is_one_pthread_call_at_each_end) {
    CMutex mutex(false);
    EXPECT_EQ(CallsIn(LOCKS, [&] { const CSingleLock lock(&mutex); }), LOCK_AND_UNLOCK);
}

TEST(Budgets, Mutex_and_SingleLock_allocate_nothing) {
    CMutex mutex(false);
    EXPECT_EQ(Allocations([&] {
                  const CSingleLock lock(&mutex);
                  g_result = mutex.Lock(0);
              }),
              "");
}

TEST(Budgets, Event_that_is_set_costs_its_lock_and_what_wakes_the_waiters) {
    CEvent manual(true, false);
    EXPECT_EQ(CallsIn(LOCKS, [&] { manual.SetEvent(); }),
              (Texts{"pthread_mutex_lock()", "pthread_cond_broadcast()", "pthread_mutex_unlock()"}));
    EXPECT_EQ(CallsIn(LOCKS, [&] { manual.SetEvent(); }), LOCK_AND_UNLOCK) << "set already";
    EXPECT_EQ(CallsIn(LOCKS, [&] { manual.ResetEvent(); }), LOCK_AND_UNLOCK);
    CEvent automatic(false, false);
    EXPECT_EQ(CallsIn(LOCKS, [&] { automatic.SetEvent(); }),
              (Texts{"pthread_mutex_lock()", "pthread_cond_signal()", "pthread_mutex_unlock()"}));
}

TEST(Budgets, Event_that_is_set_is_waited_for_with_its_lock_alone) {
    CEvent event(true, true);
    for (unsigned long timeout : {0UL, 5000UL, static_cast<unsigned long>(INFINITE)})
        EXPECT_EQ(CallsIn(LOCKS, [&] { event.WaitForEventSignal(timeout, nullptr); }), LOCK_AND_UNLOCK);
}

TEST(Budgets, Event_allocates_nothing) {
    CEvent event(true, false);
    EXPECT_EQ(Allocations([&] {
                  event.SetEvent();
                  event.WaitForEventSignal(5000, nullptr);
                  event.ResetEvent();
                  event.WaitForEventSignal(0, nullptr);
              }),
              "");
}

TEST(Budgets, WaitForSingleObject_on_what_is_free_is_one_lock_and_no_allocation) {
    HANDLE event = CreateEvent(true, true);
    HANDLE mutex = CreateMutex(nullptr, false, nullptr, 1);
    EXPECT_EQ(CallsIn(LOCKS, [&] { WaitForSingleObject(event, INFINITE); }), LOCK_AND_UNLOCK);
    EXPECT_EQ(CallsIn(LOCKS, [&] { WaitForSingleObject(mutex, INFINITE); }), (Texts{"pthread_mutex_lock()"}));
    EXPECT_EQ(CallsIn(LOCKS, [&] { ReleaseMutex(mutex); }), (Texts{"pthread_mutex_unlock()"}));
    EXPECT_EQ(Allocations([&] {
                  WaitForSingleObject(event, INFINITE);
                  WaitForSingleObject(mutex, INFINITE);
                  ReleaseMutex(mutex);
              }),
              "");
    CloseHandle(event);
    CloseHandle(mutex);
}

TEST(Budgets, Bstr_functions_lock_once_each) {
    BSTR bstr = nullptr;
    EXPECT_EQ(CallsIn(LOCKS, [&] { bstr = SysAllocString("text"); }), LOCK_AND_UNLOCK);
    EXPECT_EQ(CallsIn(LOCKS, [&] { SysStringLen(bstr); }), LOCK_AND_UNLOCK);
    EXPECT_EQ(CallsIn(LOCKS, [&] { IsBSTR(bstr, true); }), LOCK_AND_UNLOCK);
    EXPECT_EQ(CallsIn(LOCKS, [&] { SysFreeString(bstr); }), LOCK_AND_UNLOCK);
}

TEST(Budgets, String_takes_no_lock) {
    XString s("text");
    EXPECT_EQ(CallsIn(LOCKS,
                      [&] {
                          XString copy(s);
                          copy += "more";
                          copy.Format("%d", 7);
                      }),
              Texts{});
}

// ---------------------------------------------------------------------------------------------------------
// The message queue

namespace {

unsigned int Nothing(void*) { return 0; }

// A thread that is never resumed, so that the test reads its queue.
struct Queue : CWinThread {
    Queue() : CWinThread(Nothing, nullptr) {}

    // Reads everything, as parked messages would be lost with their nodes.
    ~Queue() override {
        MSG message;
        PostMessage(1, 0, nullptr);
        while (PeekMessage(&message, 0, 0)) {
        }
    }
};

struct Reading {
    const char* name;
    int (*read)(Queue& queue, MSG* message);
    Texts calls;
};

const std::string FIONREAD_TEXT = "ioctl(FIONREAD)";

// A message that is there already.
const Reading READINGS[] = {
    {"GetMessage",
     [](Queue& queue, MSG* message) { return queue.GetMessage(message, 0, 0, 0, false); },
     {Record("read")}},
    {"GetMessage_with_a_timeout",
     [](Queue& queue, MSG* message) { return queue.GetMessage(message, 0, 0, 5000, false); },
     {FIONREAD_TEXT, Record("read")}},
    {"PeekMessage",
     [](Queue& queue, MSG* message) { return queue.PeekMessage(message, 0, 0); },
     {FIONREAD_TEXT, Record("read")}},
};

} // namespace

TEST(Budgets, PostMessage_into_a_pipe_with_room_is_one_write) {
    Queue queue;
    EXPECT_EQ(CallsIn(SYSTEM, [&] { queue.PostMessage(1, 0, nullptr); }), (Texts{Record("write")}));
    EXPECT_EQ(CallsIn(LOCKS, [&] { queue.PostMessage(2, 0, nullptr); }), LOCK_AND_UNLOCK);
    EXPECT_EQ(Allocations([&] { queue.PostMessage(3, 0, nullptr); }), "");
}

TEST(Budgets, PostThreadMessage_adds_no_more_than_the_lock_of_the_registry) {
    Queue queue;
    const unsigned long id = queue.GetThreadID();
    EXPECT_EQ(CallsIn(SYSTEM, [&] { PostThreadMessage(id, 1, 0, nullptr); }), (Texts{Record("write")}));
    EXPECT_EQ(CallsIn(LOCKS, [&] { PostThreadMessage(id, 2, 0, nullptr); }),
              (Texts{"pthread_mutex_lock()", "pthread_mutex_unlock()", "pthread_mutex_lock()",
                     "pthread_mutex_unlock()"}));
    EXPECT_EQ(Allocations([&] { PostThreadMessage(id, 3, 0, nullptr); }), "");
}

TEST(Budgets, PostMessage_that_parks_is_at_most_two_writes_and_one_node) {
    Queue queue;
    Interpose full(Call::Write);
    full.OnThisThread().Always().Fail(EAGAIN);
    EXPECT_LE(CallsIn(SYSTEM, [&] { queue.PostMessage(1, 0, nullptr); }).size(), 2U);
    EXPECT_EQ(CallsIn(SYSTEM, [&] { queue.PostMessage(2, 0, nullptr); }), (Texts{Record("write")}))
        << "behind one that is parked";
    EXPECT_EQ(Allocations([&] { queue.PostMessage(3, 0, nullptr); }), "new 1");
}

TEST(Budgets, Parked_message_moves_to_the_pipe_with_one_write) {
    Queue queue;
    {
        Interpose full(Call::Write);
        full.OnThisThread().Always().Fail(EAGAIN);
        for (unsigned int number : {1, 2, 3})
            queue.PostMessage(number, 0, nullptr);
    }
    queue.PostMessage(4, 0, nullptr);
    MSG message;
    EXPECT_EQ(CallsIn(SYSTEM, [&] { queue.PeekMessage(&message, 0, 0); }),
              (Texts{FIONREAD_TEXT, Record("read"), Record("write"), Record("write"), Record("write")}));
}

TEST(Budgets, Message_that_is_there_is_read_with_one_read) {
    for (const Reading& reading : READINGS) {
        SCOPED_TRACE(reading.name);
        Queue queue;
        for (unsigned int number : {1, 2})
            queue.PostMessage(number, 0, nullptr);
        MSG message;
        EXPECT_EQ(CallsIn(SYSTEM, [&] { reading.read(queue, &message); }), reading.calls);
        EXPECT_EQ(Allocations([&] { reading.read(queue, &message); }), "");
        EXPECT_EQ(message.message, 2U);
    }
}

TEST(Budgets, Message_that_is_waited_for_costs_one_select_more) {
    Queue queue;
    Interpose arrives(Call::Select);
    arrives.OnThisThread().Before([&] { queue.PostMessage(1, 0, nullptr); });
    MSG message;
    EXPECT_EQ(CallsIn(SYSTEM, [&] { queue.GetMessage(&message, 0, 0, 5000, false); }),
              (Texts{FIONREAD_TEXT, "select(5.000000)", Record("read")}));
}

TEST(Budgets, Empty_queue_is_peeked_into_with_one_call_and_no_allocation) {
    Queue queue;
    MSG message;
    EXPECT_EQ(CallsIn(SYSTEM, [&] { queue.PeekMessage(&message, 0, 0); }), (Texts{FIONREAD_TEXT}));
    EXPECT_EQ(Allocations([&] { queue.PeekMessage(&message, 0, 0); }), "");
}

TEST(Budgets, Wait_that_runs_out_is_one_select_and_no_allocation) {
    Queue queue;
    MSG message;
    EXPECT_EQ(CallsIn(SYSTEM, [&] { queue.GetMessage(&message, 0, 0, 1, false); }),
              (Texts{FIONREAD_TEXT, "select(0.001000)"}));
    EXPECT_EQ(Allocations([&] { queue.GetMessage(&message, 0, 0, 1, false); }), "");
}

// ---------------------------------------------------------------------------------------------------------
// Sockets

namespace {

struct SocketAndPeer {
    SocketAndPeer() { socket.m_fd = pair.Release(); }
    ~SocketAndPeer() { SysFreeString(text); }

    void Arrive(const std::string& payload) {
        ASSERT_TRUE(pair.peer.Send(Frame(payload)));
        ASSERT_TRUE(WaitForBytes(socket.m_fd, payload.size() + 4));
    }

    void Send(const std::string& payload) { socket.Send(const_cast<char*>(payload.c_str())); }

    void SendBlock(const std::string& payload) {
        socket.SendBlock(reinterpret_cast<unsigned char*>(const_cast<char*>(payload.data())), payload.size());
    }

    ConnectedPair pair;
    CSocket socket;
    BSTR text = nullptr;
};

std::string SendOf(size_t bytes) { return Text("send(%zu, MSG_NOSIGNAL)", bytes); }

const char NONBLOCKING[] = "fcntl(F_SETFL, O_RDWR|O_NONBLOCK)";
const char BLOCKING[] = "fcntl(F_SETFL, O_RDWR)";
const char FLAGS[] = "fcntl(F_GETFL)";
const char QUICKACK[] = "setsockopt(6, 12, 1)";
const char PEEK[] = "recv(1, MSG_PEEK|MSG_DONTWAIT)";

// A blocking socket polls for the prefix and then waits for the payload.
Texts FrameOf(size_t bytes) {
    return {FLAGS,     NONBLOCKING, QUICKACK, PEEK,     QUICKACK,
            "recv(4)", FLAGS,       BLOCKING, QUICKACK, Text("recv(%zu)", bytes)};
}

// The two functions that send, which cost the same.
const std::pair<const char*, void (SocketAndPeer::*)(const std::string&)> SENDS[] = {
    {"Send", &SocketAndPeer::Send}, {"SendBlock", &SocketAndPeer::SendBlock}};

} // namespace

TEST(Budgets, Frame_up_to_the_size_of_the_buffer_is_sent_with_one_call_and_no_allocation) {
    for (const auto& [name, send] : SENDS)
        for (size_t size : {size_t(1), INLINE_LIMIT}) {
            SCOPED_TRACE(testing::Message() << name << " of " << size);
            SocketAndPeer pair;
            const std::string payload(size, 'x');
            EXPECT_EQ(CallsIn(SYSTEM, [&, send = send] { (pair.*send)(payload); }),
                      (Texts{SendOf(size + 4)}));
            EXPECT_EQ(pair.pair.peer.ReadFrame(), payload);
            EXPECT_EQ(Allocations([&, send = send] { (pair.*send)(payload); }), "");
        }
}

TEST(Budgets, Longer_frame_is_sent_with_one_call_and_one_block) {
    for (const auto& [name, send] : SENDS) {
        SCOPED_TRACE(name);
        SocketAndPeer pair;
        const std::string payload(INLINE_LIMIT + 1, 'x');
        EXPECT_EQ(CallsIn(SYSTEM, [&, send = send] { (pair.*send)(payload); }),
                  (Texts{SendOf(INLINE_LIMIT + 5)}));
        EXPECT_EQ(pair.pair.peer.ReadFrame(), payload);
        EXPECT_EQ(Allocations([&, send = send] { (pair.*send)(payload); }), "malloc 1 free 1");
    }
}

TEST(Budgets, Memory_file_of_any_size_is_sent_with_one_call_and_no_allocation) {
    for (size_t size : {size_t(1), INLINE_LIMIT + 1}) {
        SCOPED_TRACE(size);
        SocketAndPeer pair;
        CMemFile file;
        const std::string frame = Frame(std::string(size, 'x'));
        file.Write(frame.data(), static_cast<unsigned int>(frame.size()));
        EXPECT_EQ(CallsIn(SYSTEM, [&] { pair.socket.SendMemFileWithLengthPrefix(file); }),
                  (Texts{SendOf(size + 4)}));
        EXPECT_EQ(pair.pair.peer.ReadFrame().size(), size);
        EXPECT_EQ(Allocations([&] { pair.socket.SendMemFileWithLengthPrefix(file); }), "");
    }
}

TEST(Budgets, Text_frame_is_received_with_the_calls_of_its_path) {
    SocketAndPeer pair;
    pair.Arrive("hello");
    EXPECT_EQ(CallsIn(SYSTEM, [&] { pair.socket.Receive(pair.text); }), FrameOf(5));
    EXPECT_STREQ(pair.text, "hello");
}

TEST(Budgets, Text_frame_costs_a_buffer_and_a_bstr) {
    if (!Interpose::MallocAvailable())
        GTEST_SKIP() << Interpose::MallocReason();
    SocketAndPeer pair;
    pair.Arrive("hello");
    EXPECT_EQ(Allocations([&] { pair.socket.Receive(pair.text); }), "malloc 1 new[] 1 delete[] 1");
    pair.Arrive("hello"); // and the old text is freed
    EXPECT_EQ(Allocations([&] { pair.socket.Receive(pair.text); }), "malloc 1 free 1 new[] 1 delete[] 1");
}

TEST(Budgets, Binary_frame_costs_the_same_calls_and_one_block) {
    SocketAndPeer pair;
    ReceivedDataBlock block;
    pair.Arrive("hello");
    EXPECT_EQ(CallsIn(SYSTEM, [&] { pair.socket.ReceiveBlock(block); }), FrameOf(5));
    pair.Arrive("hello!");
    EXPECT_EQ(Allocations([&] { pair.socket.ReceiveBlock(block); }), "new[] 1 delete[] 1"); // and the old one
    delete[] block.m_pData;
}

TEST(Budgets, Socket_without_data_is_asked_with_one_recv_and_no_allocation) {
    SocketAndPeer pair;
    const Texts calls = {FLAGS, NONBLOCKING, QUICKACK, PEEK, FLAGS, BLOCKING};
    EXPECT_EQ(CallsIn(SYSTEM, [&] { pair.socket.IsDataAvailable(); }), calls);
    EXPECT_EQ(CallsIn(SYSTEM, [&] { pair.socket.Receive(pair.text, false); }), calls);
    EXPECT_EQ(Allocations([&] { pair.socket.Receive(pair.text, false); }), "");
}

TEST(Budgets, Frame_that_is_waited_for_costs_one_select_and_one_look_more) {
    SocketAndPeer pair;
    Interpose arrives(Call::Select);
    arrives.OnThisThread().Before([&] { pair.Arrive("hello"); });
    Texts calls = FrameOf(5);
    calls.insert(calls.begin() + 4, {QUICKACK, PEEK, "select(NULL)"});
    EXPECT_EQ(CallsIn(SYSTEM, [&] { pair.socket.Receive(pair.text); }), calls);
}

// ---------------------------------------------------------------------------------------------------------
// The loops of server and client

namespace {

// Lets a loop come round: the first selects of its thread time out at once.
class IdlePasses {
public:
    IdlePasses(pthread_t thread, size_t count) : m_select(Call::Select) {
        m_select.OnThread(thread)
            .When([this, count](const CallRecord&) { return m_seen++ < count; })
            .Always()
            .Return(0);
    }

private:
    std::atomic<size_t> m_seen{0};
    Interpose m_select;
};

// The calls of count passes.
Texts Passes(const Texts& pass, size_t count) {
    Texts texts;
    for (size_t i = 0; i < count; ++i)
        texts.insert(texts.end(), pass.begin(), pass.end());
    return texts;
}

Texts FirstOf(size_t count, Texts texts) {
    texts.resize(std::min(count, texts.size()));
    return texts;
}

// Resumes a client that finds nothing to do: the calls and allocations of its first passes.
void ExpectIdlePass(CClient& client, const Texts& pass) {
    const size_t count = 3;
    std::vector<Call> watched = SYSTEM;
    watched.insert(watched.end(), ALLOCATIONS.begin(), ALLOCATIONS.end());
    const CallLog log(watched, CallLog::AllThreads);
    const IdlePasses idle(client.m_nThreadID, count);
    client.ResumeThread();
    const std::string timedOut = "Select Timed Out..checking pipe and socket for activity)";
    EXPECT_TRUE(Recorder::WaitFor(
        [&](const Event& event) { return event.text.find(timedOut) != std::string::npos; }, count));
    Texts calls = CallsOf(client.m_nThreadID, log);
    // Not what a sanitizer has libc do when a thread begins.
    calls.erase(calls.begin(), std::find(calls.begin(), calls.end(), pass.front()));
    EXPECT_EQ(FirstOf(pass.size() * count, calls), Passes(pass, count));
}

} // namespace

TEST(Budgets, Server_that_waits_calls_select_once_and_nothing_else) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    SelectWatch watch;
    Hold(*server, target).Release();
    EXPECT_TRUE(watch.WaitAsleep());
    const CallLog calls(SYSTEM, CallLog::AllThreads);
    Hold hold(*server, target);
    EXPECT_EQ(CallsOf(server->m_nThreadID, calls), (Texts{Record("read")})) << "woken by the message alone";
}

TEST(Budgets, Server_passes_on_a_message_with_select_and_read) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Hold before(*server, target);
    PostThreadMessage(server->m_nThreadID, 7, 0, nullptr);
    PostThreadMessage(server->m_nThreadID, 8, 0, nullptr);
    const CallLog calls(SYSTEM, CallLog::AllThreads);
    const CallLog allocations(ALLOCATIONS, CallLog::AllThreads);
    before.Release();
    Hold after(*server, target);
    EXPECT_EQ(CallsOf(server->m_nThreadID, calls), Passes({"select(NULL)", Record("read")}, 3));
    EXPECT_EQ(CallsOf(server->m_nThreadID, allocations), Texts{});
    EXPECT_EQ(target.Seen(), (Calls{"message 7", "message 8"}));
}

TEST(Budgets, Server_that_is_idle_makes_one_call_for_each_pass_and_allocates_nothing) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Hold before(*server, target);
    const CallLog calls(SYSTEM, CallLog::AllThreads);
    const CallLog allocations(ALLOCATIONS, CallLog::AllThreads);
    const IdlePasses idle(server->m_nThreadID, 3);
    before.Release();
    EXPECT_TRUE(Recorder::WaitFor({11, 6, "CServer::Main() : Nothing ready. "}, 3));
    EXPECT_EQ(FirstOf(3, CallsOf(server->m_nThreadID, calls)), Passes({"select(NULL)"}, 3));
    EXPECT_EQ(CallsOf(server->m_nThreadID, allocations), Texts{});
}

TEST(Budgets, Server_reports_data_of_a_client_with_one_select) {
    RecordingTarget target;
    target.onActivity = [](int) { return false; };
    ServerPtr server(new CServer(0, target));
    const Connection peer = ConnectTo(PortOf(*server));
    const int fd = target.WaitForConnection(0);
    Hold before(*server, target);
    ASSERT_TRUE(const_cast<Connection&>(peer).Send("x"));
    ASSERT_TRUE(WaitForBytes(fd, 1));
    const CallLog calls(SYSTEM, CallLog::AllThreads);
    before.Release();
    ASSERT_TRUE(target.WaitForCall(Text("activity %d", fd)));
    EXPECT_EQ(FirstOf(1, CallsOf(server->m_nThreadID, calls)), (Texts{"select(NULL)"}));
}

TEST(Budgets, Idle_client_without_a_connection_looks_into_its_queue_and_selects) {
    RecordingTarget target;
    ClientPtr client(new CClient(target));
    ExpectIdlePass(*client, {FIONREAD_TEXT, "select(1.000000)"});
}

TEST(Budgets, Idle_client_looks_at_its_connection_and_its_queue_and_selects) {
    RecordingTarget target;
    ListenSocket listener;
    // As a connecting constructor would leave it, but for the thread, which the test resumes.
    ClientPtr client(new CClient(target));
    ASSERT_TRUE(client->m_clientSocket.Connect("127.0.0.1", listener.Port()));
    client.get()->*ClientFields::Connected() = true;
    ExpectIdlePass(*client,
                   {FLAGS, NONBLOCKING, QUICKACK, PEEK, FLAGS, BLOCKING, FIONREAD_TEXT, "select(1.000000)"});
}
