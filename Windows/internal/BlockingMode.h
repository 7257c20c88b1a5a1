// Remembers the blocking mode of a socket, switches it, and puts it back on request.
//
// There is no destructor that restores: some failures leave the socket in the mode they happened in, by
// contract, and a thread that is cancelled in a receive must not touch the socket again, which may be gone by
// then.
#ifndef WINDOWS_INTERNAL_BLOCKINGMODE_H
#define WINDOWS_INTERNAL_BLOCKINGMODE_H

namespace windows {

// Socket is CSocket or one of its subclasses.
template <typename Socket> class BlockingMode {
public:
    BlockingMode(Socket& socket, bool before, bool wanted) : m_socket(socket), m_before(before) {
        m_socket.SetBlockingMode(wanted);
    }

    void Restore() { m_socket.SetBlockingMode(m_before); }

private:
    Socket& m_socket;
    const bool m_before;
};

} // namespace windows

#endif
