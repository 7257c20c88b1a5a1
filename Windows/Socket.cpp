#include <Windows/Socket.h>

#include <errno.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <new>

#include <host/Logger.h>
#include <host/Time.h>

#include <Windows/MemFile.h>
#include <Windows/XString.h>
#include <Windows/bstr.h>
#include <Windows/internal/BlockingMode.h>
#include <Windows/internal/Cancellation.h>
#include <Windows/internal/DescriptorSet.h>
#include <Windows/internal/Relaxed.h>

int ZEL_SOCKET_LEVEL = IPPROTO_TCP;

namespace {

constexpr int kError = -1;
constexpr int kPeerClosed = -2;

constexpr unsigned long kPrefixSize = 4;

void LogTrace(const char* text) { CLogger::PostLogEvent(LogTypeTraffic, LogSeverityTrace, text, nullptr); }

} // namespace

CSocket::CSocket() : m_fd(-1), m_address(), m_bBlocking(true) {}

CSocket::~CSocket() {
    const windows::NoCancellation noCancellation;
    if (GetDescriptor() != -1)
        close(GetDescriptor());
    // A thread that is about to be cancelled may still hold this socket: it must not find a number that is
    // somebody else's by now.
    windows::RelaxedStore(m_fd, -1);
}

bool CSocket::Create() {
    windows::RelaxedStore(m_fd, socket(AF_INET, SOCK_STREAM, 0));
    if (GetDescriptor() == -1)
        return false;
    const int on = 1;
    if (setsockopt(GetDescriptor(), ZEL_SOCKET_LEVEL, TCP_NODELAY, &on, sizeof on) == 0)
        return true;
    close(GetDescriptor());
    windows::RelaxedStore(m_fd, -1);
    return false;
}

int CSocket::Close() {
    if (GetDescriptor() == -1) {
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityMisuse,
                              "CSocket::Close - called on socket that's already been closed", nullptr);
        return -1;
    }
    const int result = close(GetDescriptor());
    windows::RelaxedStore(m_fd, -1);
    return result;
}

bool CSocket::SetBlockingMode(bool blocking) {
    if (windows::RelaxedLoad(m_bBlocking) == blocking)
        return true;
    const int flags = fcntl(GetDescriptor(), F_GETFL);
    if (flags < 0) {
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure,
                              "Failed to set blocking mode on socket (on option set)!!", nullptr);
        return false;
    }
    if (fcntl(GetDescriptor(), F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK) == -1) {
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure, "Failed to set blocking mode on socket!!",
                              nullptr);
        return false;
    }
    windows::RelaxedStore(m_bBlocking, blocking);
    return true;
}

bool CSocket::IsDataAvailable() {
    bool closed = false;
    return IsDataAvailable(closed);
}

bool CSocket::IsDataAvailable(bool& closed) {
    closed = false;
    windows::BlockingMode mode(*this, windows::RelaxedLoad(m_bBlocking), false);
    unsigned char byte = 0;
    // MSG_DONTWAIT although the socket does not block: another thread that sends may just have made it.
    const long count = ReceiveBytes(&byte, 1, MSG_PEEK | MSG_DONTWAIT);
    const int error = errno;
    if (count == 0) {
        LogTrace("CSocket::IsDataAvailable Detected socket closure (non-blocking call to recv returned 0)");
        closed = true;
    } else if (count < 0 && error != EAGAIN) {
        CLogger::PostLogEventF(
            LogTypeGeneral, LogSeverityWarning,
            "CSocket::IsDataAvailable Detected socket error (errno = %d) assuming socket closure", error);
        closed = true;
        Close();
    }
    mode.Restore();
    return count > 0;
}

void CSocket::EncodeLength(unsigned long length, unsigned char* destination) {
    destination[0] = static_cast<unsigned char>(length >> 24);
    destination[1] = static_cast<unsigned char>(length >> 16);
    destination[2] = static_cast<unsigned char>(length >> 8);
    destination[3] = static_cast<unsigned char>(length);
}

// --- Receiving -----------------------------------------------------------------------------------------

void CSocket::SetQuickAck() {
    const int on = 1;
    setsockopt(GetDescriptor(), ZEL_SOCKET_LEVEL, TCP_QUICKACK, &on, sizeof on);
}

