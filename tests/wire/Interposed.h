#ifndef TESTS_WIRE_INTERPOSED_H_
#define TESTS_WIRE_INTERPOSED_H_

#include <cstddef>
#include <functional>
#include <optional>

namespace sr_test {

/**
 * Hooks into calls that the product makes and that no peer can make fail. An empty hook lets the
 * call through. Set them before the object has threads and clear them after it has none.
 */
struct InterposedCalls {
    /// Inside PeekAllMessage (true) or PeekSomeMessage (false), with its argument.
    std::function<void(bool all, int argument)> pump;

    /// errno of a socket() that shall fail, or 0.
    std::function<int()> socketError;

    /// errno of an fcntl(fd, command) that shall fail, or 0.
    std::function<int(int command, int argument)> fcntlError;

    /// The result of ThdSafeSocket's plain receive, errno set accordingly; none lets it through.
    std::function<std::optional<int>(char* buf, int len, int flags, int timeoutMs)> recv;

    /// Before a thread is started; false makes the start fail.
    std::function<bool()> threadStarts;

    /// After a thread was started, on the thread that started it.
    std::function<void()> threadStarted;
};

InterposedCalls& Interposed();

/// Makes this thread's next allocation of exactly `size` bytes fail; 0 takes it back.
void FailAllocationOf(std::size_t size);

}  // namespace sr_test

#endif  // TESTS_WIRE_INTERPOSED_H_
