// What an application derives from to be told of connections, data and messages by CServer and CClient.
//
// Thread safety: all calls to one command target by one server or client come from that object's thread, one
// at a time. Lifetime: the command target must outlive the server or client.
#ifndef WINDOWS_CMDTARGET_H
#define WINDOWS_CMDTARGET_H

class CSocket;

class CCmdTarget {
public:
    virtual ~CCmdTarget();

    // A client has connected; the socket is the command target's from now on. This one does nothing, and
    // leaks it. Do not delete the socket here: its descriptor is watched already, and a closed one ends the
    // server's loop.
    virtual void ClientConnection(CSocket* pSocket);

    // A client's descriptor has data, or its peer has closed. True keeps watching it, false stops for good.
    // On -1 or -2 from the receive functions delete the socket and return false: returning true for a closed
    // peer has the call repeated without end.
    virtual bool ClientActivity(int fd);

    // The server has sent data. True keeps watching, false stops for good. Read what is there either way: the
    // client thread finds unread data on every pass and turns without waiting.
    virtual bool ServerActivity();

    // A message from the thread's queue: a MSG that lives for the call, and false. The result is ignored.
    virtual bool RouteMessage(void* pMsg, bool flag);

    // Does nothing.
    void OnFinalRelease();
};

#endif
