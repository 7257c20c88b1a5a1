// The n-th allocation fails, once or from then on, for every place in which the library allocates.
//
// A scenario is run with n = 1, 2, ... until no allocation is left that could fail. Each time comes out what
// callers are told of, nothing stays behind, and what there was before can be used again.
//
// Two allocations are not failed anywhere, as by contract nobody looks at them and the next write faults:
// those of XStringData::Reallocate (the library's only realloc besides CMemFile's), and those of CMemFile.
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/Windows.h>

#include "NetworkFixtures.h"
#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"
#include "support/resources.h"

namespace {

enum Mode { Once, FromThenOn };

typedef std::function<bool(const CallRecord&)> Spared;

// Has a thread's n-th allocation fail, or all from the n-th on. Spared ones do not count.
class Shortage {
public:
    Shortage(int n, Mode mode, pthread_t thread, const Spared& spared) {
        const Bypass bypass; // of what is made here and released by the scripts
        for (Interpose& script : m_scripts)
            script.OnThread(thread)
                .When([this, n, mode, spared](const CallRecord& record) {
                    if (!m_begun || (spared && spared(record)))
                        return false;
                    const int count = ++m_count;
                    if (mode == Once ? count != n : count < n)
                        return false;
                    if (!m_happened.exchange(true))
                        m_first = record.call;
                    return true;
                })
                .Always()
                .Fail(ENOMEM);
        m_begun = true;
    }

    void Stop() { m_begun = false; }

    bool Happened() const { return m_happened; }

    // The call that failed first.
    Call First() const { return m_first; }

private:
    std::atomic<bool> m_begun{false};
    std::atomic<bool> m_happened{false};
    std::atomic<int> m_count{0};
    std::atomic<Call> m_first{Call::Malloc};
    // Not realloc: see above.
    Interpose m_scripts[4] = {Interpose(Call::Malloc), Interpose(Call::Calloc), Interpose(Call::New),
                              Interpose(Call::ArrayNew)};
};

// One run of a scenario, on objects of its own.
struct Trial {
    Trial(std::function<const char*()> operation) : run(std::move(operation)) {}

    // Performs the operation; what it returned: "done" for success. Called with memory too, after a failure.
    std::function<const char*()> run;

    // Looks at the objects after a failure; after success.
    std::function<void(const std::string& outcome)> afterFailure = [](const std::string&) {};
    std::function<void()> afterSuccess = [] {};

    // The thread that is short of memory.
    pthread_t thread = pthread_self();
};

struct Scenario {
    const char* name;
    int allocations; // that can fail, at least; exactly that many without threads
    // What comes out where malloc or new fails; alternatives are separated by '|'.
    const char* withoutMalloc;
    const char* withoutNew;
    std::function<Trial()> prepare;
    Spared spared = nullptr;
    bool threads = false;         // blocks change hands between threads
    bool highDescriptors = false; // needs some above 1023
};

std::ostream& operator<<(std::ostream& stream, const Scenario& scenario) { return stream << scenario.name; }

// With nothing of the support's counted, which hands out what is released here.
bool HasPosted(int type, int severity, const char* text) {
    const Bypass bypass;
    return Recorder::Has(type, severity, Like(std::string("*") + text));
}

const char* Outcome(const std::function<const char*()>& run) {
    try {
        return run();
    } catch (CMemoryException* e) {
        return e == &g_oMemoryException ? "memory exception" : "a memory exception of its own";
    } catch (CLogException* e) {
        delete e;
        return "error object";
    } catch (const std::bad_alloc&) {
        return "bad_alloc";
    }
}

bool IsOneOf(const std::string& alternatives, const std::string& text) {
    return ("|" + alternatives + "|").find("|" + text + "|") != std::string::npos;
}

// Blocks made and not released: of this thread, or those from new of all threads, where libc keeps some of
// its own for the next thread.
class Blocks {
public:
    explicit Blocks(bool threads) {
        const Bypass bypass;
        if (threads)
            m_log = std::make_unique<CallLog>(
                std::vector<Call>{Call::New, Call::ArrayNew, Call::Delete, Call::ArrayDelete},
                CallLog::AllThreads);
        m_counter = AllocationCounter();
    }

    int Balance() const {
        if (!m_log)
            return m_counter.Balance();
        const Bypass bypass;
        int balance = 0;
        for (const CallRecord& record : m_log->Records()) {
            if (record.call == Call::New || record.call == Call::ArrayNew)
                balance += record.result != 0;
            else
                --balance;
        }
        return balance;
    }

private:
    std::unique_ptr<CallLog> m_log;
    AllocationCounter m_counter;
};

// What there is of everything that a scenario could leave behind.
struct Inventory {
    std::map<int, std::string> descriptors = Resources::Descriptors();
    size_t threads = Resources::Threads().size();
    size_t registered = RegisteredThreads();
    int strings = XString::m_iObjCount;
    int headers = XStringData::m_iObjCount;

    void Check() const {
        EXPECT_EQ(Resources::Descriptors(), descriptors);
        EXPECT_EQ(RegisteredThreads(), registered);
        EXPECT_EQ(XString::m_iObjCount, strings);
        EXPECT_EQ(XStringData::m_iObjCount, headers);
    }

