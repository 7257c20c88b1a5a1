// The host's service registry: names of services and the addresses behind them.
//
// A contract, no code: the host process defines and exports what is declared here.
#ifndef HOST_SERVICEREGISTRY_H
#define HOST_SERVICEREGISTRY_H

// The address of a service: an IPv4 address as text and a port.
//
// The library makes one empty on its stack, passes it to the lookup, reads it and destroys it, so the size of
// this class is compiled into the library: a host that changes the fields rebuilds the library. The fields
// are the host's; the library never touches them.
//
// Thread safety: a value; each object belongs to one thread at a time. At most the suspension lock of the
// CServer or CClient that is being constructed is held during a call; none is made before main; none may
// throw or block.
class CServiceAddress {
public:
    // An empty address.
    CServiceAddress();
    ~CServiceAddress();

    // The address as NUL-terminated dotted-decimal text. It belongs to the object and is copied at once.
    const char* getIPAddress() const;

    // The port in host byte order.
    int getPortNumber() const;

    char m_szIPAddress[16]; // what getIPAddress() returns
    int m_nPortNumber;      // what getPortNumber() returns
};

// Fills address for the named service; non-zero on success, 0 when there is no such service.
//
// Called by CClient's service name constructor alone, in the constructing thread, with that object's
// suspension lock held and no other, any number of threads at once. serviceName is NUL-terminated text that
// lives for the call, or NULL where there was no memory for it: there is no such service then. The third
// argument is always 10 and means whatever the host lets it mean. The lookup may block and allocate (the
// constructor waits for it); it must not throw.
int RegSvcQueryForServiceAddress(const char* serviceName, CServiceAddress& address, int);

#endif
