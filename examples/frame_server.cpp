// Receives lines of text and answers each with an XML document:
//
//     <line number="1" length="11">3 &lt; 4 &amp; 5</line>
//
// Lines are numbered for each connection, and the length is that of the line as it came. Each line and each
// document is one frame.
//
// The server's thread does all the work, in the calls of the command target below. It blocks while it
// receives the rest of a line and while a client does not read its answers; the other clients then wait.

#include <stdio.h>
#include <sys/socket.h>

#include <map>
#include <memory>

#include <Windows/CmdTarget.h>
#include <Windows/MemFile.h>
#include <Windows/Server.h>
#include <Windows/SingleLock.h>
#include <Windows/SocketException.h>
#include <Windows/bstr.h>
#include <host/ServiceRegistry.h>

#include "Common.h"

namespace {

constexpr int kNoPortStatus = 3;

constexpr char kUsage[] =
    "usage: frame_server --services TABLE --service NAME [--log]\n"
    "\n"
    "Answers each line that a client sends with an XML document, until SIGINT or SIGTERM.\n"
    "\n"
    "  --services TABLE  a text file with a line \"name address port\" for each service\n"
    "  --service NAME    the service to offer, at its port of 127.0.0.1\n"
    "  --log             shows on standard error what the library logs\n"
    "\n"
    "Prints \"listening on 127.0.0.1:PORT\" when clients may connect.\n"
    "Status: 0 after a signal, 2 for a wrong command line, 3 when the port cannot be had, else 1.\n";

constexpr unsigned int kStop = 1; // the only message of the server's queue

class LineAnswerer : public CCmdTarget {
public:
    void ClientConnection(CSocket* socket) override {
        const CSingleLock lock(&m_mutex);
        m_connections[socket->GetDescriptor()].socket.reset(socket);
    }

    bool ClientActivity(int descriptor) override {
        if (m_stopping)
            return false;
        const bool open = Answer(Find(descriptor));
        if (!open)
            Remove(descriptor);
        return open;
    }

    // The one message is kStop.
    bool RouteMessage(void*, bool) override {
        m_stopping = true;
        EndLoop();
        return true;
    }

    // Has the server's thread end, also when a client keeps it waiting. Any thread but that one.
    void Stop(CServer& server) {
        PostThreadMessage(server.m_nThreadID, kStop, 0, nullptr);
        const CSingleLock lock(&m_mutex);
        for (const auto& connection : m_connections)
            shutdown(connection.first, SHUT_RDWR);
    }

private:
    struct Connection {
        std::unique_ptr<CSocket> socket;
        unsigned long lines = 0;
    };

    Connection& Find(int descriptor) {
        const CSingleLock lock(&m_mutex);
        return m_connections.at(descriptor);
    }

    void Remove(int descriptor) {
        const CSingleLock lock(&m_mutex);
        m_connections.erase(descriptor);
    }

    // False when the connection is of no use any more.
    static bool Answer(Connection& connection) {
        BSTR received = nullptr;
        const int length = connection.socket->Receive(received);
        const _bstr_t line(received, false);
        if (length < 0 || length > kLongestLine)
            return false;
        if (length == 0)
            return true; // an empty frame
        const auto size = static_cast<unsigned int>(length);
        unsigned char prefix[4] = {};
        CMemFile document(size + 1024);
        document.Write(prefix, sizeof(prefix)); // its place: the length is not known yet
        document.WriteF("<line number=\"%lu\" length=\"%u\">", ++connection.lines, size);
        document.WriteStrEntities(line);
        document.WriteF("</line>");
        CSocket::EncodeLength(document.m_uiFileLength - sizeof(prefix), document.m_pBuffer);
        return connection.socket->SendMemFileWithLengthPrefix(document);
    }

    CMutex m_mutex; // Stop() looks at the connections from another thread
    std::map<int, Connection> m_connections;
    bool m_stopping = false; // for the server's thread alone
};

std::unique_ptr<CServer> Listen(const CServiceAddress& address, CCmdTarget& target) {
    try {
        return std::make_unique<CServer>(address, target);
    } catch (const SocketException&) {
        throw Failure("cannot listen on port " + std::to_string(address.getPortNumber()) + "; is it in use?",
                      kNoPortStatus);
    }
}

int Serve(const Arguments& arguments, const StopSignals& signals) {
    CServiceAddress address;
    if (!RegSvcQueryForServiceAddress(arguments.service.c_str(), address, 10))
        throw Failure("no service " + arguments.service + " in " + arguments.services);

    LineAnswerer answerer;
    const std::unique_ptr<CServer> server = Listen(address, answerer);
    server->WaitUntilListening();
    printf("listening on 127.0.0.1:%d\n", address.getPortNumber());
    fflush(stdout);

    signals.Wait();
    answerer.Stop(*server);
    WaitForSingleObject(server->m_hThread, INFINITE);
    return 0;
}

} // namespace

int main(int argc, char** argv) { return RunProgram({kUsage, false, Serve}, argc, argv); }
