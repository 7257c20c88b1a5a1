// What host/ServiceRegistry.h asks.
#include <host/ServiceRegistry.h>

#include <new>
#include <string>

#include "clause.h"

namespace host_conformance {

namespace {

const int third = 10; // what the library passes
const char* const unknown = "no-service-has-this-name";

using AddressRoom = Room<CServiceAddress>;

// An address that goes as the library's does.
class Address {
public:
    explicit Address(unsigned char pattern = 0x5A)
        : m_room(pattern), m_address(new (m_room.Place()) CServiceAddress) {}
    ~Address() { m_address->~CServiceAddress(); }
    Address(const Address&) = delete;
    Address& operator=(const Address&) = delete;

    CServiceAddress* operator->() { return m_address; }
    CServiceAddress& operator*() { return *m_address; }

private:
    AddressRoom m_room;
    CServiceAddress* m_address;
};

std::string TextOf(Address& address) {
    const char* const text = address->getIPAddress();
    if (!text)
        Fail("expected a text from getIPAddress, saw NULL");
    if (!memchr(text, '\0', sizeof(CServiceAddress)))
        Fail("expected the text of getIPAddress to end, saw no NUL in %zu bytes", sizeof(CServiceAddress));
    return text;
}

void LookUp(Address& address) {
    const Service service = KnownService();
    std::string name = service.name;
    if (!RegSvcQueryForServiceAddress(&name[0], *address, third))
        Fail("expected non-zero for the service %s, saw 0", service.name.c_str());
    name.assign(name.size(), '-'); // it lives for the call only
}

void Unknown() {
    Address address;
    const int result = RegSvcQueryForServiceAddress(unknown, *address, third);
    if (result != 0)
        Fail("expected 0 for an unknown service, saw %d", result);
}

void Known() {
    const Service service = KnownService();
    Address address;
    LookUp(address);
    const std::string text = TextOf(address);
    const int port = address->getPortNumber();
    if (text != service.address || port != service.port)
        Fail("expected %s:%d for %s, saw %s:%d", service.address.c_str(), service.port, service.name.c_str(),
             text.c_str(), port);
}

void Threads() {
    InThreads([](int) {
        for (int i = 0; i < 50; ++i) {
            Address address;
            RegSvcQueryForServiceAddress(unknown, *address, third);
            TextOf(address);
            address->getPortNumber();
        }
    });
}

void Empty() {
    Address one(0xFF);
    Address other(0x31);
    if (!TextOf(one).empty() || !TextOf(other).empty())
        Fail("expected \"\" from getIPAddress of a new address, saw \"%s\"", TextOf(other).c_str());
    if (one->getPortNumber() != other->getPortNumber())
        Fail("expected one port of all new addresses, saw %d and %d", one->getPortNumber(),
             other->getPortNumber());
}

void OwnText() {
    Address filled;
    LookUp(filled);
    const char* const text = filled->getIPAddress();
    const std::string before = text;
    Address other;
    other->getIPAddress();
    if (text != before)
        Fail("expected the text of getIPAddress to belong to its object, saw \"%s\" become \"%s\"",
             before.c_str(), text);
}

void Size() {
    AddressRoom room;
    CServiceAddress* const address = new (room.Place()) CServiceAddress;
    RegSvcQueryForServiceAddress(unknown, *address, third);
    address->~CServiceAddress();
    room.ExpectNothingBehind("CServiceAddress");
}

} // namespace

const Clause registryClauses[] = {
    {"registry.unknown", "RegSvcQueryForServiceAddress returns 0 for an unknown name", NeedsNothing, Unknown},
    {"registry.known", "RegSvcQueryForServiceAddress fills the address of a service", NeedsService, Known},
    {"registry.threads", "several threads look names up at once", NeedsNothing, Threads},
    {"address.empty", "a new CServiceAddress is empty, and nothing in it is left to chance", NeedsNothing,
     Empty},
    {"address.own-text", "what getIPAddress returns belongs to the object", NeedsService, OwnText},
    {"address.size", "a CServiceAddress is as large as its header says", NeedsNothing, Size},
    {nullptr, nullptr, NeedsNothing, nullptr}};

} // namespace host_conformance
