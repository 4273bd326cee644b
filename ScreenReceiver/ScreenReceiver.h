/**
 * Control of a screen receiver: thirteen functions over one client object of the process.
 *
 * 1. Everything starts with Init(), which connects to TCP port 19996 of a receiver. Nothing reconnects
 *    by itself: when a call has failed with a broken link, call Init() again.
 * 2. Every function may be called from any thread, and from inside the notification callback, except
 *    Init(), which is refused there. Requests of several threads wait for one another.
 * 3. Results: 0 is success, a negative number is a failure of this library (its code, or a negated
 *    errno), anything else is the receiver's own result, passed through. The list functions return a
 *    count instead; GetErrorCode() tells their failures.
 * 4. Pointers must not be null.
 * 5. "Blocks: one request" below means, after the requests that other threads made before: at most 5 s
 *    to send and 10 s for the answer; an answer that has begun to arrive by then gets 5 s more, and a
 *    read in progress its 5 s. Without a connection a request fails after 5 s. When the connection ends
 *    meanwhile, it returns within about 30 ms, or after a read in progress.
 * 6. Only its command ties an answer to a request. After a time-out (-6528101) a late answer would end
 *    the next request of the same command with old data: call Init() again before repeating it.
 * 7. A cable that was pulled cannot be detected; it shows as a time-out.
 */
#ifndef SCREENRECEIVER_SCREENRECEIVER_H_
#define SCREENRECEIVER_SCREENRECEIVER_H_

#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#define SCREENRECEIVER_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/** Moderator settings; what the values mean is the receiver's affair. */
typedef struct ModeratorInfo {
    int32_t nModeratorId;
    uint8_t byModeratorFlag;
} ModeratorInfo;

/** One sender. What status, position and types mean is the receiver's affair. 156 bytes. */
typedef struct ScreenSenderRecord {
    uint32_t nPrimaryKey;  /**< the id that the commands take */
    char szUserName[128];  /**< NUL-terminated, bytes as the receiver sent them */
    uint32_t nIpAddress;   /**< IPv4 address as a number: 0x7F000001 is 127.0.0.1 */
    uint8_t bySplitScreen; /**< split-screen position */
    int32_t nStatus;
    int32_t nOSType; /**< 0 from receivers that send short records, as the next two */
    int32_t nAppType;
    int32_t nPointInputType;
} ScreenSenderRecord;

/**
 * Connects to a receiver, after closing the connection there is.
 *
 * @param host  dotted IPv4 address; names are not looked up.
 * @param flag  no effect.
 * @return 0; -6528001 the host did not answer within 3 s; -6528005 another thread connected
 *         meanwhile; -6527001 no thread could be started; -6527002 called inside the callback;
 *         -errno no socket.
 *
 * Errors:  what the system refuses at once still gives 0 and shows in GetErrorCode() within about
 *          30 ms: -ECONNREFUSED no receiver on the port, -ENOTCONN no such address or no route to it.
 * Threads: any, but refused inside the notification callback.
 * Blocks:  3 s to connect, after 10 s at most to close the earlier connection, a running callback, and
 *          the calls of Init() on other threads.
 */
SCREENRECEIVER_API int Init(const char* host, bool flag);

/**
 * Reads the list of all senders that the receiver knows.
 *
 * @param[out] list  set to a new array of pointers to n records; untouched when 0 is returned.
 * @return the number of records n. 0 for an empty list and on failure: GetErrorCode() tells them
 *         apart. When the link broke in mid-list, n is the announced number, the records that did
 * not arrive are all zero (split screen 128), and GetErrorCode() is negative.
 *
 * Ownership: the caller releases each of the n records, then the array, with free().
 * Errors:    when memory runs out, what was built is freed and 0 returned.
 * Threads:   any, the notification callback included.
 * Blocks:    one request.
 * Example:   examples/list-senders.c
 */
SCREENRECEIVER_API int GetSenderList(ScreenSenderRecord*** list);

/** As GetSenderList(), for the senders that are not local to the receiver. */
SCREENRECEIVER_API int GetNonLocalSenderList(ScreenSenderRecord*** list);

/** As GetSenderList(), for the senders that the receiver counts as valid. */
SCREENRECEIVER_API int GetValidSenderList(ScreenSenderRecord*** list);

/**
 * Reads the moderator settings.
 *
 * @param[out] info  always written; normally {0, 0} after a failure.
 * @return 0, or a negative code.
 *
 * Threads: any, the notification callback included.
 * Blocks:  one request.
 */
SCREENRECEIVER_API int GetModeratorInfo(ModeratorInfo* info);

/**
 * Writes the moderator settings.
 *
 * @return the receiver's result, or a negative code.
 *
 * Threads: any, the notification callback included.
 * Blocks:  one request.
 */
SCREENRECEIVER_API int SetModeratorInfo(const ModeratorInfo* info);

/**
 * Shows a sender's image.
 *
 * @param senderId  a record's nPrimaryKey.
 * @param option    passed to the receiver unchanged.
 * @return the receiver's result, or a negative code.
 *
 * Threads: any, the notification callback included.
 * Blocks:  one request.
 */
SCREENRECEIVER_API int StartPlayImage(int senderId, unsigned char option);

/** Stops showing a sender's image. Otherwise as StartPlayImage(). */
SCREENRECEIVER_API int StopPlayImage(int senderId);

/** Logs a sender out. Otherwise as StartPlayImage(). */
SCREENRECEIVER_API int ForceSenderLogout(int senderId);

/**
 * Keeps conference control alive. How often it must be called is the receiver's rule.
 *
 * @return 0, or a negative code.
 *
 * Threads: any, the notification callback included.
 * Blocks:  one request.
 */
SCREENRECEIVER_API int RefreshConfCtrlTimer(void);

/** Leaves conference control. Otherwise as RefreshConfCtrlTimer(). */
SCREENRECEIVER_API int QuitConfCtrl(void);

/**
 * Sets the callback for the receiver's notifications; null switches them off.
 *
 * The callback gets three values whose meaning is the receiver's; its result is ignored. It runs on
 * a thread of the library, one call at a time, in the order in which the notifications came. It may
 * take its time and may call every function here but Init(). While it runs, Init() on another
 * thread and the end of the process wait for it. After this function returns, a call in progress of
 * the old callback may still be running.
 *
 * Threads: any, also before Init(), also inside the callback.
 * Blocks:  never.
 */
SCREENRECEIVER_API void SetScrRcvNotifyCB(int (*cb)(int, int, int));

/**
 * The code of the last error: 0 after a successful request; the receiver's result after
 * SetModeratorInfo(), StartPlayImage(), StopPlayImage() and ForceSenderLogout(); negative after a
 * failure, also one that the library noticed between calls (-6528002: the receiver closed the
 * connection). One code for the process: another thread's call replaces it.
 *
 * Threads: any.
 * Blocks:  never.
 */
SCREENRECEIVER_API int GetErrorCode(void);

#ifdef __cplusplus
}
#endif

#endif /* SCREENRECEIVER_SCREENRECEIVER_H_ */