long CSocket::ReceiveBytes(void* to, unsigned long count, int flags) {
    SetQuickAck();
    return recv(GetDescriptor(), to, count, flags);
}

int CSocket::ReceiveLength(bool wait, unsigned int timeoutMs) {
    windows::BlockingMode mode(*this, windows::RelaxedLoad(m_bBlocking), false);
    int result = 0;
    if (AwaitData(wait, timeoutMs, result))
        result = ReadPrefix();
    mode.Restore();
    CLogger::PostLogEventF(LogTypeTraffic, LogSeverityTrace, "Exiting CSocket::ReceiveLength returning: %d",
                           result);
    return result;
}

// True when the prefix can be read; otherwise result is what ReceiveLength returns.
bool CSocket::AwaitData(bool wait, unsigned int timeoutMs, int& result) {
    bool closed = false;
    if (IsDataAvailable(closed))
        return true;
    if (closed) {
        // The text says 0 and the result is -2; both are known so.
        LogTrace("CSocket::ReceiveLength -- Socket Was Closed, returning 0");
        result = kPeerClosed;
        return false;
    }
    if (!wait) {
        LogTrace("CSocket::ReceiveLength returning because no data was available and caller specified not to "
                 "wait");
        result = 0;
        return false;
    }

    CTimeValHelper timeout;
    timeout.Init();
    timeval* limit = nullptr;
    if (timeoutMs != 0) {
        CLogger::PostLogEventF(
            LogTypeTraffic, LogSeverityTrace,
            "CSocket::ReceiveLength Now blocking with select (with timeout = %u) to wait for "
            "data on socket",
            timeoutMs);
        timeout.AddMilliSeconds(timeoutMs);
        limit = &timeout;
    } else {
        LogTrace("CSocket::ReceiveLength Now blocking with select (with NO timeout) to wait for data (caller "
                 "specified)");
    }

    if (IsDataAvailable(closed)) {
        LogTrace(
            "CSocket::ReceiveLength Data Became available in between checking and setting up the select!!");
        return true;
    }
    if (closed && GetDescriptor() == -1) { // failed, and closed by that: there is nothing left to wait for
        LogTrace("CSocket::ReceiveLength -- Socket Was Closed, returning 0");
        result = kPeerClosed;
        return false;
    }

    int error = 0;
    do {
        windows::DescriptorSet readable;
        readable.Add(GetDescriptor());
        result = readable.Select(GetDescriptor() + 1, limit);
        error = errno;
    } while (result == -1 && error == EINTR);
    if (result > 0)
        return true;
    CLogger::PostLogEventF(LogTypeTraffic, LogSeverityTrace,
                           "CSocket::ReceiveLength select call wokeup with return = %d, errno = %d", result,
                           error);
    return false;
}

// The length in the prefix; -1 or -2 on failure. Once a byte of the prefix is read it waits for the others
// without limit: they cannot be given back.
int CSocket::ReadPrefix() {
    unsigned char prefix[kPrefixSize] = {};
    long count = ReceiveBytes(prefix, kPrefixSize, 0);
    int error = errno;
    CLogger::PostLogEventF(LogTypeTraffic, LogSeverityTrace,
                           "CSocket::ReceiveLength recv call returned %d (errno = %d)",
                           static_cast<int>(count), error);
    if (count == 0) {
        LogTrace("CSocket::ReceiveLength detected socket closure (non-blocking recv call returned 0)");
        return kPeerClosed;
    }
    if (count < 0 && error != EAGAIN) {
        CLogger::PostLogEventF(LogTypeGeneral, LogSeverityWarning,
                               "CSocket::ReceiveLength Detected socket closed by other end (errno = %d)",
                               error);
        return kPeerClosed;
    }

    unsigned long got = count > 0 ? static_cast<unsigned long>(count) : 0;
    while (got < kPrefixSize) {
        SetBlockingMode(true);
        count = ReceiveBytes(prefix + got, kPrefixSize - got, 0);
        error = errno;
        if (count <= 0) {
            CLogger::PostLogEventF(
                LogTypeGeneral, LogSeverityWarning,
                "CSocket::ReceiveLength Detected socket error or socket closed by other end (errno = %d)",
                error);
            return count == 0 ? kPeerClosed : kError;
        }
        got += static_cast<unsigned long>(count);
    }
    if (got != kPrefixSize) { // only a recv that returns more than was asked for gets here
        CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure,
                               "CSocket::ReceiveLength() : There were %d byte(s) read for the length!!!  "
                               "PROTOCOL IS NOW BROKEN!",
                               static_cast<int>(got));
        return kError;
    }
    const uint32_t length = static_cast<uint32_t>(prefix[0]) << 24 | static_cast<uint32_t>(prefix[1]) << 16 |
                            static_cast<uint32_t>(prefix[2]) << 8 | static_cast<uint32_t>(prefix[3]);
    return static_cast<int>(length);
}

