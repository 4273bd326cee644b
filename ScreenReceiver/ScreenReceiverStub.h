#ifndef SCREENRECEIVER_SCREENRECEIVERSTUB_H_
#define SCREENRECEIVER_SCREENRECEIVERSTUB_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "ScreenReceiver/ScreenSenderInfo.h"
#include "TeskClient/ProtocolBase.h"
#include "common/Export.h"
#include "common/LockOrder.h"

inline namespace screen_receiver {

/// Notification of the receiver: three values whose meaning is the receiver's. Its result is
/// ignored.
typedef int (*ScrRcvNotifyCB)(int, int, int);

struct ReceiverCommand;

/**
 * The client of one screen receiver: one method per command of the service on TCP port 19996.
 *
 * Threads: any, the notification callback included. Requests of several threads wait for one another
 *          and each gets its own answer. See ProtocolBase for the object's own threads.
 * Blocks:  a request, after the requests before it, at most 5 s to send and 10 s for the answer; an
 *          answer that has begun to arrive by then gets 5 s more, and a read in progress its 5 s. On a
 *          closed connection a request fails after 5 s.
 *
 * Results of requests: 0 or the service's own result; on failure the negative code that is
 * recorded: -6528101 no answer in time, or "Cancel" when the connection was closed meanwhile;
 * -6528002 the receiver closed the connection; -errno the link failed. A service result that is
 * negative cannot be told from a failure by its number; its error message is the system's text.
 *
 * Example:
 * @code
 * ScreenReceiverStub receiver;
 * std::vector<ScreenSenderInfo> senders;
 * if (receiver.Init("192.0.2.7", false) == 0 && receiver.GetSenderList(senders) == 0)
 *     for (const ScreenSenderInfo& sender : senders)
 *         std::puts(sender.GetUserName());
 * @endcode
 */
class SR_API ScreenReceiverStub : public ProtocolBase {
public:
    struct ModeratorInfo {
        int32_t nModeratorId;
        uint8_t byModeratorFlag;
    };

    ScreenReceiverStub();
    ~ScreenReceiverStub() override;

    /**
     * Connects to port 19996 of a host, after closing the connection there is.
     *
     * @param host  dotted IPv4 address.
     * @param flag  accepted and ignored.
     * @return 0, also when the host refuses the port: the refusal shows in GetErrorCode within
     * about 30 ms and ends the connection. Negative as OpenConnect; -6528001 when a host does not
     *         answer.
     *
     * Blocks: at most 3 s, after closing the earlier connection.
     */
    virtual int Init(const char* host, bool flag);

    /**
     * Reads the list of senders, in one of three selections that the service makes.
     *
     * @param list  resized to the list's length; elements are overwritten in place. Must not be
     *              touched by another thread meanwhile. After a link that broke in mid-list the
     *              elements that were not read keep their old or default contents.
     */
    virtual int GetSenderList(std::vector<ScreenSenderInfo>& list);
    virtual int GetNonLocalSenderList(std::vector<ScreenSenderInfo>& list);
    virtual int GetValidSenderList(std::vector<ScreenSenderInfo>& list);

    /// Reads the moderator settings.
    virtual int GetModeratorInfo(ModeratorInfo& info);
    /// Writes the moderator settings. Returns the service's result.
    virtual int SetModeratorInfo(ModeratorInfo info);
    /// Shows a sender's image. Returns the service's result.
    virtual int StartPlayImage(int senderId, unsigned char option);
    /// Stops showing a sender's image. Returns the service's result.
    virtual int StopPlayImage(int senderId);
    /// Logs a sender out. Returns the service's result.
    virtual int ForceSenderLogout(int senderId);
    /// Keeps conference control alive; how often it must be called is the service's rule.
    virtual int RefreshConfCtrlTimer();
    /// Leaves conference control.
    virtual int QuitConfCtrl();

    /**
     * Sets the notification callback; null switches notifications off. One callback an object. A
     * call in progress may still be of the old one.
     */
    virtual void SetScrRcvNotifyCB(ScrRcvNotifyCB cb);

    // Reply readers, on the network thread. Each consumes exactly the rest of its frame and returns
    // the result of its last receive.
    int Recv12ByteData(std::string& payload);
    int Recv32ByteReserve(std::string& payload);
    int RecvErrorCodeParam(std::string& payload);
    int RecvGetModeratorInfo(std::string& payload);
    int RecvGetSenderListParam(std::string& payload);

    /// Event handler, on the dispatcher thread: decodes 12 bytes and calls the callback. Returns
    /// -1.
    int OnNotifyEvent(char* body);

    /**
     * Writes one record of a sender list into `sender`.
     * @param record  64 bytes, or 128 when bLong. A name without its NUL ends with the record. A
     *                short record leaves the OS, application and pointer-input types alone.
     */
    static void DecodeSender(const char* record, bool bLong, ScreenSenderInfo& sender);

protected:
    // Where the reader of the request in flight stores: set before the request takes m_SendMutex, which
    // the reader holds. Keeps its value afterwards, see m_pRetiredResult. Requests that do not go
    // through the methods above (RequestCommand called directly) must not run beside them.
    void* m_pRecvResult;
    std::atomic<ScrRcvNotifyCB> m_pfnNotifyCB;

private:
    // m_RequestMutex held.
    int Request(const ReceiverCommand& command, const std::string& payload, void* result);

    int RequestList(const ReceiverCommand& command, std::vector<ScreenSenderInfo>& list);
    int RequestResult(const ReceiverCommand& command, const std::string& payload);
    int RecordResult(int result, int line);
    void* ResultOfRequest() const;

    void* m_pRetiredResult;  // that of a request that has returned: not written through any more
    // Held from setting m_pRecvResult to reading the result.
    OrderedMutex<LockRank::Request> m_RequestMutex;
    bool m_bRequesting;  // guarded by m_RequestMutex
};

}  // namespace screen_receiver

#endif  // SCREENRECEIVER_SCREENRECEIVERSTUB_H_
