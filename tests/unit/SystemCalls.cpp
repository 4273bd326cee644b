#include "tests/unit/SystemCalls.h"

#include <sys/socket.h>

#include <cerrno>

namespace {

thread_local sr_test::SystemCalls* t_Watch = nullptr;

ssize_t Counted(ssize_t result) {
    const int error = errno;
    if (t_Watch != nullptr)
        t_Watch->Count(result >= 0);
    errno = error;
    return result;
}

}  // namespace

// The linker's --wrap gives these names.
extern "C" {

ssize_t __real_send(int fd, const void* buffer, size_t size, int flags);
ssize_t __wrap_send(int fd, const void* buffer, size_t size, int flags);
ssize_t __wrap_send(int fd, const void* buffer, size_t size, int flags) {
    if (t_Watch != nullptr && t_Watch->TakeInjected())
        return Counted(-1);
    return Counted(__real_send(fd, buffer, size, flags));
}

ssize_t __real_recv(int fd, void* buffer, size_t size, int flags);
ssize_t __wrap_recv(int fd, void* buffer, size_t size, int flags);
ssize_t __wrap_recv(int fd, void* buffer, size_t size, int flags) {
    if (t_Watch != nullptr && t_Watch->TakeInjected())
        return Counted(-1);
    return Counted(__real_recv(fd, buffer, size, flags));
}

}  // extern "C"

namespace sr_test {

SystemCalls::SystemCalls() {
    t_Watch = this;
}

SystemCalls::~SystemCalls() {
    t_Watch = nullptr;
}

void SystemCalls::FailNext(int count, int error) {
    m_nInject = count;
    m_nError = error;
}

bool SystemCalls::TakeInjected() {
    if (m_nInject == 0)
        return false;
    --m_nInject;
    errno = m_nError;
    return true;
}

}  // namespace sr_test
