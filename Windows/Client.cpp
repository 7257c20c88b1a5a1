#include <Windows/Client.h>

#include <errno.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include <host/ErrorObject.h>
#include <host/Logger.h>
#include <host/ServiceRegistry.h>
#include <host/Time.h>

#include <Windows/CmdTarget.h>
#include <Windows/bstr.h>
#include <Windows/internal/Cancellation.h>
#include <Windows/internal/DescriptorSet.h>
#include <Windows/internal/ThreadLife.h>

namespace {

// What the host is told about its patience; it decides what that means.
constexpr int kLookupArgument = 10;

constexpr long kTimeoutSeconds = 1;

void LogTrace(const char* text) { CLogger::PostLogEvent(LogTypeGeneral, LogSeverityTrace, text, nullptr); }

void LogTraffic(const char* format, int descriptor) {
    CLogger::PostLogEventF(LogTypeTraffic, LogSeverityTrace, format, descriptor);
}

} // namespace

CClient::CClient(CCmdTarget& handler) : m_pCmdTarget(handler), m_bConnectedToServer(false), m_nPort(-1) {}

CClient::CClient(const CServiceAddress& address, CCmdTarget& handler)
    : m_pCmdTarget(handler), m_bConnectedToServer(false), m_nPort(-1) {
    Connect(address);
    ResumeThread();
}

CClient::CClient(std::string host, int port, CCmdTarget& handler)
    : m_pCmdTarget(handler), m_strHost(std::move(host)), m_bConnectedToServer(false), m_nPort(port) {
    Connect(m_strHost, m_nPort);
    ResumeThread();
}

CClient::CClient(const char* serviceName, CCmdTarget& handler)
    : m_pCmdTarget(handler), m_bConnectedToServer(false), m_nPort(-1) {
    BSTR name = SysAllocString(serviceName);
    CServiceAddress address;
    if (RegSvcQueryForServiceAddress(name, address, kLookupArgument))
        Connect(address); // when this throws, the name is not freed
    else
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure, "FAILED TO GET SOCKET ADDRESS FOR SVC %s",
                              name);
    SysFreeString(name);
    ResumeThread();
}

// Makes the one attempt that there is.
template <typename... Address> void CClient::Connect(const Address&... address) {
    LogTrace("CClient::CClient() : Attempting to connect to server.");
    m_bConnectedToServer = m_clientSocket.Connect(address...);
    if (!m_bConnectedToServer) {
        sleep(1);
        throw Exception("CClient::CClient", "Connection failed", nullptr);
    }
    LogTrace("+++++++++++++++++CClient::CClient() : Connection established.");
}

CClient::~CClient() {
    const windows::NoCancellation noCancellation;
    CLogger::PostLogEvent(LogTypeLife, LogSeverityInformation, "CClient::~CClient() called!", nullptr);
    windows::ThreadLife::Claim(*this); // the thread uses the members that go now
}

bool CClient::SendToServer(char* text) { return m_bConnectedToServer && m_clientSocket.Send(text); }

int CClient::ReceiveFromServer(char*& text, bool wait, unsigned int timeoutMs) {
    return m_bConnectedToServer ? m_clientSocket.Receive(text, wait, timeoutMs) : 0;
}

void CClient::AddHandler() {
    CLogger::PostLogEvent(LogTypeLife, LogSeverityInformation, "CClient::AddHandler() called!", nullptr);
}

