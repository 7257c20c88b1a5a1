#include <Windows/Server.h>

#include <errno.h>

#include <algorithm>

#include <host/Logger.h>
#include <host/ServiceRegistry.h>

#include <Windows/CmdTarget.h>
#include <Windows/SocketException.h>
#include <Windows/XString.h>
#include <Windows/internal/Cancellation.h>
#include <Windows/internal/DescriptorSet.h>
#include <Windows/internal/Relaxed.h>
#include <Windows/internal/ThreadLife.h>

// What a constructor says. The two name themselves differently, misspelling included; logs are searched for
// it.
struct CServer::Texts {
    const char* called;
    const char* couldNotBind;
    const char* bound;
    const char* couldNotListen;
    const char* created;
};

// The descriptors that the thread waits for.
struct CServer::Watch {
    windows::DescriptorSet all;
    windows::DescriptorSet ready;
    int highest;
    int looked; // the highest that the last select has looked at: above it, ready says nothing
    windows::ObjectUse& use;
};

namespace {

void LogTrace(const char* text) { CLogger::PostLogEvent(LogTypeGeneral, LogSeverityTrace, text, nullptr); }

void LogLife(const char* text) { CLogger::PostLogEvent(LogTypeLife, LogSeverityInformation, text, nullptr); }

} // namespace

CServer::CServer(int port, CCmdTarget& handler) : m_pCmdTarget(handler), m_listeningEvent(true, false) {
    Start(port, {"CServer::CServer(port,commHandler) : Called!",
                 "CServer::CServer(port,commHandler) : Could not bind socket.",
                 "CServer::CServer(port,commHandler) : Bound socket.",
                 "CServer::CServer(port,commHandler) : Could not listen.",
                 "CServer::CServer(port,commHandler) : Object Created (m_nThreadID = %d)"});
}

CServer::CServer(const CServiceAddress& address, CCmdTarget& handler)
    : m_pCmdTarget(handler), m_listeningEvent(true, false) {
    Start(address.getPortNumber(),
          {"CServer::CServer() : Called!", "CServer::CServer(sa,commHanlder) : Could not bind socket.",
           "CServer::CServer(sa,commHanlder) : Bound socket.",
           "CServer::CServer(sa,commHanlder) : Could not listen.",
           "CServer::CServer(sa,commHanlder) : Object Created (m_nThreadID = %d)"});
}

void CServer::Start(int port, const Texts& texts) {
    LogLife(texts.called);
    if (!m_serverSocket.Bind(port))
        throw SocketException(texts.couldNotBind);
    LogTrace(texts.bound);
    if (!m_serverSocket.Listen())
        throw SocketException(texts.couldNotListen);
    CLogger::PostLogEventF(LogTypeLife, LogSeverityInformation, texts.created, static_cast<int>(m_nThreadID));
    ResumeThread();
}

CServer::~CServer() {
    const windows::NoCancellation noCancellation;
    LogLife("CServer::~CServer() called!");
    windows::ThreadLife::Claim(*this); // the thread uses the members that go now
}

void CServer::AddHandler() { LogLife("CServer::AddHandler() called!"); }

// Does not look at the object, which may be gone already, before it is marked as in use.
__attribute__((no_sanitize("vptr"))) void CServer::Main() {
    windows::ObjectUse use;
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityInformation,
                          "CServer::Main (thread is now active so we are truly listening!!)", nullptr);
    windows::RelaxedStore(m_bListening, true);

    const int listenDesc = m_serverSocket.GetDescriptor();
    const int pipeDesc = m_readDesc;
    // The highest leaves out the pipe: it is older than the socket, and its number lower unless one was given
    // back between.
    Watch watch{{}, {}, listenDesc, listenDesc, use};
    watch.all.Add(listenDesc);
    watch.all.Add(pipeDesc);
    m_listeningEvent.SetEvent();

    for (;;) {
        int count = 0;
        int error = 0;
        watch.looked = watch.highest;
        use.Pause();
        do {
            watch.ready = watch.all;
            count = watch.ready.Select(watch.looked + 1, nullptr);
            error = errno;
        } while (count == -1 && error == EINTR);
        use.Resume();
        if (count == -1) {
            XString text;
            text.Format("CServer::Main() : Select returned with error %d ", error);
            CLogger::PostLogEvent(LogTypeGeneral, LogSeverityRuntimeError, text, nullptr);
            break;
        }
        if (count == 0) {
            CLogger::PostLogEvent(LogTypeGeneral, LogSeverityNotice, "CServer::Main() : Nothing ready. ",
                                  nullptr);
            continue;
        }
        if (watch.ready.Contains(listenDesc)) {
            watch.ready.Remove(listenDesc);
            AcceptClient(watch);
        }
        if (pipeDesc <= watch.looked && watch.ready.Contains(pipeDesc)) {
            watch.ready.Remove(pipeDesc);
            ServeQueue(watch);
        }
        ReportClients(watch);
    }

    windows::RelaxedStore(m_bListening, false);
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityWarning, "CServer::Main No longer listening (exiting).",
                          nullptr);
}

void CServer::AcceptClient(Watch& watch) {
    LogTrace("CServer::Main() : Accepting client connection request.");
    CSocket* client = m_serverSocket.Accept();
    if (!client) {
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure,
                              "CServer::Main() : Could not accept connection.", nullptr);
        return;
    }
    LogTrace("CServer::Main() : Client connection established.");
    watch.all.Add(client->GetDescriptor());
    watch.highest = std::max(watch.highest, client->GetDescriptor());
    CCmdTarget& target = m_pCmdTarget;
    watch.use.Pause();
    target.ClientConnection(client);
    watch.use.Resume();
}

void CServer::ServeQueue(Watch& watch) {
    LogTrace("CServer::Main() : Message on thread's FIFO.");
    CCmdTarget& target = m_pCmdTarget;
    MSG message;
    watch.use.Pause();
    if (::GetMessage(&message, nullptr, 0, 0, 0, false))
        target.RouteMessage(&message, false);
    watch.use.Resume();
}

// A client that is given up stays open: it belongs to the command target. The highest descriptor never sinks.
void CServer::ReportClients(Watch& watch) {
    CCmdTarget& target = m_pCmdTarget;
    watch.use.Pause();
    for (int descriptor = 0; descriptor <= watch.looked; ++descriptor) {
        if (watch.ready.Contains(descriptor) && !target.ClientActivity(descriptor))
            watch.all.Remove(descriptor);
    }
    watch.use.Resume();
}