    // Threads that were let go take a moment.
    void AwaitThreads() const {
        const Bypass bypass;
        const Deadline deadline = Deadline::Long();
        while (Resources::Threads().size() > threads && !deadline.Passed())
            sched_yield();
    }
};

// Runs the scenario with memory, for what it allocates but once.
void WarmUp(const Scenario& scenario) {
    const Inventory inventory;
    {
        const Trial trial = scenario.prepare();
        trial.run();
        trial.afterSuccess();
    }
    inventory.AwaitThreads();
}

// Runs the scenario without its n-th allocation. False if it needed fewer.
bool Fails(const Scenario& scenario, int n, Mode mode) {
    const Inventory inventory;
    const Blocks blocks(scenario.threads);
    bool happened = false;
    {
        Recorder::Clear();
        const Trial trial = scenario.prepare();
        Call first = Call::Malloc;
        const char* outcome = nullptr;
        {
            Shortage shortage(n, mode, trial.thread, scenario.spared);
            outcome = Outcome(trial.run);
            shortage.Stop();
            happened = shortage.Happened();
            first = shortage.First();
        }
        if (happened) {
            const bool byNew = first == Call::New || first == Call::ArrayNew;
            const char* allowed = byNew ? scenario.withoutNew : scenario.withoutMalloc;
            EXPECT_TRUE(IsOneOf(allowed ? allowed : "nothing is to be allocated so", outcome)) << outcome;
            trial.afterFailure(outcome);
            outcome = Outcome(trial.run);
        }
        EXPECT_STREQ(outcome, "done");
        trial.afterSuccess();
    }
    if (scenario.threads)
        inventory.AwaitThreads();
    EXPECT_EQ(blocks.Balance(), 0) << "blocks left behind";
    inventory.Check();
    return happened;
}

// ---------------------------------------------------------------------------------------------------------
// Strings

// Makes a string and compares it with what it should be.
Scenario Making(const char* name, int allocations, const std::function<XString()>& make, const char* text) {
    return {name, allocations, "memory exception", "bad_alloc", [make, text] {
                return Trial([make, text] { return make() == text ? "done" : "another text"; });
            }};
}

struct Strings {
    explicit Strings(const char* text) : own(text), other("other") {}
    XString own;
    XString other; // shares the header of the first where the scenario says so
};

enum Sharing { Unshared, Shared };

// Edits a string that holds "abcde". Without memory it is as it was, but for an assignment that has got so
// far as to have freed the old text.
Scenario Editing(const char* name, int allocations, Sharing sharing,
                 const std::function<void(XString&)>& edit, const char* result,
                 const char* withoutBuffer = "abcde") {
    return {name, allocations, "memory exception", "bad_alloc", [sharing, edit, result, withoutBuffer] {
                const auto strings = std::make_shared<Strings>("abcde");
                if (sharing == Shared)
                    strings->other = strings->own;
                const XStringData* header = strings->own.m_pStrData;
                Trial trial([strings, edit] {
                    edit(strings->own);
                    return "done";
                });
                trial.afterFailure = [strings, sharing, header, withoutBuffer](const std::string& outcome) {
                    EXPECT_EQ(strings->other, sharing == Shared ? "abcde" : "other");
                    const bool noBuffer = outcome == "memory exception";
                    EXPECT_EQ(strings->own, noBuffer ? withoutBuffer : "abcde");
                    EXPECT_FALSE(strings->own.m_pStrData->m_bLocked && !noBuffer);
                    strings->own.UnlockBuffer();
                    if (!noBuffer || *withoutBuffer) {
                        EXPECT_EQ(strings->own.m_pStrData, header);
                        EXPECT_EQ(strings->own.GetLength(), 5);
                    }
                };
                trial.afterSuccess = [strings, sharing, result] {
                    EXPECT_STREQ(strings->own, result);
                    EXPECT_EQ(strings->other, sharing == Shared ? "abcde" : "other");
                    strings->own.UnlockBuffer();
                };
                return trial;
            }};
}

void FormatV(XString& s, const char* format, ...) {
    va_list args;
    va_start(args, format);
    try {
        s.FormatV(format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
}

const XString& Source() {
    static const XString source("abc");
    return source;
}

const Scenario STRINGS[] = {
    Making(
        "XString", 1, [] { return XString(); }, ""),
    Making(
        "XString_of_a_text", 2, [] { return XString("abc"); }, "abc"),
    Making(
        "XString_of_an_empty_text", 1, [] { return XString(""); }, ""),
    Making(
        "XString_of_bytes", 2, [] { return XString("abcde", 3); }, "abc"),
    Making(
        "XString_of_a_character", 2, [] { return XString('x', 3); }, "xxx"),
    Making(
        "XString_of_a_string", 0, [] { return XString(Source()); }, "abc"),
    Making(
        "XString_of_a_bstr_t", 2,
        [] {
            static _bstr_t source("abc");
            return static_cast<XString>(source);
        },
        "abc"),
    Making(
        "String_plus_string", 2, [] { return Source() + Source(); }, "abcabc"),
    Making(
        "String_plus_text", 2, [] { return Source() + "de"; }, "abcde"),
    Making(
        "Text_plus_string", 2, [] { return "de" + Source(); }, "deabc"),
    Making(
        "String_plus_character", 2, [] { return Source() + 'x'; }, "abcx"),
    Making(
        "Character_plus_string", 2, [] { return 'x' + Source(); }, "xabc"),
    Making(
        "Mid_to_the_end", 2, [] { return Source().Mid(1); }, "bc"),
    Making(
        "Mid_behind_the_end", 2, [] { return Source().Mid(7); }, ""),
    Making(
        "Mid_with_a_count", 2, [] { return Source().Mid(1, 1); }, "b"),
    Making(
        "Mid_of_nothing", 1, [] { return Source().Mid(1, 0); }, ""),
    Making(
        "Left", 2, [] { return Source().Left(2); }, "ab"),
    Making(
        "Right", 2, [] { return Source().Right(2); }, "bc"),
    Making(
        "Right_of_nothing", 1, [] { return Source().Right(0); }, ""),
    Making(
        "SpanIncluding", 2, [] { return Source().SpanIncluding("ab"); }, "ab"),
    Making(
        "SpanIncluding_nothing", 2, [] { return Source().SpanIncluding("x"); }, ""),
    Making(
        "SpanExcluding", 2, [] { return Source().SpanExcluding("c"); }, "ab"),

    // An assignment frees the old text first.
    Editing(
        "Assign_text", 1, Unshared, [](XString& s) { s = "de"; }, "de", ""),
    Editing(
        "Assign_text_to_a_shared_string", 2, Shared, [](XString& s) { s = "de"; }, "de", ""),
    Editing(
        "Assign_character", 1, Unshared, [](XString& s) { s = 'd'; }, "d", ""),
    Editing(
        "Assign_character_to_a_shared_string", 2, Shared, [](XString& s) { s = 'd'; }, "d", ""),
    Editing(
        "Assign_string", 0, Shared, [](XString& s) { s = Source(); }, "abc"),
    Editing(
        "Empty", 1, Shared, [](XString& s) { s.Empty(); }, nullptr),
    Editing(
        "Append_text", 2, Unshared, [](XString& s) { s += "fg"; }, "abcdefg"),
    Editing(
        "Append_text_to_a_shared_string", 2, Shared, [](XString& s) { s += "fg"; }, "abcdefg"),
    Editing(
        "Append_itself", 2, Unshared, [](XString& s) { s += s; }, "abcdeabcde"),
    Editing(
        "Append_itself_to_a_shared_string", 2, Shared, [](XString& s) { s += s; }, "abcdeabcde"),

    // Those that give a shared string a copy of its own.
    Editing(
        "CopyBeforeWrite", 2, Shared, [](XString& s) { s.CopyBeforeWrite(); }, "abcde"),
    Editing(
        "MakeUpper", 2, Shared, [](XString& s) { s.MakeUpper(); }, "ABCDE"),
    Editing(
        "MakeLower", 2, Shared, [](XString& s) { s.MakeLower(); }, "abcde"),
    Editing(
        "MakeReverse", 2, Shared, [](XString& s) { s.MakeReverse(); }, "edcba"),
    Editing(
        "Replace_character", 2, Shared, [](XString& s) { s.Replace('b', 'x'); }, "axcde"),
    Editing(
        "Remove", 2, Shared, [](XString& s) { s.Remove('b'); }, "acde"),
    Editing(
        "Delete", 2, Shared, [](XString& s) { s.Delete(1, 2); }, "ade"),
    Editing(
        "SetAt", 2, Shared, [](XString& s) { s.SetAt(1, 'x'); }, "axcde"),
    Editing(
        "TrimLeft_character", 2, Shared, [](XString& s) { s.TrimLeft('a'); }, "bcde"),
    Editing(
        "TrimLeft_set", 2, Shared, [](XString& s) { s.TrimLeft("ab"); }, "cde"),
    Editing(
        "TrimRight_character", 2, Shared, [](XString& s) { s.TrimRight('e'); }, "abcd"),
    Editing(
        "TrimRight_set", 2, Shared, [](XString& s) { s.TrimRight("de"); }, "abc"),
    Editing(
        "GetBuffer", 2, Shared, [](XString& s) { s.GetBuffer(); }, "abcde"),
    Editing(
        "GetBuffer_with_more_room", 2, Shared, [](XString& s) { s.GetBuffer(20); }, "abcde"),
    Editing(
        "GetBufferSetLength", 2, Shared, [](XString& s) { memcpy(s.GetBufferSetLength(7), "abcdefg", 7); },
        "abcdefg"),
    Editing(
        "LockBuffer", 2, Shared, [](XString& s) { s.LockBuffer(); }, "abcde"),
    Editing(
        "Format_in_the_room_there_is", 2, Shared, [](XString& s) { s.Format("x%cy", 'z'); }, "xzy"),
    Editing(
        "FormatV_in_the_room_there_is", 2, Shared, [](XString& s) { FormatV(s, "x%cy", 'z'); }, "xzy"),
    Editing(
        "Format_nothing", 2, Shared, [](XString& s) { FormatV(s, nullptr); }, ""),

    // Those that build a new text.
    Editing(
        "Resize", 2, Shared, [](XString& s) { s.Resize(20); }, "abcde"),
    Editing(
        "Format", 2, Shared, [](XString& s) { s.Format("%d%s", 7, "more"); }, "7more"),
    Editing(
        "FormatV", 2, Shared, [](XString& s) { FormatV(s, "%d%s", 7, "more"); }, "7more"),
    Editing(
        "Replace_text", 2, Unshared, [](XString& s) { s.Replace("b", "xx"); }, "axxcde"),
    Editing(
        "Replace_text_in_a_shared_string", 2, Shared, [](XString& s) { s.Replace("bc", ""); }, "ade"),
    Editing(
        "Insert_character", 2, Unshared, [](XString& s) { s.Insert(1, 'x'); }, "axbcde"),
    Editing(
        "Insert_character_in_a_shared_string", 2, Shared, [](XString& s) { s.Insert(1, 'x'); }, "axbcde"),
    Editing(
        "Insert_text", 2, Unshared, [](XString& s) { s.Insert(9, "xyz"); }, "abcdexyz"),
    Editing(
        "Insert_text_in_a_shared_string", 2, Shared, [](XString& s) { s.Insert(0, "xyz"); }, "xyzabcde"),
    Editing(
        "Insert_text_behind_the_end_with_room", 2, Unshared,
        [](XString& s) {
            s.Resize(30); // by realloc, and only the first time
            s.Insert(5, "xyz");
        },
        "abcdexyz"),

    // The old text is gone by then, and the header says neither.
    {"XStringData_Allocate", 1, "memory exception", nullptr,
     [] {
         const auto s = std::make_shared<XString>("abc");
         Trial trial([s] { return s->m_pStrData->Allocate(20) ? "done" : "false"; });
         trial.afterFailure = [s](const std::string&) {
             EXPECT_EQ(s->m_pStrData->m_pszData, nullptr);
             EXPECT_EQ(s->m_pStrData->m_uiBuffSize, 4U);
             EXPECT_EQ(s->GetLength(), 3);
         };
         trial.afterSuccess = [s] { EXPECT_EQ(s->m_pStrData->m_uiBuffSize, 20U); };
         return trial;
     }},
    {"ConcatCopy", 1, "memory exception", nullptr,
     [] {
         const auto s = std::make_shared<XString>();
         Trial trial([s] {
             s->ConcatCopy(2, "ab", 1, "c");
             return "done";
         });
         trial.afterFailure = [s](const std::string&) {
             EXPECT_EQ(s->GetLength(), 0);
             EXPECT_EQ(s->m_pStrData->m_pszData, nullptr);
         };
         trial.afterSuccess = [s] { EXPECT_STREQ(*s, "abc"); };
         return trial;
     }},
};

// ---------------------------------------------------------------------------------------------------------
// Containers

CObject* Object(unsigned long number) { return reinterpret_cast<CObject*>(number); }

std::string Contents(const CObList& list) {
    std::string forward, backward;
    for (POSITION at = list.GetHeadPosition(); at;)
        forward += std::to_string(reinterpret_cast<unsigned long>(list.GetNext(at)));
    for (POSITION at = list.GetTailPosition(); at;)
        backward.insert(0, std::to_string(reinterpret_cast<unsigned long>(list.GetPrev(at))));
    EXPECT_EQ(forward, backward);
    EXPECT_EQ(static_cast<int>(forward.size()), list.GetCount());
    return forward;
}

// Adds something to a list of 1 and 2. A list of several elements is added as far as memory goes.
Scenario Adding(const char* name, int allocations, const std::function<void(CObList&)>& add,
                const char* result) {
    return {name, allocations, nullptr, "bad_alloc", [add, result, allocations] {
                const auto list = std::make_shared<CObList>();
                list->AddTail(Object(1));
                list->AddTail(Object(2));
                Trial trial([list, add] {
                    add(*list);
                    return "done";
                });
                trial.afterFailure = [list, allocations](const std::string&) {
                    const std::string contents = Contents(*list);
                    EXPECT_NE(contents.find("12"), std::string::npos);
                    EXPECT_LT(list->GetCount(), 2 + allocations);
                    while (list->GetTail() != Object(2))
                        list->RemoveTail();
                    while (list->GetHead() != Object(1))
                        list->RemoveHead();
                };
                trial.afterSuccess = [list, result] { EXPECT_EQ(Contents(*list), result); };
                return trial;
            }};
}

CObList& OfThree() {
    static CObList three;
    if (three.GetCount() == 0)
        for (unsigned long number : {3, 4, 5})
            three.AddTail(Object(number));
    return three;
}

// Grows an array of the first count numbers.
Scenario Growing(const char* name, int count, const std::function<void(CPtrArray&)>& grow, int newSize) {
    return {name, 1, nullptr, "bad_alloc", [count, grow, newSize] {
                const auto array = std::make_shared<CPtrArray>();
                for (int i = 0; i < count; ++i)
                    array->Add(Object(static_cast<unsigned long>(i)));
                const auto check = [array, count](int size) {
                    EXPECT_EQ(array->GetSize(), size);
                    for (int i = 0; i < count; ++i)
                        EXPECT_EQ(array->GetAt(i), Object(static_cast<unsigned long>(i)));
                };
                Trial trial([array, grow] {
                    grow(*array);
                    return "done";
                });
                trial.afterFailure = [check, count](const std::string&) { check(count); };
                trial.afterSuccess = [check, newSize] { check(newSize); };
                return trial;
            }};
}

// Grows an array of count texts that makes room in steps of 2.
Scenario GrowingTexts(const char* name, int allocations, int count,
                      const std::function<void(CStringArray&)>& grow, int newSize) {
    return {name, allocations, nullptr, "bad_alloc", [count, grow, newSize] {
                const auto array = std::make_shared<CStringArray>();
                array->SetSize(count, 2);
                for (int i = 0; i < count; ++i)
                    array->SetAt(i, Source());
                const auto check = [array, count](int size) {
                    EXPECT_EQ(array->GetSize(), size);
                    for (int i = 0; i < count; ++i)
                        EXPECT_EQ(array->GetAt(i).m_pStrData, Source().m_pStrData);
                };
                Trial trial([array, grow] {
                    grow(*array);
                    return "done";
                });
                trial.afterFailure = [check, count](const std::string&) { check(count); };
                trial.afterSuccess = [check, newSize] { check(newSize); };
                return trial;
            }};
}

const Scenario CONTAINERS[] = {
    Adding(
        "ObList_AddHead", 1, [](CObList& list) { list.AddHead(Object(3)); }, "312"),
    Adding(
        "ObList_AddTail", 1, [](CObList& list) { list.AddTail(Object(3)); }, "123"),
    Adding(
        "ObList_InsertBefore", 1, [](CObList& list) { list.InsertBefore(list.GetHeadPosition(), Object(3)); },
        "312"),
    Adding(
        "ObList_InsertAfter", 1, [](CObList& list) { list.InsertAfter(list.GetTailPosition(), Object(3)); },
        "123"),
    Adding(
        "ObList_AddHead_of_a_list", 3, [](CObList& list) { list.AddHead(&OfThree()); }, "34512"),
    Adding(
        "ObList_AddTail_of_a_list", 3, [](CObList& list) { list.AddTail(&OfThree()); }, "12345"),

    Growing(
        "PtrArray_first_Add", 0, [](CPtrArray& array) { array.Add(Object(0)); }, 1),
    Growing(
        "PtrArray_Add_without_room", 16, [](CPtrArray& array) { array.Add(Object(16)); }, 17),
    Growing(
        "PtrArray_SetSize", 3, [](CPtrArray& array) { array.SetSize(40, 16); }, 3),

    // The array and one header for each element.
    GrowingTexts(
        "StringArray_first_SetSize", 4, 0, [](CStringArray& array) { array.SetSize(3, -1); }, 3),
    GrowingTexts(
        "StringArray_first_Add", 2, 0, [](CStringArray& array) { array.Add(Source()); }, 1),
    GrowingTexts(
        "StringArray_Add_without_room", 5, 2, [](CStringArray& array) { array.Add(Source()); }, 3),
    GrowingTexts(
        "StringArray_SetAtGrow", 9, 2, [](CStringArray& array) { array.SetAtGrow(7, Source()); }, 8),
    GrowingTexts(
        "StringArray_SetSize", 7, 2, [](CStringArray& array) { array.SetSize(6, -1); }, 6),
    {"StringArray_SetSize_within_room", 1, nullptr, "bad_alloc",
     [] {
         const auto array = std::make_shared<CStringArray>();
         array->SetSize(4, -1);
         array->SetSize(2, -1);
         Trial trial([array] {
             array->SetSize(3, -1);
             return "done";
         });
         trial.afterFailure = [array](const std::string&) { EXPECT_EQ(array->GetSize(), 2); };
         trial.afterSuccess = [array] { EXPECT_EQ(array->GetSize(), 3); };
         return trial;
     }},
};

// ---------------------------------------------------------------------------------------------------------
// Handles and threads

Scenario Creating(const char* name, int allocations, HANDLE (*create)()) {
    return {name, allocations, nullptr, "bad_alloc", [create] {
                return Trial([create] {
                    HANDLE handle = create();
                    return CloseHandle(handle) == 1 && !handle ? "done" : "not closed";
                });
            }};
}

unsigned int Nothing(void*) { return 0; }

// libc allocates for a new thread too, with calloc; then there is no thread to be had.
const char NO_THREAD[] = "error object|bad_alloc";

// Makes a thread that is never resumed, and destroys it.
Scenario MakingThread(const char* name, CWinThread* (*make)(), const char* withoutNew) {
    return {name,
            5,
            NO_THREAD,
            withoutNew,
            [make] {
                const auto thread = std::make_shared<std::unique_ptr<CWinThread>>();
                Trial trial([thread, make] {
                    thread->reset(make());
                    return *thread ? "done" : "NULL";
                });
                trial.afterFailure = [](const std::string& outcome) {
                    EXPECT_EQ(HasPosted(11, 1, "AfxBeginThread : Could not allocate CWinThread."),
                              outcome == "NULL");
                };
                return trial;
            },
            nullptr,
            true};
}

// A thread that is never resumed: its queue is read by the test.
struct Suspended : CWinThread {
    Suspended() : CWinThread(Nothing, nullptr) {}

    // The numbers of all messages.
    std::string TakeAll() {
        std::string numbers;
        for (MSG message; PeekMessage(&message, 0, 0);)
            numbers += std::to_string(message.message);
        return numbers;
    }
};

// A pipe that is full, for this thread.
struct FullPipe {
    FullPipe() { m_write.OnThisThread().Always().Fail(EAGAIN); }

private:
    Interpose m_write{Call::Write};
};

struct Parking {
    Suspended thread;
    std::unique_ptr<FullPipe> full{new FullPipe};
};

// Above what fd_set holds, so that a set of descriptors is allocated.
int Raise(int descriptor) {
    const int high = fcntl(descriptor, F_DUPFD, 1100);
    EXPECT_GE(high, 1100);
    close(descriptor);
    return high;
}

const Scenario THREADS[] = {
    Creating("CreateHandle", 1, [] { return CreateHandle(HANDLE_TYPE_EVENT, nullptr); }),
    Creating("CreateEvent", 2, [] { return CreateEvent(true, false); }),
    Creating("CreateEvent_with_attributes", 2, [] { return CreateEvent(nullptr, true, false, nullptr); }),
    Creating("CreateMutex", 2, [] { return CreateMutex(nullptr, false, nullptr, 1); }),

    MakingThread(
        "WinThread", [] { return new CWinThread; }, "bad_alloc"),
    MakingThread(
        "WinThread_with_a_function", [] { return new CWinThread(Nothing, nullptr); }, "bad_alloc"),
    MakingThread(
        "AfxBeginThread", [] { return AfxBeginThread(Nothing, nullptr, 0, 0, CREATE_SUSPENDED); },
        "NULL|bad_alloc"),

    {"AddThread", 1, nullptr, "bad_alloc",
     [] {
         const auto thread = std::make_shared<Suspended>();
         Trial trial([thread] {
             thread->AddThread(4711, thread.get());
             return "done";
         });
         trial.afterFailure = [](const std::string&) {
             EXPECT_EQ(CWinThread::MapIdToWinThread(4711), nullptr);
         };
         trial.afterSuccess = [thread] {
             EXPECT_EQ(CWinThread::MapIdToWinThread(4711), thread.get());
             thread->RemoveThread(4711);
         };
         return trial;
     },
     nullptr, true},
    {"PostMessage_into_a_full_pipe", 1, nullptr, "bad_alloc",
     [] {
         const auto parking = std::make_shared<Parking>();
         parking->thread.PostMessage(1, 0, nullptr);
         Trial trial([parking] { return parking->thread.PostMessage(2, 0, nullptr) == 1 ? "done" : "0"; });
         trial.afterFailure = [parking](const std::string&) { EXPECT_EQ(parking->thread.m_nPostedCount, 1); };
         trial.afterSuccess = [parking] {
             EXPECT_EQ(parking->thread.m_nPostedCount, 2);
             parking->full.reset();
             parking->thread.PostMessage(3, 0, nullptr); // reading begins with what is in the pipe
             EXPECT_EQ(parking->thread.TakeAll(), "312");
         };
         return trial;
     },
     nullptr, true},
    {"Draining_parked_messages", 0, nullptr, nullptr,
     [] {
         const auto parking = std::make_shared<Parking>();
         parking->thread.PostMessage(1, 0, nullptr);
         parking->thread.PostMessage(2, 0, nullptr);
         parking->full.reset();
         parking->thread.PostMessage(3, 0, nullptr);
         return Trial([parking] { // no gtest macros here, as they allocate
             MSG message;
             for (unsigned int number : {3, 1, 2})
                 if (!parking->thread.PeekMessage(&message, 0, 0) || message.message != number)
                     return "another message";
             return "done";
         });
     },
     nullptr, true},
    {"GetMessage_on_a_descriptor_above_1023", 1, nullptr, "0",
     [] {
         const auto thread = std::make_shared<Suspended>();
         thread->m_readDesc = Raise(thread->m_readDesc);
         Recorder::Clear();
         Trial trial([thread] {
             MSG message;
             return thread->GetMessage(&message, 0, 0, 1, true) ? "done" : "0";
         });
         trial.afterFailure = [](const std::string&) { EXPECT_FALSE(HasPosted(11, 1, "*")); };
         return trial;
     },
     nullptr, true, true},
};

// ---------------------------------------------------------------------------------------------------------
// Sockets

struct SocketAndPeer {
    SocketAndPeer() {
        socket.m_fd = pair.Release();
        socket.SetBlockingMode(false); // to be restored by everything
    }
    ~SocketAndPeer() { SysFreeString(text); }

    void Arrive(const std::string& payload) {
        const Bypass bypass;
        pair.peer.Send(Frame(payload));
        WaitForBytes(socket.m_fd, payload.size() + 4);
    }

    bool IsBlocking() const { return (fcntl(socket.m_fd, F_GETFL) & O_NONBLOCK) == 0; }

    void ExpectAtPeer(const std::string& payload) {
        const Bypass bypass;
        EXPECT_EQ(pair.peer.ReadFrame(), payload);
    }

    // What a failed receive has left of its frame.
    void Discard() {
        char bytes[64];
        while (recv(socket.m_fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
        }
    }

    ConnectedPair pair;
    CSocket socket;
    BSTR text = nullptr;
    ReceivedDataBlock block;
    std::unique_ptr<Interpose> failing;
};

// A frame that is longer than the object's own buffer.
const std::string& LongPayload() {
    static const std::string payload(32765, 'x');
    return payload;
}

// Sends the long payload.
Scenario Sending(const char* name, bool (*send)(CSocket&), const char* failure) {
    return {name, 1, "false", nullptr, [send, failure] {
                const auto pair = std::make_shared<SocketAndPeer>();
                Trial trial([pair, send] { return send(pair->socket) ? "done" : "false"; });
                trial.afterFailure = [pair, failure](const std::string&) {
                    EXPECT_TRUE(HasPosted(12, 1, failure));
                    EXPECT_FALSE(pair->IsBlocking());
                };
                trial.afterSuccess = [pair] {
                    pair->ExpectAtPeer(LongPayload());
                    EXPECT_FALSE(pair->IsBlocking());
                };
                return trial;
            }};
}

// The payload is given up when a frame has no room: the next frame is read.
void AwaitNextFrame(SocketAndPeer& pair) {
    EXPECT_FALSE(pair.IsBlocking());
    pair.Discard();
    pair.Arrive("hello");
}

const char* ReceiveText(SocketAndPeer& pair) {
    switch (pair.socket.Receive(pair.text, false)) {
    case 5:
        return "done";
    case -1:
        return "-1";
    default:
        return "another result";
    }
}

const char* ReceiveBlock(SocketAndPeer& pair) {
    switch (pair.socket.ReceiveBlock(pair.block, false)) {
    case 5:
        return "done";
    case -1:
        return "-1";
    default:
        return "another result";
    }
}

// Receives with a payload that cannot be read. The text that says so is formatted, which throws.
Scenario ReceivingUntilReset(const char* name, const char* (*receive)(SocketAndPeer&)) {
    return {
        name, 2, nullptr, "-1|bad_alloc", [receive] {
            const auto pair = std::make_shared<SocketAndPeer>();
            pair->Arrive("hello");
            pair->failing = std::make_unique<Interpose>(Call::Recv);
            pair->failing->OnDescriptor(pair->socket.m_fd).OnCall(3).Fail(ECONNRESET); // behind the prefix
            Trial trial([pair, receive] {
                const char* result = receive(*pair);
                return pair->failing && pair->failing->Acted() ? "done" : result;
            });
            trial.afterFailure = [pair](const std::string&) {
                pair->failing.reset();
                pair->Discard();
                delete[] pair->block.m_pData;
                pair->block.m_pData = nullptr;
                pair->Arrive("hello");
            };
            trial.afterSuccess = [pair] { delete[] pair->block.m_pData; };
            return trial;
        }};
}

struct Listening {
    Listening() {
        EXPECT_TRUE(socket.Bind(0));
        EXPECT_TRUE(socket.Listen());
        peer = ConnectTo(ntohs(LocalAddress(socket.m_fd).sin_port));
    }
    ServerSocket socket;
    Connection peer;
};

// Constructs a server or client, whose thread runs then, and ends it.
template <class Thread> struct Network {
    RecordingTarget target;
    ListenSocket listener;
    std::unique_ptr<Thread, EndAndDelete> thread;
};

template <class Thread>
Scenario Constructing(const char* name, int allocations, Thread* (*make)(Network<Thread>&),
                      const Spared& spared = nullptr) {
    return {name,
            allocations,
            NO_THREAD,
            "bad_alloc",
            [make] {
                const auto network = std::make_shared<Network<Thread>>();
                Host::AddService("service", "127.0.0.1", network->listener.Port());
                return Trial([network, make] {
                    network->thread.reset(make(*network));
                    return "done";
                });
            },
            spared,
            true};
}

// No address, so it stands for 0.0.0.0, and too long for a std::string's own room.
const char HOST[] = "a-name-that-is-no-address-and-so-stands-for-this-machine";

bool IsMalloc(const CallRecord& record) { return record.call == Call::Malloc; }

// The loop of a thread without memory for its descriptors ends as if select() had failed.
Scenario Looping(const char* name, int allocations, const std::function<Trial()>& prepare) {
    // Only arrays of the loop's own: a new object that fails ends the process, see below.
    return {name,         allocations, nullptr,
            "loop ended", prepare,     [](const CallRecord& record) { return record.call != Call::ArrayNew; },
            true,         true};
}

// Keeps a client, and ends the loop with the first message, once there is memory again.
struct EndingTarget : CCmdTarget {
    void ClientConnection(CSocket* socket) override { client.reset(socket); }

    bool RouteMessage(void*, bool) override {
        memory.Wait();
        CWinThread* own = CWinThread::MapIdToWinThread(GetCurrentThreadId());
        close(own->m_readDesc);
        own->m_readDesc = -1;
        return false;
    }

    std::unique_ptr<CSocket> client;
    Gate memory;
};

template <class Thread> struct Loop {
    ~Loop() { delete thread; }

    EndingTarget target;
    Thread* thread = nullptr;
    std::unique_ptr<Filler> filler;
    Connection peer;
};

bool WaitForText(const char* text, const char* otherText) {
    const Bypass bypass;
    return Recorder::WaitFor([=](const Event& event) {
        return event.text.find(text) != std::string::npos || event.text.find(otherText) != std::string::npos;
    });
}

// Starts a loop and has it take a message, which ends it too.
template <class Thread>
Trial Looped(const std::shared_ptr<Loop<Thread>>& loop, void (*start)(Loop<Thread>&), const char* waiting,
             const char* failed, const char* tookMessage) {
    Trial trial([=] {
        if (WaitForSingleObject(loop->thread->m_hThread, 0) == WAIT_OBJECT_0)
            return "done"; // the second time: a loop that has ended does not begin again
        start(*loop);
        if (!WaitForText(waiting, failed))
            return "no loop";
        PostThreadMessage(loop->thread->m_nThreadID, 1, 0, nullptr);
        WaitForText(failed, tookMessage);
        return HasPosted(11, 3, failed) || HasPosted(11, 1, failed) ? "loop ended" : "done";
    });
    trial.afterFailure = [loop](const std::string&) { EXPECT_TRUE(WaitForEnd(*loop->thread)); };
    trial.afterSuccess = [loop] {
        loop->target.memory.Open();
        EXPECT_TRUE(WaitForEnd(*loop->thread));
    };
    trial.thread = loop->thread->m_nThreadID;
    return trial;
}

Trial ServerLoop() {
    const auto loop = std::make_shared<Loop<CServer>>();
    loop->thread = new CServer(0, loop->target);
    EXPECT_EQ(loop->thread->WaitUntilListening(), 0);
    loop->filler = std::make_unique<Filler>(1100);
    return Looped<CServer>(
        loop, [](Loop<CServer>& begun) { begun.peer = ConnectTo(PortOf(*begun.thread)); },
        "CServer::Main() : Client connection established.",
        "CServer::Main() : Select returned with error 12 ", "CServer::Main() : Message on thread's FIFO.");
}

Trial ClientLoop() {
    const auto loop = std::make_shared<Loop<CClient>>();
    loop->filler = std::make_unique<Filler>(1100);
    loop->thread = new CClient(loop->target);
    return Looped<CClient>(
        loop, [](Loop<CClient>& begun) { begun.thread->ResumeThread(); }, "so calling select with",
        "Select returned with an error = 12  (exitting select loop)", "Message on thread's pipe.");
}

const Scenario NETWORK[] = {
    {"Receive", 2, "-1", "-1",
     [] {
         const auto pair = std::make_shared<SocketAndPeer>();
         pair->text = SysAllocString("before");
         pair->Arrive("hello");
         Trial trial([pair] { return ReceiveText(*pair); });
         trial.afterFailure = [pair](const std::string&) {
             // Without a buffer the old text stays; without a BSTR it is freed by then, and that is logged.
             const bool converting =
                 HasPosted(11, 1, "CSocket::Receive() : Error converting to wide characters");
             EXPECT_STREQ(pair->text, converting ? nullptr : "before");
             AwaitNextFrame(*pair);
         };
         trial.afterSuccess = [pair] { EXPECT_STREQ(pair->text, "hello"); };
         return trial;
     }},
    {"ReceiveBlock", 1, nullptr, "-1",
     [] {
         const auto pair = std::make_shared<SocketAndPeer>();
         pair->block.m_pData = new unsigned char[3];
         pair->block.m_nLength = 3;
         pair->Arrive("hello");
         Trial trial([pair] { return ReceiveBlock(*pair); });
         trial.afterFailure = [pair](const std::string&) {
             EXPECT_EQ(pair->block.m_pData, nullptr);
             EXPECT_EQ(pair->block.m_nLength, 0);
             AwaitNextFrame(*pair);
         };
         trial.afterSuccess = [pair] {
             EXPECT_EQ(memcmp(pair->block.m_pData, "hello", 5), 0);
             delete[] pair->block.m_pData;
         };
         return trial;
     }},
    ReceivingUntilReset("Receive_with_a_reset_inside_the_frame", ReceiveText),
    ReceivingUntilReset("ReceiveBlock_with_a_reset_inside_the_frame", ReceiveBlock),
    {"Receive_on_a_descriptor_above_1023", 1, nullptr, "-1",
     [] {
         const auto pair = std::make_shared<SocketAndPeer>();
         pair->socket.m_fd = Raise(pair->socket.m_fd);
         Trial trial([pair] { return pair->socket.Receive(pair->text, true, 1) == 0 ? "done" : "-1"; });
         trial.afterFailure = [pair](const std::string&) {
             EXPECT_TRUE(HasPosted(12, 9,
                                   "CSocket::ReceiveLength select call wokeup with return = -1, "
                                   "errno = 12"));
             EXPECT_FALSE(pair->IsBlocking());
         };
         return trial;
     },
     nullptr, false, true},
    Sending(
        "Send_of_a_long_text",
        [](CSocket& socket) { return socket.Send(const_cast<char*>(LongPayload().c_str())); },
        "CSocket::Send() on * FAILED to send message*"),
    Sending(
        "SendBlock_of_a_long_block",
        [](CSocket& socket) {
            return socket.SendBlock(reinterpret_cast<unsigned char*>(const_cast<char*>(LongPayload().data())),
                                    LongPayload().size());
        },
        "CSocket::Send() on * FAILED to send binary message"),
    {"SendMemFileWithLengthPrefix", 0, nullptr, nullptr,
     [] {
         struct Objects : SocketAndPeer {
             CMemFile file;
         };
         const auto pair = std::make_shared<Objects>();
         const std::string frame = Frame(LongPayload());
         pair->file.Write(frame.data(), static_cast<unsigned int>(frame.size()));
         Trial trial(
             [pair] { return pair->socket.SendMemFileWithLengthPrefix(pair->file) ? "done" : "false"; });
         trial.afterSuccess = [pair] { pair->ExpectAtPeer(LongPayload()); };
         return trial;
     }},
    {"Accept", 1, nullptr, "bad_alloc",
     [] { // the connection waits for the next attempt
         const auto listening = std::make_shared<Listening>();
         return Trial([listening] {
             const std::unique_ptr<CSocket> accepted(listening->socket.Accept());
             return accepted ? "done" : "NULL";
         });
     }},

    // The first allocation is the test's own, of the object.
    Constructing<CServer>("Server", 5,
                          [](Network<CServer>& network) { return new CServer(0, network.target); }),
    Constructing<CServer>(
        "Server_by_address", 5,
        [](Network<CServer>& network) { return new CServer(AddressOf("127.0.0.1", 0), network.target); }),
    Constructing<CClient>("Client_by_address", 5,
                          [](Network<CClient>& network) {
                              return new CClient(AddressOf("127.0.0.1", network.listener.Port()),
                                                 network.target);
                          }),
    Constructing<CClient>("Client_by_host", 7, // the name as argument, and the copy for the connection
                          [](Network<CClient>& network) {
                              return new CClient(std::string(HOST), network.listener.Port(), network.target);
                          }),
    // Not the copy of the name: without it the host would be asked for the service NULL.
    Constructing<CClient>(
        "Client_by_service", 5,
        [](Network<CClient>& network) { return new CClient("service", network.target); }, IsMalloc),

    Looping("Server_loop_with_a_descriptor_above_1023", 2, ServerLoop),
    Looping("Client_loop_with_a_descriptor_above_1023", 1, ClientLoop),
};

// ---------------------------------------------------------------------------------------------------------
// BSTR and VARIANT

// Makes a BSTR: NULL without memory, and nothing is thrown.
Scenario MakingBstr(const char* name, int allocations, const std::function<BSTR()>& make) {
    return {name, allocations, "NULL", nullptr, [make] {
                return Trial([make] {
                    BSTR bstr = make();
                    const bool made = bstr != nullptr;
                    SysFreeString(bstr);
                    return made ? "done" : "NULL";
                });
            }};
}

// Does something to a _bstr_t that holds "before"; without memory it is empty.
Scenario Assigning(const char* name, int allocations, const std::function<void(_bstr_t&)>& assign) {
    return {name, allocations, "NULL", nullptr, [assign] {
                const auto b = std::make_shared<_bstr_t>("before");
                Trial trial([b, assign] {
                    assign(*b);
                    return !*b ? "NULL" : "done";
                });
                trial.afterSuccess = [b] { EXPECT_STREQ(b->getData(), "abc"); };
                return trial;
            }};
}

const char* HowMade(_bstr_t b) { return !b ? "NULL" : strcmp(b.getData(), "abc") ? "another text" : "done"; }

// Constructs a _bstr_t.
Scenario ConstructingBstr(const char* name, const std::function<const char*()>& make) {
    return {name, 1, "NULL", nullptr, [make] { return Trial(make); }};
}

// Converts a value to text: without memory the type is the new one all the same, with a NULL text.
template <class Value> Scenario ToText(const char* name, Value value, const char* text) {
    return {name, 1, "NULL", nullptr, [value, text] {
                const auto v = std::make_shared<_variant_t>();
                Trial trial([v, value] {
                    *v = _variant_t(value);
                    if (v->ChangeType(VT_BSTR) != S_OK)
                        return "failed";
                    return v->bstrVal ? "done" : "NULL";
                });
                trial.afterFailure = [v](const std::string&) {
                    const bool staysDouble = std::is_same<Value, double>::value;
                    EXPECT_EQ(v->vt, staysDouble ? VT_R8 : VT_BSTR);
                };
                trial.afterSuccess = [v, text] {
                    EXPECT_STREQ(v->bstrVal, text);
                    SysFreeString(v->bstrVal);
                };
                return trial;
            }};
}

const Scenario TEXTS[] = {
    MakingBstr("SysAllocString", 1, [] { return SysAllocString("abc"); }),
    MakingBstr("SysAllocString_of_a_std_string", 1,
               [] {
                   static const std::string text("abc");
                   return SysAllocString(text);
               }),
    MakingBstr("SysAllocStringLen", 1, [] { return SysAllocStringLen("abc", 7); }),
    MakingBstr("SysAllocStringLen_of_nothing", 1, [] { return SysAllocStringLen(nullptr, 7); }),
    MakingBstr("SysAllocStringByteLen", 1, [] { return SysAllocStringByteLen("abc", 3); }),
    MakingBstr("BSTRFormatV", 1, [] { return FormatBSTR("%d", 7); }),
    MakingBstr("BSTRFormatV_of_a_long_text", 2, [] { return FormatBSTR("%s", LongPayload().c_str()); }),
    MakingBstr("AllocSysString", 1, [] { return Source().AllocSysString(); }),
    MakingBstr("AllocSysString_of_an_empty_string", 1,
               [] {
                   static const XString empty;
                   return empty.AllocSysString();
               }),
    MakingBstr("SetSysString", 1,
               [] {
                   BSTR bstr = nullptr;
                   return Source().SetSysString(&bstr);
               }),
    MakingBstr("Copy_of_a_bstr_t", 1,
               [] {
                   static const _bstr_t source("abc");
                   return source.copy();
               }),
    {"SysReAllocString", 1, "FALSE", nullptr,
     [] {
         struct Holder {
             ~Holder() { SysFreeString(bstr); }
             BSTR bstr = SysAllocString("before");
         };
         const auto holder = std::make_shared<Holder>();
         Trial trial([holder] { return SysReAllocString(&holder->bstr, "abc") ? "done" : "FALSE"; });
         trial.afterFailure = [holder](const std::string&) { EXPECT_STREQ(holder->bstr, "before"); };
         trial.afterSuccess = [holder] { EXPECT_STREQ(holder->bstr, "abc"); };
         return trial;
     }},

    ConstructingBstr("bstr_t_of_a_text",
                     [] {
                         _bstr_t b("abc");
                         return !b ? "NULL" : "done";
                     }),
    ConstructingBstr("bstr_t_of_a_bstr_t",
                     [] {
                         static const _bstr_t source("abc");
                         return HowMade(source);
                     }),
    ConstructingBstr("bstr_t_of_a_copied_text",
                     [] {
                         _bstr_t b(const_cast<char*>("abc"), true);
                         return !b ? "NULL" : "done";
                     }),
    ConstructingBstr("bstr_t_of_a_string",
                     [] {
                         _bstr_t b(const_cast<XString&>(Source()));
                         return !b ? "NULL" : "done";
                     }),
    Assigning("bstr_t_assigned_a_text", 1, [](_bstr_t& b) { b = "abc"; }),
    Assigning("bstr_t_assigned_a_bstr_t", 1,
              [](_bstr_t& b) {
                  static _bstr_t source("abc");
                  b = source;
              }),
    // The number as text, in the variant; a copy of that; and the copy that is kept.
    {"bstr_t_assigned_a_number", 3, "NULL", nullptr,
     [] {
         const auto b = std::make_shared<_bstr_t>("before");
         Trial trial([b] {
             _variant_t v(7);
             *b = v;
             v.Clear();
             return !*b ? "NULL" : "done";
         });
         trial.afterSuccess = [b] { EXPECT_STREQ(b->getData(), "7"); };
         return trial;
     }},
    // The string detaches, which may throw, and only then is copied. Either way the old text is gone.
    {"bstr_t_assigned_a_shared_string", 3, "NULL|memory exception", "bad_alloc",
     [] {
         struct Objects {
             Objects() : own("abc"), other(own), b("before") {}
             XString own, other;
             _bstr_t b;
         };
         const auto objects = std::make_shared<Objects>();
         Trial trial([objects] {
             objects->b = objects->own;
             return !objects->b ? "NULL" : "done";
         });
         trial.afterFailure = [objects](const std::string& outcome) {
             EXPECT_TRUE(!objects->b);
             EXPECT_STREQ(objects->own, "abc");
             EXPECT_EQ(objects->own.m_pStrData->m_bLocked, outcome == "NULL");
             objects->own.UnlockBuffer();
         };
         trial.afterSuccess = [objects] { EXPECT_STREQ(objects->b.getData(), "abc"); };
         return trial;
     }},
    // Not the block of the sum, to which += writes without looking: 8 + 7 + 1 bytes.
    {"bstr_t_plus_text", 1, "defg", nullptr,
     [] {
         static const _bstr_t source("abc");
         return Trial([] {
             _bstr_t sum = source + "defg";
             return strcmp(sum.getData(), "defg") == 0 ? "defg" : "done";
         });
     },
     [](const CallRecord& record) { return record.number != 8 + 3 + 1; }},

    {"variant_t_of_a_text", 1, "NULL", nullptr,
     [] {
         return Trial([] {
             _variant_t v("abc");
             const bool made = v.bstrVal != nullptr;
             const bool typed = v.vt == VT_BSTR;
             v.Clear();
             return !typed ? "another type" : made ? "done" : "NULL";
         });
     }},
    {"VariantCopy", 1, "NULL", nullptr,
     [] {
         // Freed at the end, unlike a variant.
         static const _bstr_t text("abc");
         static _variant_t source;
         source.vt = VT_BSTR;
         source.bstrVal = const_cast<BSTR>(static_cast<const char*>(text));
         return Trial([] {
             _variant_t copy(7);
             VariantCopy(&copy, &source);
             const bool made = copy.bstrVal != nullptr;
             const bool typed = copy.vt == VT_BSTR;
             copy.Clear();
             return !typed ? "another type" : made ? "done" : "NULL";
         });
     }},
    ToText<short>("Short_to_text", 7, "7"),
    ToText<int>("Int_to_text", -7, "-7"),
    ToText<float>("Float_to_text", 0.5F, "0.500000"),
    ToText<double>("Double_to_text", 0.5, "0.5"),
    ToText<bool>("Bool_to_text", true, "true"),
    ToText<unsigned char>("Byte_to_text", 200, "200"),
};

// ---------------------------------------------------------------------------------------------------------

std::vector<Scenario> AllScenarios() {
    std::vector<Scenario> all(std::begin(STRINGS), std::end(STRINGS));
    all.insert(all.end(), std::begin(CONTAINERS), std::end(CONTAINERS));
    all.insert(all.end(), std::begin(THREADS), std::end(THREADS));
    all.insert(all.end(), std::begin(NETWORK), std::end(NETWORK));
    all.insert(all.end(), std::begin(TEXTS), std::end(TEXTS));
#ifdef __powerpc__
    all.erase(std::remove_if(all.begin(), all.end(), [](const Scenario& s) { return s.highDescriptors; }),
              all.end());
#endif
#ifdef __SANITIZE_THREAD__
    // Its runtime allocates for each new thread, and does not bear that this fails.
    all.erase(std::remove_if(all.begin(), all.end(),
                             [](const Scenario& s) { return s.threads && !s.highDescriptors; }),
              all.end());
#endif
    return all;
}

class OutOfMemoryScenario : public testing::TestWithParam<std::tuple<Scenario, Mode>> {
protected:
    // What is allocated once for the process, such as the objects that scenarios share.
    static void SetUpTestSuite() {
        LongPayload();
        OfThree();
    }
};

} // namespace

TEST_P(OutOfMemoryScenario, Each_allocation_may_fail) {
    const auto& [scenario, mode] = GetParam();
    if (!Interpose::MallocAvailable())
        GTEST_SKIP() << Interpose::MallocReason();
    const DescriptorLimit limit(2048);
    if (scenario.highDescriptors && (!limit.Raised() || !SelectTakesHighDescriptors()))
        GTEST_SKIP() << "no descriptors above 1023 in this environment";
    WarmUp(scenario);
    Resources::ForgiveBlocks();

    int n = 1;
    for (;; ++n) {
        SCOPED_TRACE(testing::Message() << "allocation " << n);
        ASSERT_LE(n, 50);
        if (!Fails(scenario, n, mode))
            break;
        if (HasFailure())
            return;
    }
    if (scenario.threads)
        EXPECT_GT(n, scenario.allocations);
    else
        EXPECT_EQ(n, scenario.allocations + 1);
}

INSTANTIATE_TEST_SUITE_P(, OutOfMemoryScenario,
                         testing::Combine(testing::ValuesIn(AllScenarios()),
                                          testing::Values(Once, FromThenOn)),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param).name) +
                                    (std::get<1>(info.param) == Once ? "_once" : "_from_then_on");
                         });

