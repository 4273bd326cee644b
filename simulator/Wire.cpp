#include "simulator/Wire.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace simulator {

namespace {

// Sizes and offsets in bytes.
constexpr char kPrefix[] = {'R', 'e', 'c', 'v', 'I', 'P', 'C'};
constexpr size_t kPrefixSize = sizeof kPrefix;
constexpr size_t kRequestSize = 32;
constexpr size_t kReplySize = 32;
constexpr size_t kNotificationSize = 12;

constexpr size_t kListHeaderSize = 32;
constexpr size_t kListCountAt = 0;
constexpr size_t kListLongAt = 2;

constexpr size_t kShortRecordSize = 64;
constexpr size_t kLongRecordSize = 128;
constexpr size_t kKeyAt = 0;
constexpr size_t kAddressAt = 4;
constexpr size_t kUserNameAt = 8;
constexpr size_t kStatusAt = 56;
constexpr size_t kSplitScreenAt = 58;
// Packed on purpose: the 16-bit fields of a long record stand at odd offsets.
constexpr size_t kOsTypeAt = 59;
constexpr size_t kAppTypeAt = 61;
constexpr size_t kPointerInputTypeAt = 63;

static_assert(kUserNameAt + kMaxUserName + 1 == kStatusAt, "a name is sent with its NUL");

constexpr size_t kNumberAt = 0;
constexpr size_t kByteAt = 4;

char ToChar(unsigned value) {
    return static_cast<char>(static_cast<unsigned char>(value));
}

void Put16(std::string& bytes, size_t at, uint16_t value) {
    bytes[at] = ToChar(value >> 8 & 0xFFu);
    bytes[at + 1] = ToChar(value & 0xFFu);
}

void Put32(std::string& bytes, size_t at, uint32_t value) {
    Put16(bytes, at, static_cast<uint16_t>(value >> 16));
    Put16(bytes, at + 2, static_cast<uint16_t>(value & 0xFFFFu));
}

void PutSigned(std::string& bytes, size_t at, int32_t value) {
    Put32(bytes, at, static_cast<uint32_t>(value));
}

uint32_t GetUnsigned(const std::string& bytes, size_t at, size_t size) {
    uint32_t value = 0;
    for (size_t i = at; i < at + size; ++i)
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return value;
}

int32_t GetSigned(const std::string& bytes, size_t at) {
    return static_cast<int32_t>(GetUnsigned(bytes, at, 4));
}

void PutSender(std::string& bytes, size_t at, const Sender& sender, RecordSize size) {
    PutSigned(bytes, at + kKeyAt, sender.key);
    Put32(bytes, at + kAddressAt, sender.address);
    const size_t nameSize =
        std::min({sender.userName.find('\0'), sender.userName.size(), kMaxUserName});
    bytes.replace(at + kUserNameAt, nameSize, sender.userName, 0, nameSize);
    Put16(bytes, at + kStatusAt, sender.status);
    bytes[at + kSplitScreenAt] = ToChar(sender.splitScreen);
    if (size == RecordSize::Long) {
        Put16(bytes, at + kOsTypeAt, sender.osType);
        Put16(bytes, at + kAppTypeAt, sender.appType);
        Put16(bytes, at + kPointerInputTypeAt, sender.pointerInputType);
    }
}

const char* CommandName(uint8_t request) {
    switch (request) {
        case kGetSenderList:
            return "GetSenderList";
        case kStartPlayImage:
            return "StartPlayImage";
        case kStopPlayImage:
            return "StopPlayImage";
        case kRefreshConfCtrlTimer:
            return "RefreshConfCtrlTimer";
        case kQuitConfCtrl:
            return "QuitConfCtrl";
        case kGetNonLocalSenderList:
            return "GetNonLocalSenderList";
        case kGetValidSenderList:
            return "GetValidSenderList";
        case kForceSenderLogout:
            return "ForceSenderLogout";
        case kGetModeratorInfo:
            return "GetModeratorInfo";
        case kSetModeratorInfo:
            return "SetModeratorInfo";
        default:
            return nullptr;
    }
}

const char* ResultName(int32_t result) {
    switch (result) {
        case kResultOk:
            return "ok";
        case kResultUnknownSender:
            return "unknown sender";
        case kResultAlreadyShown:
            return "already shown";
        case kResultNotShown:
            return "not shown";
        case kResultNotValid:
            return "not valid";
        default:
            return "result";
    }
}

const char* NotifyName(int32_t kind) {
    switch (kind) {
        case kNotifySenderJoined:
            return "sender joined";
        case kNotifySenderLeft:
            return "sender left";
        case kNotifySenderChanged:
            return "sender changed";
        case kNotifyShowStarted:
            return "show started";
        case kNotifyShowStopped:
            return "show stopped";
        case kNotifyModeratorChanged:
            return "moderator changed";
        case kNotifyConfControl:
            return "conference control";
        case kNotifyTick:
            return "tick";
        default:
            return "other";
    }
}

std::string ModeratorText(int32_t id, uint8_t flag) {
    return "id " + std::to_string(id) + ", flag " + std::to_string(flag);
}

std::string RequestText(const Frame& frame) {
    std::string text = CommandName(frame.code);
    const Request request = DecodeRequest(frame);
    switch (frame.code) {
        case kStartPlayImage:
            return text + ": sender " + std::to_string(request.number) + ", option " +
                   std::to_string(request.byte);
        case kStopPlayImage:
        case kForceSenderLogout:
            return text + ": sender " + std::to_string(request.number);
        case kSetModeratorInfo:
            return text + ": " + ModeratorText(request.number, request.byte);
        default:
            return text;
    }
}

std::string AnswerText(uint8_t request, const std::string& payload) {
    std::string text = std::string(CommandName(request)) + " answer";
    switch (request) {
        case kRefreshConfCtrlTimer:
        case kQuitConfCtrl:
            return text;
        case kGetSenderList:
        case kGetNonLocalSenderList:
        case kGetValidSenderList:
            return text + ": " + std::to_string(GetUnsigned(payload, kListCountAt, 2)) +
                   (payload[kListLongAt] != 0 ? " long records" : " short records");
        case kGetModeratorInfo:
            return text + ": " +
                   ModeratorText(GetSigned(payload, kNumberAt),
                                 static_cast<uint8_t>(GetUnsigned(payload, kByteAt, 1)));
        default: {
            const int32_t result = GetSigned(payload, kNumberAt);
            return text + ": " + std::to_string(result) + " " + ResultName(result);
        }
    }
}

std::string NotificationText(const std::string& payload) {
    const int32_t kind = GetSigned(payload, 0);
    return "notify: " + std::to_string(kind) + " " + NotifyName(kind) + ", " +
           std::to_string(GetSigned(payload, 4)) + ", " + std::to_string(GetSigned(payload, 8));
}

}  // namespace

