// C library calls that a test can replace: this program defines them in front of the C library's.
#ifndef TESTS_REFERENCE_HOST_CALLS_H
#define TESTS_REFERENCE_HOST_CALLS_H

#include <sys/types.h>
#include <time.h>

#include <functional>
#include <memory>

namespace calls {

// Where a call goes; NULL is the C library. Plain pointers, as calls come before main and after it.
extern const std::function<ssize_t(int, const void*, size_t)>* write;
extern const std::function<int(clockid_t, timespec*)>* clock_gettime;
extern const std::function<int(const timespec*, timespec*)>* nanosleep;

// The C library's own. Both are cancellation points.
ssize_t RealWrite(int descriptor, const void* data, size_t size);
int RealNanosleep(const timespec* request, timespec* rest);

// Replaces a call for its lifetime. No other thread may make the call when that begins or ends.
template <class Signature> class Replaced {
public:
    template <class Function>
    Replaced(const std::function<Signature>*& call, Function function)
        : m_function(new std::function<Signature>(function)), m_call(call) {
        m_call = m_function.get();
    }
    ~Replaced() { m_call = nullptr; }
    Replaced(const Replaced&) = delete;
    Replaced& operator=(const Replaced&) = delete;

private:
    const std::unique_ptr<const std::function<Signature>> m_function;
    const std::function<Signature>*& m_call;
};

} // namespace calls

#endif
