#include "Calls.h"

#include <errno.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace calls {

const std::function<ssize_t(int, const void*, size_t)>* write;
const std::function<int(clockid_t, timespec*)>* clock_gettime;
const std::function<int(const timespec*, timespec*)>* nanosleep;

ssize_t RealWrite(int descriptor, const void* data, size_t size) {
    iovec block = {};
    block.iov_base = const_cast<void*>(data);
    block.iov_len = size;
    return writev(descriptor, &block, 1);
}

int RealNanosleep(const timespec* request, timespec* rest) {
    const int error = clock_nanosleep(CLOCK_REALTIME, 0, request, rest);
    if (error != 0)
        errno = error;
    return error == 0 ? 0 : -1;
}

} // namespace calls

extern "C" {

ssize_t write(int descriptor, const void* data, size_t size) {
    return calls::write ? (*calls::write)(descriptor, data, size) : calls::RealWrite(descriptor, data, size);
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    return calls::clock_gettime ? (*calls::clock_gettime)(clock, now)
                                : static_cast<int>(syscall(SYS_clock_gettime, clock, now));
}

int nanosleep(const timespec* request, timespec* rest) {
    return calls::nanosleep ? (*calls::nanosleep)(request, rest) : calls::RealNanosleep(request, rest);
}
}
