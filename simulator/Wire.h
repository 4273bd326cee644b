#ifndef SIMULATOR_WIRE_H_
#define SIMULATOR_WIRE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "simulator/Delivery.h"
#include "simulator/ReceiverSimulator.h"

// The receiver's side of the wire: pure functions on bytes. Written apart from the client's, on
// purpose: two readings of one protocol catch each other's mistakes.
namespace simulator {

enum Command : uint8_t {
    kGetSenderList = 16,
    kStartPlayImage = 18,
    kStopPlayImage = 20,
    kRefreshConfCtrlTimer = 22,
    kQuitConfCtrl = 24,
    kGetNonLocalSenderList = 26,
    kGetValidSenderList = 28,
    kForceSenderLogout = 30,
    kGetModeratorInfo = 32,
    kSetModeratorInfo = 34,
    kNotifyEvent = 36,
};

struct Notification {
    int32_t first;
    int32_t second;
    int32_t third;
};

/// A request that receivers know, with its arguments; those that a command lacks are unused.
struct Request {
    uint8_t code = 0;
    int32_t number = 0;  // sender key or moderator id
    uint8_t byte = 0;    // option or moderator flag
};

/// What a frame says; members that its command does not have are empty.
struct Content {
    const char* command = nullptr;  // of an answer its request's; null when it is not known
    bool answer = false;
    std::optional<int32_t> sender;
    std::optional<uint8_t> option;
    std::optional<Moderator> moderator;
    std::optional<int32_t> result;
    std::optional<uint16_t> records;
    bool longRecords = false;
    std::optional<Notification> notification;
};

Content ReadContent(const Frame& frame);
const char* CommandName(uint8_t request);  // null when it is none
const char* ResultName(int32_t result);

bool IsRequest(uint8_t code);

/// `frame` holds a known command and its whole payload.
Request DecodeRequest(const Frame& frame);

// Payloads; MakeFrame makes them frames.
std::string EncodeResult(int32_t result);
std::string EncodeModerator(const Moderator& moderator);
std::string EncodeReserved();
std::string EncodeSenders(const std::vector<Sender>& senders, RecordSize size);
std::string EncodeNotification(const Notification& notification);

/// The bytes of a whole frame: prefix, command byte, payload.
Bytes MakeFrame(uint8_t code, const std::string& payload);
// Of a frame that MakeFrame() made.
uint8_t CodeOf(const std::string& frame);
std::string PayloadOf(const std::string& frame);

// What faults do to the bytes of a whole frame.
const std::string& FramePrefix();
bool IsListAnswer(uint8_t code);
bool HasRecords(const std::string& list);
void SetCode(std::string& frame, int code);
/// -1: one record more than there are, or one less when a list can have no more.
void AnnounceRecords(std::string& list, int records);
void LeaveNamesOpen(std::string& list);

/**
 * Finds frames in a stream that comes in pieces of any size. Holds less than one frame between
 * calls.
 */
class FrameFinder {
public:
    void Append(const char* bytes, size_t size) { m_Bytes.append(bytes, size); }

    /// The next whole frame, if there is one. Sets code and payload only.
    std::optional<Frame> Next();

    /// Bytes skipped since the last call.
    uint64_t TakeSkipped();

private:
    std::optional<Frame> Find();

    std::string m_Bytes;
    size_t m_Position = 0;  // in front of it everything is used up
    uint64_t m_Skipped = 0;
};

}  // namespace simulator

#endif  // SIMULATOR_WIRE_H_
