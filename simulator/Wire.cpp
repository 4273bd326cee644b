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
        case kNotifyFlood:
            return "flood";
        default:
            return "other";
    }
}

void ReadRequest(const Frame& frame, Content& content) {
    content.command = CommandName(frame.code);
    const Request request = DecodeRequest(frame);
    switch (frame.code) {
        case kStartPlayImage:
            content.sender = request.number;
            content.option = request.byte;
            break;
        case kStopPlayImage:
        case kForceSenderLogout:
            content.sender = request.number;
            break;
        case kSetModeratorInfo:
            content.moderator = {request.number, request.byte};
            break;
        default:
            break;
    }
}

void ReadAnswer(uint8_t request, const std::string& payload, Content& content) {
    content.command = CommandName(request);
    content.answer = true;
    switch (request) {
        case kRefreshConfCtrlTimer:
        case kQuitConfCtrl:
            break;
        case kGetSenderList:
        case kGetNonLocalSenderList:
        case kGetValidSenderList:
            content.records = static_cast<uint16_t>(GetUnsigned(payload, kListCountAt, 2));
            content.longRecords = payload[kListLongAt] != 0;
            break;
        case kGetModeratorInfo:
            content.moderator = {GetSigned(payload, kNumberAt),
                                 static_cast<uint8_t>(GetUnsigned(payload, kByteAt, 1))};
            break;
        default:
            content.result = GetSigned(payload, kNumberAt);
            break;
    }
}

std::string NotificationText(const Notification& notification) {
    return "notify: " + std::to_string(notification.first) + " " + NotifyName(notification.first) +
           ", " + std::to_string(notification.second) + ", " + std::to_string(notification.third);
}

}  // namespace

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
        case kResultNotInControl:
            return "not in control";
        default:
            return "result";
    }
}

Content ReadContent(const Frame& frame) {
    // Frames that a caller put together itself may be short.
    const size_t size = frame.payload.size();
    const auto request = static_cast<uint8_t>(frame.code - 1);
    Content content;
    if (frame.incoming) {
        if (IsRequest(frame.code) && size == kRequestSize)
            ReadRequest(frame, content);
    } else if (frame.code == kNotifyEvent) {
        if (size == kNotificationSize) {
            content.command = "Notify";
            content.notification = {GetSigned(frame.payload, 0), GetSigned(frame.payload, 4),
                                    GetSigned(frame.payload, 8)};
        }
    } else if (IsRequest(request) && size >= kReplySize) {
        ReadAnswer(request, frame.payload, content);
    }
    return content;
}

std::string Describe(const Frame& frame) {
    const Content content = ReadContent(frame);
    if (content.command == nullptr) {
        char unknown[64];
        std::snprintf(unknown, sizeof unknown, "unknown command 0x%02X, %zu bytes", frame.code,
                      frame.payload.size());
        return unknown;
    }
    if (content.notification)
        return NotificationText(*content.notification);
    std::string text = content.command;
    if (content.answer)
        text += " answer";
    if (content.sender)
        text += ": sender " + std::to_string(*content.sender);
    if (content.option)
        text += ", option " + std::to_string(*content.option);
    if (content.moderator)
        text += ": id " + std::to_string(content.moderator->id) + ", flag " +
                std::to_string(content.moderator->flag);
    if (content.result)
        text += ": " + std::to_string(*content.result) + " " + ResultName(*content.result);
    if (content.records)
        text += ": " + std::to_string(*content.records) +
                (content.longRecords ? " long records" : " short records");
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

Bytes MakeFrame(uint8_t code, const std::string& payload) {
    std::string bytes;
    bytes.reserve(kPrefixSize + 1 + payload.size());
    bytes.append(kPrefix, kPrefixSize);
    bytes += ToChar(code);
    bytes += payload;
    return std::make_shared<const std::string>(std::move(bytes));
}

uint8_t CodeOf(const std::string& frame) {
    return static_cast<uint8_t>(frame[kPrefixSize]);
}

std::string PayloadOf(const std::string& frame) {
    return frame.substr(kPrefixSize + 1);
}

const std::string& FramePrefix() {
    static const std::string prefix(kPrefix, kPrefixSize);
    return prefix;
}

bool IsListAnswer(uint8_t code) {
    return code == kGetSenderList + 1 || code == kGetNonLocalSenderList + 1 ||
           code == kGetValidSenderList + 1;
}

bool HasRecords(const std::string& list) {
    return list.size() > kPrefixSize + 1 + kListHeaderSize;
}

void SetCode(std::string& frame, int code) {
    frame[kPrefixSize] = ToChar(static_cast<unsigned>(code) & 0xFFu);
}

void AnnounceRecords(std::string& list, int records) {
    const size_t at = kPrefixSize + 1 + kListCountAt;
    const uint32_t right = GetUnsigned(list, at, 2);
    uint32_t announced = right < kMaxSenders ? right + 1 : right - 1;
    if (records >= 0)
        announced = static_cast<uint32_t>(records);
    Put16(list, at, static_cast<uint16_t>(announced));
}

void LeaveNamesOpen(std::string& list) {
    const size_t headerAt = kPrefixSize + 1;
    const size_t recordSize =
        list[headerAt + kListLongAt] != 0 ? kLongRecordSize : kShortRecordSize;
    for (size_t at = headerAt + kListHeaderSize; at < list.size(); at += recordSize) {
        const auto name = list.begin() + static_cast<std::ptrdiff_t>(at + kUserNameAt);
        std::replace(name, name + static_cast<std::ptrdiff_t>(kMaxUserName + 1), '\0', '~');
    }
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