// Receives exactly length bytes; 0, or -1 or -2 on failure. Any failure is fatal for the frame, an
// interrupted call included, and leaves the socket blocking: callers drop the connection.
int CSocket::ReceivePayload(void* to, int length, int closureSeverity) {
    windows::BlockingMode mode(*this, windows::RelaxedLoad(m_bBlocking), true);
    auto* position = static_cast<unsigned char*>(to);
    auto missing = static_cast<unsigned long>(length);
    while (missing > 0) {
        const long count = ReceiveBytes(position, missing, 0);
        const int error = errno;
        if (count == 0) {
            CLogger::PostLogEvent(
                LogTypeGeneral, static_cast<LogSeverityEnum>(closureSeverity),
                "CSocket::Receive() : Data length is 0.  The sender has closed its endpoint.", nullptr);
            return kPeerClosed;
        }
        if (count < 0) {
            XString text;
            text.Format("CSocket::Receive() : Error reading from socket errno = %d", error);
            CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure, text, nullptr);
            return kError;
        }
        position += count;
        missing -= static_cast<unsigned long>(count);
    }
    mode.Restore();
    return 0;
}

int CSocket::ReceiveBlock(ReceivedDataBlock& block, bool wait, unsigned int timeoutMs) {
    if (GetDescriptor() == -1)
        return kError;
    const int size = ReceiveLength(wait, timeoutMs);
    if (size < 1)
        return size;
    // Data of the same length is not freed: callers that keep a block free it themselves between receives.
    if (size != block.m_nLength)
        delete[] block.m_pData;
    block.m_nLength = 0;
    block.m_pData = new (std::nothrow) unsigned char[static_cast<size_t>(size)];
    if (!block.m_pData)
        return kError;
    const int failure = ReceivePayload(block.m_pData, size, LogSeverityWarning);
    if (failure != 0) {
        delete[] block.m_pData;
        block.m_pData = nullptr;
        return failure;
    }
    block.m_nLength = size;
    CLogger::PostLogEventF(LogTypeTraffic, LogSeverityInformation,
                           "CSocket::Receive() binary data on %d: ", GetDescriptor());
    return size;
}

int CSocket::Receive(char*& text, bool wait, unsigned int timeoutMs) {
    if (GetDescriptor() == -1)
        return kError;
    const int length = ReceiveLength(wait, timeoutMs);
    if (length < 1)
        return length;
    // Owned, as a thread may be cancelled while it receives.
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<size_t>(length) + 1]);
    if (!buffer)
        return kError;
    int result = ReceivePayload(buffer.get(), length, LogSeverityFailure);
    if (result == 0) {
        buffer[static_cast<size_t>(length)] = '\0';
        SysFreeString(text);
        text = SysAllocString(buffer.get());
        if (text) {
            CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityInformation,
                                    "CSocket::Receive() on %d: ", text, GetDescriptor());
            result = length;
        } else {
            CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure,
                                  "CSocket::Receive() : Error converting to wide characters", nullptr);
            result = kError;
        }
    }
    return result;
}

// --- Sending -------------------------------------------------------------------------------------------

// Sends in one call; what the socket takes in part counts as sent.
template <typename Report>
bool CSocket::SendBytes(const void* bytes, unsigned long size, Report reportFailure) {
    windows::BlockingMode mode(*this, windows::RelaxedLoad(m_bBlocking), true);
    const bool sent = send(GetDescriptor(), bytes, size, MSG_NOSIGNAL) >= 1;
    if (!sent)
        reportFailure();
    mode.Restore();
    return sent;
}

