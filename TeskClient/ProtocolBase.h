#ifndef TESKCLIENT_PROTOCOLBASE_H_
#define TESKCLIENT_PROTOCOLBASE_H_

#include <atomic>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/thread.hpp>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "TeskClient/ErrorHandler.h"
#include "TeskClient/ThdSafeSocket.h"
#include "common/Export.h"
#include "common/LockOrder.h"

/**
 * Waits at most `ms` milliseconds (wall clock) for the condition; takes `mutex` for the wait only.
 * @return whether it was signalled. Signals can be lost: callers look at their state in slices.
 */
bool timed_wait(boost::condition_variable_any& condition, boost::recursive_mutex& mutex, int ms);

inline namespace screen_receiver {

/**
 * A client of a framed command protocol over one TCP connection. The frame rule stands in
 * WireFormat.h, the lock order in common/LockOrder.h.
 *
 * Derive from it, set the prefix in the constructor, and enter a payload reader (and for an event a
 * handler) for each command byte.
 *
 * Threads of one object, besides the application's:
 *   - the network thread reads every frame. It completes the request that waits for the frame's
 *     command byte, or queues an event. When the link ends by itself it starts the close thread.
 *   - the dispatcher thread takes the events from the queue, in order, and calls their handlers.
 *   - the close thread runs OnConnectClose once and ends. It exists because closing joins the
 *     network thread, which cannot join itself. It closes only the connection that started it.
 *
 * Who stops what: CloseConnect lowers m_bRunning, joins the network thread and closes the socket.
 * The dispatcher sees m_bRunning and ends; the next InitThread or the destructor joins it. The
 * close thread is joined by the next one's starter or by the destructor.
 *
 * What an object's own threads may not do is wait for themselves. On the dispatcher and the network
 * thread, OpenConnect, OpenSocket, InitSocket and ReConnect record -6527002 with the text
 * "ProtocolBase::OpenConnect" and return it; so does CloseConnect on the network thread.
 *
 * A derived class that overrides a virtual called by these threads calls EndThreads() first thing
 * in its destructor.
 *
 * Results: int, 0 or positive on success, else the negative code that is also recorded
 * (GetErrorCode). Nothing throws but std::bad_alloc on a caller's thread.
 */
class SR_API ProtocolBase : public NibErrorHandler {
public:
    /// Handles an event on the dispatcher thread; gets the payload, zero-terminated.
    typedef int (ProtocolBase::*CmdHandler)(char*);

    /**
     * Reads the rest of a frame from m_Socket on the network thread. Gets the payload buffer; what
     * it leaves there goes to the event's handler. Must return a positive value to keep the link: 0
     * and -1 break it, with errno (or, when that is 0, -6528002) as the recorded error.
     */
    typedef int (ProtocolBase::*RecvHandler)(std::string&);

    ProtocolBase();

    /**
     * Sets the bytes that open every frame. Embedded zero bytes are allowed.
     * Threads: any. Waits while the network thread reads a frame. A prefix of another length takes
     *          effect with the next connection.
     */
    virtual void SetCmdPrefix(const char* prefix, int len);

    /**
     * Sets the bytes that open a custom frame (see OnCustCommand): as many bytes of `prefix` as the
     * command prefix has now. Set the command prefix first, and both before connecting: no lock.
     */
    virtual void SetCustCmdPrefix(const char* prefix);

    /// Socket send and receive time-out in seconds for the next connection (default 30). Returns 0.
    virtual int SetSndRcvTimeout(int sec);

    /**
     * Closes the connection there is and opens a new one: tries all ports at once and keeps the
     * first that connects and passes HandShake.
     *
     * @param host           dotted IPv4 address; names are not looked up.
     * @param vecPort        candidate ports, first wins.
     * @param bNoDispatcher  true starts no dispatcher: events pile up unhandled.
     * @param nTimeout       seconds for connecting.
     * @return 0; -6528001 nothing connected in time; -6528006 no handshake passed; -6528004 no
     *         ports; -6528005 another connection is in the way; -6527001 no thread could be
     * started; -6527002 called on one of this object's own threads; -errno no socket.
     *
     * Threads: any but the dispatcher and network threads. Concurrent calls wait for one another; at
     *          most one connection remains.
     * Blocks:  nTimeout, after what closing takes (CloseConnect), a running event handler and the
     *          calls of other threads.
     */
    virtual int OpenConnect(const char* host,
                            const std::vector<unsigned short>& vecPort,
                            bool bNoDispatcher,
                            int nTimeout);

    /**
     * Opens the connection again, with the remembered host, ports and settings. It must still hold
     * its descriptor: alive, or dead but not closed yet (for an override of OnConnectClose).
     * @return as OpenConnect; -6527004 when there is nothing to open again.
     */
    virtual int ReConnect();

    /**
     * Adopts a connected descriptor, without a handshake; owns it unless this fails before it is
     * adopted (-6527002, -6528005).
     */
    virtual int InitSocket(int sock, bool bNoDispatcher);

    /**
     * Sends one request and waits for the frame whose command byte is `ansCode`. The answer's
     * payload goes to the reader registered for it, on the network thread.
     *
     * @param reqCode, ansCode  the low 8 bits count; an answer code of 0 waits for nothing.
     * @param name              the command's name in log lines and error texts.
     * @param peek              which message pump the wait serves: PeekAllMessage or
     * PeekSomeMessage.
     * @param timeoutSec        seconds; 0 does not wait.
     * @return 0 when the answer was read; -6528101 no answer in time, or cancelled by teardown; the
     *         error already recorded (-6528002 ...) when the link had failed; -6527002 when called
     *         from inside a message pump.
     *
     * Threads: any but the network thread. One request is in flight at a time: a second one takes the
     *          place of the first, which then times out, unless both wait for the same code.
     * Blocks:  at most 5 s to send and timeoutSec to wait; an answer that has begun to arrive by then
     *          gets 5 s more, and a read in progress its 5 s. A request whose connection ends or is
     *          replaced returns within about 30 ms, or after the read in progress.
     * Limits:  only the command byte ties an answer to its request. An answer that comes after the
     *          time-out ends the next request of the same code.
     */
    virtual int RequestCommand(int reqCode,
                               int ansCode,
                               const char* name,
                               const std::string& payload,
                               bool peek,
                               int timeoutSec);

    /// Sends prefix, code and data; waits for nothing, records nothing. Returns the bytes sent.
    virtual int AckCommand(int ackCode, const char* name, const std::string& data);

    /// Sends the prefix and `len` bytes, with no command byte. Returns the bytes sent.
    virtual int SendCommandData(const char* data, int len, int flags, bool log);

    /**
     * Ends the connection: stops and joins the network thread, closes the socket, cancels requests
     * that wait. Events still queued are dropped.
     *
     * @return 0; -6527002 on the network thread, which it would have to join.
     *
     * Threads: any but the network thread. Inside an event handler it closes the connection that the
     *          event came from, if that is still the current one.
     * Blocks:  about 30 ms; at most 5 s more for a read in mid-frame and 5 s for a running send.
     */
    virtual int CloseConnect();

    /// True only while a waiting loop is inside its message pump.
    virtual bool IsFuncPending();

    /// True while a descriptor is held. A dead peer shows only once a read or a request has failed.
    virtual bool IsConnected();
    virtual int GetSocket();

    /// Connects without starting threads; the first half of OpenConnect.
    virtual int OpenSocket(const char* host,
                           const std::vector<unsigned short>& vecPort,
                           int nTimeout);

    /// Hands the descriptor to the caller, who must close it.
    virtual int ReleaseSocket();

    virtual ~ProtocolBase();

    // Reactions. Overrides run on the thread that is named; none may wait for that thread.

    /// Close thread, after the link has ended by itself.
    virtual void OnConnectClose();
    /// Dispatcher thread: a handler's result.
    virtual void HandleRetVal(unsigned char cmd, int result);
    /// Network thread: reads a custom frame. 0 or -1 breaks the link.
    virtual int OnCustCommand();
    /// Network thread, for every frame.
    virtual void OnPeerAlive();
    /// Connecting thread: exchanges a greeting over `sock`, still non-blocking. Negative = failed.
    virtual int HandShake(int sock);
    /// Network thread, at least every 30 ms when idle: false ends the connection.
    virtual bool IsPeerAlive();
    /// Body of the network thread.
    virtual void NetworkThread();

    int OpenConnectImpl(const char* host,
                        const std::vector<unsigned short>& vecPort,
                        bool bNoDispatcher,
                        int nTimeout);

    /// Sets the socket's options; one that fails is logged only.
    void ConfigSocket(int sock);

    /// Starts the threads on the socket that is held. m_ConnMutex held.
    int InitThread(bool bNoDispatcher);

    /// Body of the dispatcher thread.
    void DispatcherThread();

    /// The default handler. The network thread never queues an event that has it.
    int OnUnknownCommand(char* data);
    template <class T>
    int OnUnknownCommand(T*) {
        return OnUnknownCommand(static_cast<char*>(nullptr));
    }

    /// The default reader, of a frame without payload.
    int RecvUnknownData(std::string& data);

    /**
     * Closes the connection and joins all threads, for destructors: a derived class's members and
     * overrides are gone before the base's destructor runs. Calls of other threads end as
     * cancelled, and nothing opens any more (-6528005). A second call does nothing.
     */
    void EndThreads();

protected:
    /**
     * Network thread, inside a reader of an answer: true once nobody waits for it any more. A
     * reader of many pieces looks at it between them, so that a receiver that trickles its answer
     * cannot hold the caller, who has to wait for the reader to let go of the result.
     */
    bool IsAnswerAbandoned() const;

    // Filled by constructors, only read afterwards.
    CmdHandler m_CmdHandlers[256];
    RecvHandler m_RecvHandlers[256];

    OrderedMutex<LockRank::Events> m_EventMutex;
    OrderedMutex<LockRank::Send> m_SendMutex;
    OrderedMutex<LockRank::Connection> m_ConnMutex;
    boost::thread_group* m_pThreadGroup;  // the network thread; guarded by m_ConnMutex
    OrderedMutex<LockRank::EventWait> m_EventWaitMutex;
    OrderedMutex<LockRank::AnswerWait> m_AnsWaitMutex;
    boost::condition_variable_any m_EventCond;
    boost::condition_variable_any m_AnsCond;
    boost::thread* m_pDispatcherThread;  // guarded by m_ConnMutex
    boost::thread* m_pCloseThread;  // the network thread's; the destructor's once that has ended
    OrderedMutex<LockRank::Receive> m_RecvMutex;
    ThdSafeSocket m_Socket;
    std::atomic<bool> m_bRunning;  // raised by InitThread, lowered by teardown; read by every loop
    std::deque<std::pair<unsigned char, std::string>> m_EventQueue;  // guarded by m_EventMutex
    std::atomic<unsigned char> m_nAnsCode;  // 0 = none; written under m_SendMutex
    std::string m_strCmdPrefix;      // written under m_RecvMutex and m_SendMutex, read under either
    std::string m_strCustCmdPrefix;  // set-up only
    std::string m_strSendBuf;        // guarded by m_SendMutex; its front is the prefix
    std::atomic<bool> m_bFuncPending;       // raised by a waiting loop around its message pump
    std::atomic<int> m_nSndRcvTimeout;      // seconds
    std::atomic<bool> m_bClosing;           // raised by teardown, aborts OpenSocket's loop
    std::string m_strHost;                  // guarded by m_ConnMutex
    std::vector<unsigned short> m_vecPort;  // guarded by m_ConnMutex
    std::atomic<bool> m_bNoDispatcher;
    int m_nConnectTimeout;  // seconds; guarded by m_ConnMutex

private:
    enum class Step { Ready, Retry, LinkLost };  // LinkLost: the error is recorded already
    enum class WaitEnd { Answered, TimedOut, Cancelled };
    struct WaitingRequest;
    class Unlisting;
    struct Candidate;
    typedef boost::unique_lock<OrderedMutex<LockRank::Connection>> ConnLock;

    // Connection
    bool WouldJoinItself() const;
    int RefuseOwnThread();
    bool LockOwnConnection(ConnLock& lock);
    int StartConnects(const char* host,
                      const std::vector<unsigned short>& vecPort,
                      std::vector<Candidate>& candidates);
    bool ConnectFirst(std::vector<Candidate>& candidates, int nTimeout);
    bool TakeFirstWritable(std::vector<Candidate>& candidates,
                           struct timeval* timeout,
                           bool& writable);
    void RestoreBlocking(int sock);
    void Adopt(int sock);
    void LowerRunning();
    void EndNetworkThread();
    void CloseSocket();
    void ClaimConnection();
    bool IsOfEarlierConnection() const;

    // Network thread
    bool IsPeerStillAlive();
    Step WaitReadable(struct timeval* timeout);
    Step ReadOneFrame(std::string& prefix, std::string& payload);
    Step SyncToPrefix(std::string& prefix);
    Step DropGarbageByte(unsigned char first);
    Step TakeFrame(unsigned char cmd, std::string& payload);
    int ReadPayload(unsigned char cmd, std::string& payload);
    Step ReadAnswer(unsigned char cmd, std::string& payload);
    Step TakeEvent(unsigned char cmd, std::string& payload);
    bool Queue(unsigned char cmd, const std::string& payload);
    Step LoseLink(int line);
    void HandOverToCloseThread();
    bool DisposeOfCloseThread();

    // Dispatcher thread
    bool TakeQueuedEvent(unsigned char& cmd, std::string& payload);

    // Requests; m_SendMutex held
    void BuildFrame(std::string_view code, std::string_view data);
    int SendBuffer(int flags);
    void StartWaiting(WaitingRequest& request, unsigned char ansCode);
    bool StopWaiting(WaitingRequest& request);
    void SettleWaiting();
    // Requests; no lock
    typedef boost::unique_lock<OrderedMutex<LockRank::Send>> SendLock;
    SendLock LockForSending();
    bool IsAnswered(WaitingRequest& request);
    bool IsCancelled(const WaitingRequest& request) const;
    WaitEnd WaitForAnswer(WaitingRequest& request, bool peek, int timeoutSec, int& errorBefore);
    void LetReaderFinish(const WaitingRequest& request, SendLock& lock);
    int RecordCancelled(int errorBefore);
    void PumpMessages(bool all);
    bool IsReentered(bool (*pending)(ProtocolBase&));

    std::atomic<unsigned> m_nConnection;  // changes with every connection, and when it is closed
    std::vector<WaitingRequest*> m_vecWaiting;  // those that m_nAnsCode stands for; by m_SendMutex
    std::atomic<int> m_nClosers;                // threads that need the socket from its senders
    std::atomic<int> m_nPumping;                // threads inside a message pump
    std::atomic<bool> m_bTornDown;              // m_bRunning was lowered by a teardown
    std::atomic<bool> m_bEnded;                 // raised by EndThreads
};

}  // namespace screen_receiver

#endif  // TESKCLIENT_PROTOCOLBASE_H_
