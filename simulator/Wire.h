#ifndef SIMULATOR_WIRE_H_
#define SIMULATOR_WIRE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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

bool IsRequest(uint8_t code);

/// `frame` holds a known command and its whole payload.
Request DecodeRequest(const Frame& frame);

// Payloads; Assemble makes them frames.
std::string EncodeResult(int32_t result);
std::string EncodeModerator(const Moderator& moderator);
std::string EncodeReserved();
std::string EncodeSenders(const std::vector<Sender>& senders, RecordSize size);
std::string EncodeNotification(const Notification& notification);

/// The bytes of a whole frame: prefix, command byte, payload.
std::string Assemble(uint8_t code, const std::string& payload);

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