// Does not look at the object, which may be gone already, before it is marked as in use.
__attribute__((no_sanitize("vptr"))) void CClient::Main() {
    windows::ObjectUse use;
    // Read once: the socket may close itself on an error, and its number stays in the set and in the log.
    const int socketDesc = m_clientSocket.GetDescriptor();
    const int pipeDesc = m_readDesc;
    const int highest = m_bConnectedToServer ? std::max(socketDesc, pipeDesc) : pipeDesc;
    windows::DescriptorSet watched;
    if (m_bConnectedToServer)
        watched.Add(socketDesc);
    watched.Add(pipeDesc);
    bool serverClosed = false;

    for (;;) {
        if (!HasActivity(socketDesc, pipeDesc)) {
            const int count = WaitForActivity(socketDesc, highest, watched, use);
            if (count == -1)
                return;
            if (count == 0)
                continue;
        }
        if (m_bConnectedToServer)
            ServeSocket(socketDesc, watched, serverClosed, use);
        ServeQueue(socketDesc, use);
    }
}

// Whether select can be spared, because something is there already.
bool CClient::HasActivity(int socketDesc, int pipeDesc) {
    int waiting = 0;
    if (m_bConnectedToServer && m_clientSocket.IsDataAvailable())
        LogTraffic("CClient::Main() fd %d: Data available on socket", socketDesc);
    else if (ioctl(pipeDesc, FIONREAD, &waiting) != -1 && waiting > 0)
        LogTraffic("CClient::Main() fd %d: Data available on pipe", socketDesc);
    else
        return false;
    LogTraffic("CClient::Main() fd %d: Found data on socket/pipe so bypassed select call", socketDesc);
    return true;
}

// What select returned. What is ready is asked of socket and pipe themselves afterwards.
int CClient::WaitForActivity(int socketDesc, int highest, const windows::DescriptorSet& watched,
                             windows::ObjectUse& use) {
    CLogger::PostLogEventF(
        LogTypeTraffic, LogSeverityTrace,
        "CClient::Main() fd %d: No data on socket or pipe so calling select with a %ld second timeout",
        socketDesc, kTimeoutSeconds);
    CTimeValHelper timeout(false);
    timeout.AddSeconds(kTimeoutSeconds);
    int count = 0;
    int error = 0;
    use.Pause();
    do {
        windows::DescriptorSet ready;
        ready = watched;
        count = ready.Select(highest + 1, &timeout);
        error = errno;
    } while (count == -1 && error == EINTR);
    use.Resume();
    if (count == -1) {
        CLogger::PostLogEventF(
            LogTypeGeneral, LogSeverityFailure,
            "CClient::Main() fd %d: Select returned with an error = %d  (exitting select loop)", socketDesc,
            error);
        CLogger::PostLogEventF(LogTypeGeneral, LogSeverityTrace,
                               "CClient::Main() fd %d: No longer listening on socket's or pipe.", socketDesc);
    } else if (count == 0) {
        LogTraffic("CClient::Main() fd %d: Select Timed Out..checking pipe and socket for activity)",
                   socketDesc);
    }
    return count;
}

void CClient::ServeSocket(int socketDesc, windows::DescriptorSet& watched, bool& serverClosed,
                          windows::ObjectUse& use) {
    if (!serverClosed && m_clientSocket.IsDataAvailable(serverClosed)) {
        LogTraffic("CClient::Main() fd %d: Data has arrived from the server signalling serverHandler",
                   socketDesc);
        CCmdTarget& target = m_pCmdTarget;
        use.Pause();
        serverClosed = !target.ServerActivity();
        use.Resume();
    }
    if (serverClosed) { // said again on each later pass
        watched.Remove(socketDesc);
        CLogger::PostLogEventF(
            LogTypeGeneral, LogSeverityTrace,
            "CClient::Main() fd %d: Stopped listening on client's socket because server closed "
            "socket connection on the other end.",
            socketDesc);
    }
}

void CClient::ServeQueue(int socketDesc, windows::ObjectUse& use) {
    CCmdTarget& target = m_pCmdTarget;
    MSG message;
    use.Pause();
    if (::PeekMessage(&message, nullptr, 0, 0, PM_NOREMOVE)) {
        LogTraffic("CClient::Main() fd %d: Message on thread's pipe.", socketDesc);
        target.RouteMessage(&message, false);
    }
    use.Resume();
}
