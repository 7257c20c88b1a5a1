// Does one operation of the library so many times, for script/bench --instructions.
//
// usage: operations [NAME COUNT]          (without arguments: prints the names)
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <Windows/MemFile.h>
#include <Windows/Mutex.h>
#include <Windows/ObList.h>
#include <Windows/WinThread.h>
#include <Windows/XString.h>
#include <Windows/bstr.h>
#include <Windows/synchelpers.h>
#include <Windows/variant.h>
#include <reference_host/reference_host.h>

namespace {

const char TEXT[] = "forty-three characters, which is one line !";
const char MARKUP[] = "<a href=\"here\">this & that</a> and some text without";

// What an operation leaves in memory has to be there.
template <typename Value> void Use(Value& value) { __asm__ volatile("" : : "r"(&value) : "memory"); }

void CopyString(unsigned long count) {
    const XString text(TEXT);
    for (unsigned long i = 0; i < count; ++i) {
        XString copy(text);
        Use(copy);
    }
}

void BuildString(unsigned long count) {
    for (unsigned long i = 0; i < count; ++i) {
        XString text(TEXT);
        Use(text);
    }
}

void AppendHundred(unsigned long count) {
    for (unsigned long i = 0; i < count; ++i) {
        XString text;
        for (char c = 0; c < 100; ++c)
            text += 'x';
        Use(text);
    }
}

void FormatString(unsigned long count) {
    for (unsigned long i = 0; i < count; ++i) {
        XString text;
        text.Format("%s=%d", "temperature", 12345);
        Use(text);
    }
}

void EscapeLine(unsigned long count) {
    for (unsigned long i = 0; i < count; ++i) {
        CMemFile file;
        file.WriteStrEntities(MARKUP);
        Use(file);
    }
}

void FillList(unsigned long count) {
    int object;
    for (unsigned long i = 0; i < count; ++i) {
        CObList list;
        for (int element = 0; element < 10; ++element)
            list.AddTail(reinterpret_cast<CObject*>(&object));
        Use(list);
    }
}

void LockAndUnlock(unsigned long count) {
    CMutex mutex(false);
    for (unsigned long i = 0; i < count; ++i) {
        mutex.Lock(INFINITE);
        mutex.Unlock();
    }
}

unsigned int PostToItself(void* count) {
    for (unsigned long i = 0; i < *static_cast<unsigned long*>(count); ++i) {
        PostThreadMessage(GetCurrentThreadId(), 7, 0, nullptr);
        MSG message;
        GetMessage(&message, nullptr, 0, 0);
    }
    return 0;
}

void PostAndGet(unsigned long count) {
    CWinThread thread(PostToItself, &count);
    thread.ResumeThread();
    WaitForSingleObject(thread.m_hThread, INFINITE);
}

void MakeAndFreeBstr(unsigned long count) {
    for (unsigned long i = 0; i < count; ++i) {
        BSTR bstr = SysAllocString(TEXT);
        Use(bstr);
        SysFreeString(bstr);
    }
}

void IntegerToTextAndBack(unsigned long count) {
    for (unsigned long i = 0; i < count; ++i) {
        VARIANT value;
        VariantInit(&value);
        V_VT(&value) = VT_I4;
        V_I4(&value) = -123456;
        VariantChangeType(&value, &value, 0, VT_BSTR);
        VariantChangeType(&value, &value, 0, VT_I4);
        Use(value);
    }
}

const struct {
    const char* name;
    void (*run)(unsigned long count);
} OPERATIONS[] = {
    {"CopyString", CopyString},           {"BuildString", BuildString},
    {"AppendHundred", AppendHundred},     {"FormatString", FormatString},
    {"EscapeLine", EscapeLine},           {"FillList", FillList},
    {"LockAndUnlock", LockAndUnlock},     {"PostAndGet", PostAndGet},
    {"MakeAndFreeBstr", MakeAndFreeBstr}, {"IntegerToTextAndBack", IntegerToTextAndBack},
};

} // namespace

int main(int argc, char** argv) {
    reference_host::SetMaximumSeverity(0); // as in the benchmarks
    for (const auto& operation : OPERATIONS) {
        if (argc == 1)
            puts(operation.name);
        else if (argc == 3 && strcmp(argv[1], operation.name) == 0) {
            operation.run(strtoul(argv[2], nullptr, 10));
            return 0;
        }
    }
    return argc == 1 ? 0 : 2;
}
