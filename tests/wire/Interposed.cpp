#include "tests/wire/Interposed.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdarg>
#include <new>

#include "TeskClient/ThdSafeSocket.h"

namespace sr_test {

namespace {

thread_local std::size_t failingSize = 0;

bool AllocationFails(std::size_t size) {
    if (failingSize == 0 || size != failingSize)
        return false;
    failingSize = 0;
    return true;
}

}  // namespace

InterposedCalls& Interposed() {
    static InterposedCalls calls;
    return calls;
}

void FailAllocationOf(std::size_t size) {
    failingSize = size;
}

}  // namespace sr_test

using sr_test::Interposed;

// The linker's --wrap gives these names.
extern "C" {

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
    const int error = Interposed().socketError ? Interposed().socketError() : 0;
    if (error == 0)
        return __real_socket(domain, type, protocol);
    errno = error;
    return -1;
}

int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    const int argument = command == F_GETFL || command == F_GETFD ? 0 : va_arg(args, int);
    va_end(args);
    const int error = Interposed().fcntlError ? Interposed().fcntlError(command, argument) : 0;
    if (error == 0)
        return __real_fcntl(fd, command, argument);
    errno = error;
    return -1;
}

void __wrap__Z14PeekAllMessagei(int argument);
void __wrap__Z14PeekAllMessagei(int argument) {
    if (Interposed().pump)
        Interposed().pump(true, argument);
}

void __wrap__Z15PeekSomeMessagei(int argument);
void __wrap__Z15PeekSomeMessagei(int argument) {
    if (Interposed().pump)
        Interposed().pump(false, argument);
}

int __real__ZN15screen_receiver13ThdSafeSocket4recvEPciii(ThdSafeSocket*, char*, int, int, int);
int __wrap__ZN15screen_receiver13ThdSafeSocket4recvEPciii(ThdSafeSocket*, char*, int, int, int);
int __wrap__ZN15screen_receiver13ThdSafeSocket4recvEPciii(
    ThdSafeSocket* sock, char* buf, int len, int flags, int timeoutMs) {
    if (Interposed().recv) {
        const std::optional<int> result = Interposed().recv(buf, len, flags, timeoutMs);
        if (result)
            return *result;
    }
    return __real__ZN15screen_receiver13ThdSafeSocket4recvEPciii(sock, buf, len, flags, timeoutMs);
}

bool __real__ZN5boost6thread21start_thread_noexceptEv(void* thread);
bool __wrap__ZN5boost6thread21start_thread_noexceptEv(void* thread);
bool __wrap__ZN5boost6thread21start_thread_noexceptEv(void* thread) {
    if (Interposed().threadStarts && !Interposed().threadStarts())
        return false;
    const bool started = __real__ZN5boost6thread21start_thread_noexceptEv(thread);
    if (Interposed().threadStarted)
        Interposed().threadStarted();
    return started;
}

#if __SIZEOF_SIZE_T__ == 8
#define SR_WRAPPED_NEW   __wrap__Znwm
#define SR_REAL_NEW      __real__Znwm
#define SR_WRAPPED_NEW_N __wrap__ZnwmRKSt9nothrow_t
#define SR_REAL_NEW_N    __real__ZnwmRKSt9nothrow_t
#else
#define SR_WRAPPED_NEW   __wrap__Znwj
#define SR_REAL_NEW      __real__Znwj
#define SR_WRAPPED_NEW_N __wrap__ZnwjRKSt9nothrow_t
#define SR_REAL_NEW_N    __real__ZnwjRKSt9nothrow_t
#endif

void* SR_REAL_NEW(std::size_t size);
void* SR_WRAPPED_NEW(std::size_t size);
void* SR_WRAPPED_NEW(std::size_t size) {
    if (sr_test::AllocationFails(size))
        throw std::bad_alloc();
    return SR_REAL_NEW(size);
}

void* SR_REAL_NEW_N(std::size_t size, const std::nothrow_t& tag);
void* SR_WRAPPED_NEW_N(std::size_t size, const std::nothrow_t& tag);
void* SR_WRAPPED_NEW_N(std::size_t size, const std::nothrow_t& tag) {
    return sr_test::AllocationFails(size) ? nullptr : SR_REAL_NEW_N(size, tag);
}

}  // extern "C"