std::string Describe(const Frame& frame) {
    // Frames that a caller put together itself may be short.
    const size_t size = frame.payload.size();
    if (frame.incoming) {
        if (IsRequest(frame.code) && size == kRequestSize)
            return RequestText(frame);
    } else if (frame.code == kNotifyEvent && size == kNotificationSize) {
        return NotificationText(frame.payload);
    } else if (frame.code > 0 && size >= kReplySize) {
        const uint8_t request = static_cast<uint8_t>(frame.code - 1);
        if (IsRequest(request))
            return AnswerText(request, frame.payload);
    }
    char text[64];
    std::snprintf(text, sizeof text, "unknown command 0x%02X, %zu bytes", frame.code, size);
    return text;
}

bool IsRequest(uint8_t code) {
    return CommandName(code) != nullptr;
}

Request DecodeRequest(const Frame& frame) {
    Request request;
    request.code = frame.code;
    request.number = GetSigned(frame.payload, kNumberAt);
    request.byte = static_cast<uint8_t>(GetUnsigned(frame.payload, kByteAt, 1));
    return request;
}

std::string EncodeResult(int32_t result) {
    std::string payload(kReplySize, '\0');
    PutSigned(payload, kNumberAt, result);
    return payload;
}

std::string EncodeModerator(const Moderator& moderator) {
    std::string payload(kReplySize, '\0');
    PutSigned(payload, kNumberAt, moderator.id);
    payload[kByteAt] = ToChar(moderator.flag);
    return payload;
}

std::string EncodeReserved() {
    return std::string(kReplySize, '\0');
}

std::string EncodeSenders(const std::vector<Sender>& senders, RecordSize size) {
    const size_t recordSize = size == RecordSize::Long ? kLongRecordSize : kShortRecordSize;
    std::string payload(kListHeaderSize + senders.size() * recordSize, '\0');
    Put16(payload, kListCountAt, static_cast<uint16_t>(senders.size()));
    payload[kListLongAt] = size == RecordSize::Long ? 1 : 0;
    size_t at = kListHeaderSize;
    for (const Sender& sender : senders) {
        PutSender(payload, at, sender, size);
        at += recordSize;
    }
    return payload;
}

std::string EncodeNotification(const Notification& notification) {
    std::string payload(kNotificationSize, '\0');
    PutSigned(payload, 0, notification.first);
    PutSigned(payload, 4, notification.second);
    PutSigned(payload, 8, notification.third);
    return payload;
}

std::string Assemble(uint8_t code, const std::string& payload) {
    std::string bytes;
    bytes.reserve(kPrefixSize + 1 + payload.size());
    bytes.append(kPrefix, kPrefixSize);
    bytes += ToChar(code);
    bytes += payload;
    return bytes;
}

std::optional<Frame> FrameFinder::Next() {
    std::optional<Frame> frame = Find();
    if (!frame) {
        m_Bytes.erase(0, m_Position);
        m_Position = 0;
    }
    return frame;
}

uint64_t FrameFinder::TakeSkipped() {
    return std::exchange(m_Skipped, 0);
}

std::optional<Frame> FrameFinder::Find() {
    while (m_Bytes.size() - m_Position > kPrefixSize) {
        if (m_Bytes.compare(m_Position, kPrefixSize, kPrefix, kPrefixSize) != 0) {
            ++m_Position;
            ++m_Skipped;
            continue;
        }
        Frame frame;
        const size_t payloadAt = m_Position + kPrefixSize + 1;
        frame.code = static_cast<uint8_t>(m_Bytes[payloadAt - 1]);
        const size_t payloadSize = IsRequest(frame.code) ? kRequestSize : 0;
        if (m_Bytes.size() < payloadAt + payloadSize)
            return std::nullopt;
        frame.payload.assign(m_Bytes, payloadAt, payloadSize);
        m_Position = payloadAt + payloadSize;
        return frame;
    }
    return std::nullopt;
}

}  // namespace simulator
