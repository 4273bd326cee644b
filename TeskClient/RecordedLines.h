#ifndef TESKCLIENT_RECORDEDLINES_H_
#define TESKCLIENT_RECORDEDLINES_H_

/**
 * Source lines that errors are recorded with. Field logs of many years and the tools that read them
 * know these places by number, so they are part of the interface and do not follow the source when
 * it moves. The same holds for the file names: the engine's errors name ProtocolBase.cpp wherever
 * the code stands today.
 */
namespace recorded {

constexpr char kEngineFile[] = "ProtocolBase.cpp";
constexpr char kStubFile[] = "ScreenReceiverStub.cpp";

// RequestCommand
constexpr int kRequestReentered = 251;
constexpr int kRequestNotSent = 262;
constexpr int kRequestCancelled = 273;
constexpr int kRequestNoWait = 298;
constexpr int kRequestTimedOut = 302;
constexpr int kRequestAnswered = 307;

// NetworkThread
constexpr int kSelectFailed = 458;
constexpr int kPeekPrefixFailed = 471;
constexpr int kDropGarbageFailed = 483;
constexpr int kTakePrefixFailed = 486;
constexpr int kReadCommandFailed = 492;
constexpr int kAnswerReaderFailed = 498;
constexpr int kEventReaderFailed = 505;
constexpr int kCustCommandFailed = 517;

// ScreenReceiverStub
constexpr int kGetModeratorInfo = 98;
constexpr int kSetModeratorInfo = 119;
constexpr int kStartPlayImage = 137;
constexpr int kStopPlayImage = 153;
constexpr int kForceSenderLogout = 169;
constexpr int kRecv12ByteData = 285;

}  // namespace recorded

#endif  // TESKCLIENT_RECORDEDLINES_H_
