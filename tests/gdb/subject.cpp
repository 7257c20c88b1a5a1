// A program with an object of each kind that tools/gdb shows. It stops itself, and the test looks at the
// variables of main().

#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <Windows/Windows.h>

// Ends the program, or hands it to gdb. Not a place for a breakpoint: threads that start while gdb steps over
// one are too much for an emulator.
extern "C" __attribute__((noinline)) void Stop() { __builtin_trap(); }

namespace {

unsigned int EndAtOnce(void*) { return 0; }

// Says that it runs, and never reads its queue.
unsigned int Stay(void* started) {
    SetEvent(static_cast<HANDLE>(started));
    for (;;)
        pause();
}

class Worker : public CWinThread {
public:
    void Main() override { Stay(started); }

    HANDLE started = CreateEvent(true, false);
};

CObject* ObjectAt(unsigned long address) { return reinterpret_cast<CObject*>(address); }

} // namespace

int main() {
    // --- Texts
    XString none;
    XString text("hello, \"world\"\n\tand \xC3\xA4\\");
    XString empty;
    empty = "";
    XString shared("shared");
    XString sharing(shared);
    XString nuls("a\0b", 3);
    XString character;
    character = 'x';
    XString locked("locked");
    locked.GetBuffer();
    XString large('y', 1000);
    XString& reference = text;
    const XString constant("constant");

    BSTR bstr = SysAllocString("a text");
    BSTR nullBstr = nullptr;
    char plain[] = "0123456789";
    BSTR notBstr = plain + 8;
    _bstr_t owner("owned");
    _bstr_t emptyOwner;

    VARIANT variants[10];
    memset(variants, 0, sizeof variants);
    variants[1].vt = VT_NULL;
    variants[2].vt = VT_I2;
    variants[2].iVal = -2;
    variants[3].vt = VT_I4;
    variants[3].lVal = 70000;
    variants[4].vt = VT_R4;
    variants[4].fltVal = 1.5F;
    variants[5].vt = VT_R8;
    variants[5].dblVal = -0.25;
    variants[6].vt = VT_BSTR;
    variants[6].bstrVal = bstr;
    variants[7].vt = VT_BOOL;
    variants[7].boolVal = VARIANT_TRUE;
    variants[8].vt = VT_UI1;
    variants[8].bVal = 200;
    variants[9].vt = 99;
    _variant_t textVariant("text");

    // --- Containers
    CObList emptyList;
    CObList list;
    list.AddTail(ObjectAt(0x10));
    list.AddTail(ObjectAt(0x20));
    list.AddTail(ObjectAt(0));
    CPtrArray emptyPointers;
    CPtrArray pointers;
    pointers.Add(ObjectAt(0x30));
    pointers.Add(nullptr);
    CStringArray emptyStrings;
    CStringArray strings;
    strings.SetSize(0, 4);
    strings.Add("one");
    strings.Add(shared);
    CMemFile emptyFile;
    CMemFile file(16);
    file.WriteF("%s", "<a file of text>\n");
    file.Seek(3, CMemFile::begin);
    CMemFile fixedFile(static_cast<unsigned char*>(calloc(1, 8)), 8, 0);

    // --- Locks, events, handles
    CMutex freeMutex;
    CMutex heldMutex(true);
    CMutex recursiveMutex(1, true);
    recursiveMutex.Lock();
    CEvent manual(true, true);
    CEvent automatic(false, false);
    HANDLE event = CreateEvent(false, true);
    HANDLE mutex = CreateMutex(nullptr, true, nullptr);
    HANDLE nullHandle = nullptr;
    HANDLESTRUCT withoutObject = {HANDLE_TYPE_EVENT, nullptr};
    HANDLE withoutObjectHandle = &withoutObject;

    // --- Threads
    CWinThread* suspended = AfxBeginThread(EndAtOnce, nullptr, THREAD_PRIORITY_NORMAL, 0, CREATE_SUSPENDED);
    HANDLE started = CreateEvent(true, false);
    CWinThread* running = AfxBeginThread(Stay, started);
    WaitForSingleObject(started, INFINITE);
    for (unsigned int number = 0; number < 3; ++number)
        running->PostMessage(WM_USER + number, 0, nullptr);
    CWinThread* exited = AfxBeginThread(EndAtOnce, nullptr);
    WaitForSingleObject(exited->m_hThread, INFINITE);
    exited->LockoutMsgQueue();
    HANDLE threadHandle = exited->m_hThread;
    auto* worker = new Worker;
    worker->ResumeThread();
    WaitForSingleObject(worker->started, INFINITE);
    fcntl(worker->m_writeDesc, F_SETPIPE_SZ, 4096); // one page, which is soon full
    for (unsigned int number = 0; number < 300; ++number)
        worker->PostMessage(WM_USER, number, nullptr);
    int bytesInPipe = 0;
    ioctl(worker->m_readDesc, FIONREAD, &bytesInPipe);
    const int inPipe = bytesInPipe / static_cast<int>(sizeof(MSG));
    const int parked = 300 - inPipe;

    // --- What is no object
    alignas(16) unsigned char garbage[1024];
    memset(garbage, 0xA5, sizeof garbage);
    alignas(16) unsigned char zeros[1024];
    memset(zeros, 0, sizeof zeros);
    XString freed("freed");
    freed.m_pStrData->m_iRefCount = 0;
    XString damaged("damaged");
    damaged.m_pStrData->m_uiLength = 1000000;
    CObList ring;
    ring.AddTail(ObjectAt(0x40));
    ring.m_pNodeHead->pNext = ring.m_pNodeHead;
    ring.m_nCount = 1000000;
    CObList cut;
    cut.AddTail(ObjectAt(0x50));
    cut.m_nCount = 2;

    Stop();
    // All variables live until here, and none of them is destroyed: two of them are damaged.
    static_cast<void>(empty.GetLength() + sharing.GetLength() + nuls.GetLength() + large.GetLength());
    static_cast<void>(reference.GetLength() + constant.GetLength() + none.GetLength());
    static_cast<void>(nullBstr), static_cast<void>(notBstr), static_cast<void>(suspended);
    static_cast<void>(event), static_cast<void>(mutex), static_cast<void>(nullHandle);
    static_cast<void>(parked), static_cast<void>(withoutObjectHandle), static_cast<void>(threadHandle);
    _exit(0);
}