// Puts prefix and payload together, in the object's own buffer if they fit, and sends them.
template <typename Report>
bool CSocket::SendFrame(const void* payload, unsigned long length, Report reportFailure) {
    // Owned, as a thread may be cancelled while it sends.
    std::unique_ptr<void, decltype(&free)> allocated(nullptr, free);
    unsigned char* frame = m_sendBuffer;
    if (length > sizeof m_sendBuffer - kPrefixSize) {
        if (length <= SIZE_MAX - kPrefixSize)
            allocated.reset(malloc(length + kPrefixSize));
        if (!allocated) {
            reportFailure();
            return false;
        }
        frame = static_cast<unsigned char*>(allocated.get());
    }
    EncodeLength(length, frame);
    memcpy(frame + kPrefixSize, payload, length);
    return SendBytes(frame, length + kPrefixSize, reportFailure);
}

bool CSocket::Send(char* text) {
    if (GetDescriptor() == -1) {
        CLogger::PostLogEvent(LogTypeTraffic, LogSeverityFailure,
                              "CSocket::Send() on -1 FAILED due to Invalid file descriptor", nullptr);
        return false;
    }
    if (!text) {
        CLogger::PostLogEventF(
            LogTypeTraffic, LogSeverityNotice,
            "CSocket::Send() on %d called with a NULL message (returning without sending anything)",
            GetDescriptor());
        return true;
    }
    const size_t length = strlen(text);
    if (length == 0) {
        CLogger::PostLogEventF(
            LogTypeTraffic, LogSeverityNotice,
            "CSocket::Send() on %d called with a zero length message (returning without sending anything)",
            GetDescriptor());
        return true;
    }
    const bool sent = SendFrame(text, length, [this, text] {
        CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityFailure,
                                "CSocket::Send() on %d FAILED to send message", text, GetDescriptor());
    });
    if (sent)
        CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityInformation, "CSocket::Send() on %d: ", text,
                                GetDescriptor());
    return sent;
}

bool CSocket::SendBlock(unsigned char* data, unsigned long length) {
    if (GetDescriptor() == -1) {
        CLogger::PostLogEvent(LogTypeTraffic, LogSeverityFailure,
                              "CSocket::SendBlock() on -1 FAILED due to Invalid file descriptor", nullptr);
        return false;
    }
    if (length == 0) {
        CLogger::PostLogEventF(
            LogTypeTraffic, LogSeverityNotice,
            "CSocket::SendBlock on %d called with 0 byte count (returning without sending anything)",
            GetDescriptor());
        return true;
    }
    const bool sent = SendFrame(data, length, [this] { ReportBinaryFailure(); });
    if (sent)
        CLogger::PostLogEventF(LogTypeTraffic, LogSeverityInformation,
                               "CSocket::SendBlock() on %d: ", GetDescriptor());
    return sent;
}

bool CSocket::SendMemFileWithLengthPrefix(CMemFile& file) {
    if (GetDescriptor() == -1) {
        CLogger::PostLogEvent(
            LogTypeTraffic, LogSeverityFailure,
            "CSocket::SendMemFileWithLengthPrefix on -1 FAILED due to Invalid file descriptor", nullptr);
        return false;
    }
    if (file.m_uiFileLength == 0) {
        CLogger::PostLogEventF(
            LogTypeTraffic, LogSeverityNotice,
            "CSocket::SendMemFileWithLengthPrefix on %d called with 0 byte count (returning "
            "without sending anything)",
            GetDescriptor());
        return true;
    }
    const bool sent = SendBytes(file.m_pBuffer, file.m_uiFileLength, [this] { ReportBinaryFailure(); });
    if (sent)
        CLogger::PostLogEventF(LogTypeTraffic, LogSeverityTrace,
                               "CSocket::SendMemFileWithLengthPrefix() on %d: ", GetDescriptor());
    return sent;
}

void CSocket::ReportBinaryFailure() {
    CLogger::PostLogEventF(LogTypeTraffic, LogSeverityFailure,
                           "CSocket::Send() on %d FAILED to send binary message", GetDescriptor());
}
