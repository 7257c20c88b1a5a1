// A TCP socket that exchanges whole messages, each behind a 4-byte big-endian length.
//
//   offset 0, 4 bytes: payload length N, unsigned, most significant byte first
//   offset 4, N bytes: payload; a text is sent without its NUL
//
// Thread safety: one object is used by one thread at a time; two objects never share anything.
// Lifetime: the object closes its descriptor. It is 32 KiB large, so it lives on the heap. It has no virtual
// destructor: delete it as what it is.
// Errors: everything is logged. No function throws, but for a receive whose payload fails: without memory for
// its report std::bad_alloc leaves it. A wait for a descriptor above 1023 needs memory, and fails without.
//
// Results of the receive functions: above 0 the payload length; 0 nothing there, or the time ran out; -1 an
// error; -2 the peer has closed. Lengths of 2^31 and above arrive as negative numbers, so the prefixes
// FFFFFFFF and FFFFFFFE look like -1 and -2. A payload that fails half way is lost, and the stream is out of
// step: close the socket.
//
//   object          | send functions        | receive functions                     | Close()
//   no descriptor   | false                 | -1 (ReceiveLength: -2)                | -1
//   open            | true when sent        | as above; wait = false: 0 at once     | result of close()
//   peer has closed | false, no SIGPIPE     | -2                                    | result of close()
#ifndef WINDOWS_SOCKET_H
#define WINDOWS_SOCKET_H

#include <netinet/in.h>

#include <Windows/types.h>

class CMemFile;

// A received binary payload. m_pData comes from new[] and belongs to whoever owns the block; it has no NUL.
struct ReceivedDataBlock {
    int m_nLength;          // in bytes
    unsigned char* m_pData; // NULL without a payload

    ReceivedDataBlock() : m_nLength(0), m_pData(nullptr) {}
};

// The level of the TCP options: 6.
extern int ZEL_SOCKET_LEVEL;

class CSocket {
public:
    // Has no descriptor yet.
    CSocket();
    ~CSocket();

    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;

    // Makes a TCP descriptor with TCP_NODELAY. False, and no descriptor, on failure. Once for each object.
    bool Create();

    // Closes the descriptor and returns what close() returned; -1 without one.
    int Close();

    // Switches the mode; false, with the reason in the log, if that fails. Trusts its own record of it:
    // nothing else may change the descriptor's flags.
    bool SetBlockingMode(bool blocking);

    // Whether at least one byte can be read. closed tells that the peer has closed or that the socket failed,
    // and then the descriptor is closed. Never blocks.
    bool IsDataAvailable(bool& closed);
    bool IsDataAvailable();

    // Writes the 4 prefix bytes of a length.
    static void EncodeLength(unsigned long length, unsigned char* destination);

    // Reads a prefix. With wait, waits for its first byte: timeoutMs milliseconds, 0 for ever. Once a byte of
    // it is read the rest is waited for without limit.
    int ReceiveLength(bool wait = true, unsigned int timeoutMs = 0);

    // Receives a frame into block. A block whose length differs from the new one is freed first; one of the
    // same length is not: free it before receiving again. When the payload fails block holds nothing.
    int ReceiveBlock(ReceivedDataBlock& block, bool wait = true, unsigned int timeoutMs = 0);

    // Receives a frame as a new BSTR, which the caller frees with SysFreeString. text must be NULL or a BSTR
    // on entry and is freed when a frame has arrived; otherwise it stays. A payload with NULs gives the text
    // up to the first, and the full length as the result.
    int Receive(char*& text, bool wait = true, unsigned int timeoutMs = 0);

    // Sends a text, or length bytes, as one frame in one call of send(); a frame that was taken in part
    // counts as sent. NULL and nothing send nothing and return true. False on failure. The first frame to a
    // peer that has gone may still be taken by the system and count as sent.
    bool Send(char* text);
    bool SendBlock(unsigned char* data, unsigned long length);

    // Sends the contents of a file as they are, wherever its position: its first 4 bytes must be the prefix
    // of the rest. An empty file sends nothing and returns true.
    bool SendMemFileWithLengthPrefix(CMemFile& file);

    // The descriptor; -1 without one.
    int GetDescriptor() const { return __atomic_load_n(&m_fd, __ATOMIC_RELAXED); }

    int m_fd; // -1 without a descriptor

protected:
    sockaddr_in m_address; // of the last Bind or Connect
    bool m_bBlocking;      // what the descriptor is believed to be

private:
    unsigned char m_sendBuffer[32768]; // prefix and payload of a frame of at most 32,764 bytes

    void SetQuickAck();
    void ReportBinaryFailure();
    long ReceiveBytes(void* to, unsigned long count, int flags);
    bool AwaitData(bool wait, unsigned int timeoutMs, int& result);
    int ReadPrefix();
    int ReceivePayload(void* to, int length, int closureSeverity);
    template <typename Report>
    bool SendFrame(const void* payload, unsigned long length, Report reportFailure);
    template <typename Report> bool SendBytes(const void* bytes, unsigned long size, Report reportFailure);

    friend class ServerSocket;
};

#endif
