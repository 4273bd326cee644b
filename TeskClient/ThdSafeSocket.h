#ifndef TESKCLIENT_THDSAFESOCKET_H_
#define TESKCLIENT_THDSAFESOCKET_H_

#include <atomic>
#include <string>

#include "common/Export.h"
#include "common/LockOrder.h"

inline namespace screen_receiver {

/**
 * One connected stream socket on which one thread may send while another receives.
 *
 * Holds the descriptor but does not own it: the destructor leaves it open.
 *
 * Locks: a send lock and a receive lock, taken in this order. close() and set() take both, so they
 * wait for a running send (5 s at most) and a running receive (its time-out at most). No call
 * blocks in the kernel longer than one 5 ms step, whatever the descriptor's mode and options.
 */
class SR_API ThdSafeSocket {
public:
    ThdSafeSocket();
    ThdSafeSocket(int fd);
    ThdSafeSocket(const ThdSafeSocket&) = delete;
    ThdSafeSocket& operator=(const ThdSafeSocket&) = delete;
    ~ThdSafeSocket();

    /// The descriptor, -1 = none. No lock.
    int get() const { return m_nSocket; }

    /// Hands the descriptor to the caller, who must close it. No lock: a call in progress goes on.
    int release() { return m_nSocket.exchange(-1); }

    /// Closes the descriptor. Returns the platform's result.
    int close();

    /// Closes the descriptor that is held and takes over another one, with an empty peek buffer.
    void set(int fd);
    ThdSafeSocket& operator=(int fd);

    /**
     * Sends `len` bytes, retrying for 5 s.
     * @return the bytes sent: fewer than `len`, possibly 0, when the 5 s ran out. Never -1.
     */
    int send(const char* buf, int len, int flags);

    /**
     * Receives `len` bytes. With MSG_PEEK in `flags` they stay available to the next receive.
     *
     * @param bContinue  looked at after every step of at most 5 ms; false ends the wait.
     * @param timeoutMs  milliseconds, counted from the first attempt to read from the kernel.
     * @return `len`; fewer, possibly 0, when the time ran out; 0 when the peer has closed, whatever
     *         had arrived; -1 on error. errno then tells the last three apart: EAGAIN, 0, the
     * error; a whole read leaves errno alone.
     */
    int recv(char* buf, int len, int flags, const std::atomic<bool>& bContinue, int timeoutMs);
    /// The same for a flag that only this thread changes, or one whose changes the caller orders
    /// itself.
    int recv(char* buf, int len, int flags, bool& bContinue, int timeoutMs);
    /// The same with a flag that stays true.
    int recv(char* buf, int len, int flags, int timeoutMs);

    /// Bytes that recv() would return without waiting, as far as is known now.
    int available();

private:
    template <class Flag>
    int Receive(char* buf, int len, int flags, const Flag& bContinue, int timeoutMs);
    int TakePeeked(char* buf, int len, bool peek);
    void WaitReady(short events) const;

    std::atomic<int> m_nSocket;
    OrderedMutex<LockRank::SocketSend> m_SendLock;
    OrderedMutex<LockRank::SocketReceive> m_RecvLock;
    std::string m_strPeek;  // guarded by m_RecvLock
};

/// Closes a descriptor on destruction unless `released`. A copy takes the descriptor over.
class SR_API auto_closesocket {  // NOLINT(readability-identifier-naming): the given name
public:
    auto_closesocket(int fd = -1) : m_nSocket(fd) {}
    auto_closesocket(const auto_closesocket& other);
    auto_closesocket& operator=(const auto_closesocket& other);
    ~auto_closesocket();

    bool released = false;

private:
    void Close();

    mutable int m_nSocket;
};

}  // namespace screen_receiver

#endif  // TESKCLIENT_THDSAFESOCKET_H_
