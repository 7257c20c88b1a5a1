// What the host does for a thread of the library must not show there.
#ifndef REFERENCE_HOST_INTERNAL_UNDISTURBED_H
#define REFERENCE_HOST_INTERNAL_UNDISTURBED_H

#include <errno.h>
#include <pthread.h>

namespace reference_host {

// For its lifetime the thread cannot be cancelled; at its end errno is as it was.
class Undisturbed {
public:
    Undisturbed() : m_errno(errno), m_cancelState() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_cancelState);
    }
    ~Undisturbed() {
        pthread_setcancelstate(m_cancelState, nullptr);
        errno = m_errno;
    }
    Undisturbed(const Undisturbed&) = delete;
    Undisturbed& operator=(const Undisturbed&) = delete;

private:
    int m_errno;
    int m_cancelState;
};

} // namespace reference_host

#endif
