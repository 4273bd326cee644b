#ifndef TESKCLIENT_ERRORTABLE_H_
#define TESKCLIENT_ERRORTABLE_H_

// The codes that this library raises itself. The numbers are an external interface: they reach the
// application and never change. The whole table of the product family stands in ErrorTable.cpp.
enum ErrorCode : int {
    kErrCreateObject = -6527001,
    kErrReentry = -6527002,
    kErrInitObject = -6527004,
    kErrConnect = -6528001,
    kErrPeerClosed = -6528002,
    kErrNoPorts = -6528004,
    kErrStillClosing = -6528005,
    kErrHandShake = -6528006,
    kErrNoAnswer = -6528101,
};

/**
 * Message of an error code: a printf format with at most two "%s" and no other conversion.
 * @return null when the code has no row; such a code is a negated errno.
 */
const char* FindErrorMessage(int code);

#endif  // TESKCLIENT_ERRORTABLE_H_