// ---------------------------------------------------------------------------------------------------------
// In the thread of a server nobody catches: an exception ends the process.

namespace {

void EndWithoutMemoryForAClient() {
    RecordingTarget target;
    CServer server(0, target);
    server.WaitUntilListening();
    Shortage shortage(1, Once, server.m_nThreadID, nullptr);
    const Connection peer = ConnectTo(PortOf(server));
    target.WaitForConnection(0);
}

void EndWithoutMemoryForTheReportOfAnError() {
    RecordingTarget target;
    CServer server(0, target);
    server.WaitUntilListening();
    Shortage shortage(1, Once, server.m_nThreadID, nullptr);
    EndThread(server);
}

} // namespace

#ifdef __powerpc__
TEST(OutOfMemory, Descriptors_above_1023_are_waited_for_on_other_processors) {
    GTEST_SKIP() << "emulators of this processor end in select() with them";
}
#endif

#ifdef __SANITIZE_THREAD__
TEST(OutOfMemory, Threads_are_made_without_ThreadSanitizer) {
    GTEST_SKIP() << "its runtime allocates for each new thread, and does not bear that this fails";
}
#endif

TEST(OutOfMemory, Server_without_memory_for_a_client_ends_the_process) {
    EXPECT_DEATH(EndWithoutMemoryForAClient(), "std::bad_alloc");
}

TEST(OutOfMemory, Server_without_memory_for_the_report_of_an_error_ends_the_process) {
    EXPECT_DEATH(EndWithoutMemoryForTheReportOfAnError(), "std::bad_alloc");
}
