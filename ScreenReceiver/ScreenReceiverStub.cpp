#include "ScreenReceiver/ScreenReceiverStub.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "TeskClient/ErrorTable.h"
#include "TeskClient/RecordedLines.h"
#include "TeskClient/WireFormat.h"

struct screen_receiver::ReceiverCommand {
    unsigned char code;  // of the request; its answer's is one more
    const char* name;
    int recordedLine;  // of the answer's result; 0 where none is recorded
};

namespace {

// The command table. A request carries 32 bytes, and so does every answer but the sender lists.
constexpr ReceiverCommand kGetSenderList = {16, "GetSenderList", 0};
constexpr ReceiverCommand kStartPlayImage = {18, "StartPlayImage", recorded::kStartPlayImage};
constexpr ReceiverCommand kStopPlayImage = {20, "StopPlayImage", recorded::kStopPlayImage};
constexpr ReceiverCommand kRefreshConfCtrlTimer = {22, "RefreshConfCtrlTimer", 0};
constexpr ReceiverCommand kQuitConfCtrl = {24, "QuitConfCtrl", 0};
constexpr ReceiverCommand kGetNonLocalSenderList = {26, "GetNonLocalSenderList", 0};
constexpr ReceiverCommand kGetValidSenderList = {28, "GetValidSenderList", 0};
constexpr ReceiverCommand kForceSenderLogout = {30, "ForceSenderLogout",
                                                recorded::kForceSenderLogout};
constexpr ReceiverCommand kGetModeratorInfo = {32, "GetModeratorInfo", recorded::kGetModeratorInfo};
constexpr ReceiverCommand kSetModeratorInfo = {34, "SetModeratorInfo", recorded::kSetModeratorInfo};
constexpr unsigned char kNotifyEvent = 36;  // the one frame that comes unasked; 12 bytes

constexpr char kPrefix[] = "RecvIPC";
constexpr unsigned short kServicePort = 19996;
constexpr int kConnectTimeoutSec = 3;
constexpr int kRequestTimeoutSec = 10;
constexpr int kReadTimeoutMs = 5000;
constexpr int kBatch = 64;  // records read at once

unsigned char AnswerTo(const ReceiverCommand& command) {
    return static_cast<unsigned char>(command.code + 1);
}

// What a payload does not set is zero.
std::string EmptyPayload() {
    return std::string(wire::kRequestPayload, '\0');
}

std::string QueryPayload() {
    std::string payload = EmptyPayload();
    payload[0] = 1;
    return payload;
}

std::string IdPayload(int id, unsigned char option = 0) {
    std::string payload = EmptyPayload();
    wire::PutI32(&payload[0], id);
    payload[4] = static_cast<char>(option);
    return payload;
}

bool IsBroken(int received) {
    return received == 0 || received == -1;
}

}  // namespace

ScreenReceiverStub::ScreenReceiverStub()
    : m_pRecvResult(nullptr),
      m_pfnNotifyCB(nullptr),
      m_pRetiredResult(nullptr),
      m_bRequesting(false) {
    SetCmdPrefix(kPrefix, sizeof kPrefix - 1);

    const auto reads = [this](const ReceiverCommand& command,
                              int (ScreenReceiverStub::*reader)(std::string&)) {
        m_RecvHandlers[AnswerTo(command)] = static_cast<RecvHandler>(reader);
    };
    reads(kGetSenderList, &ScreenReceiverStub::RecvGetSenderListParam);
    reads(kStartPlayImage, &ScreenReceiverStub::RecvErrorCodeParam);
    reads(kStopPlayImage, &ScreenReceiverStub::RecvErrorCodeParam);
    reads(kRefreshConfCtrlTimer, &ScreenReceiverStub::Recv32ByteReserve);
    reads(kQuitConfCtrl, &ScreenReceiverStub::Recv32ByteReserve);
    reads(kGetNonLocalSenderList, &ScreenReceiverStub::RecvGetSenderListParam);
    reads(kGetValidSenderList, &ScreenReceiverStub::RecvGetSenderListParam);
    reads(kForceSenderLogout, &ScreenReceiverStub::RecvErrorCodeParam);
    reads(kGetModeratorInfo, &ScreenReceiverStub::RecvGetModeratorInfo);
    reads(kSetModeratorInfo, &ScreenReceiverStub::RecvErrorCodeParam);

    m_RecvHandlers[kNotifyEvent] = static_cast<RecvHandler>(&ScreenReceiverStub::Recv12ByteData);
    m_CmdHandlers[kNotifyEvent] = static_cast<CmdHandler>(&ScreenReceiverStub::OnNotifyEvent);
}

ScreenReceiverStub::~ScreenReceiverStub() {
    EndThreads();
}

int ScreenReceiverStub::Init(const char* host, bool) {
    return OpenConnect(host, {kServicePort}, false, kConnectTimeoutSec);
}

int ScreenReceiverStub::GetSenderList(std::vector<ScreenSenderInfo>& list) {
    return RequestList(kGetSenderList, list);
}

int ScreenReceiverStub::GetNonLocalSenderList(std::vector<ScreenSenderInfo>& list) {
    return RequestList(kGetNonLocalSenderList, list);
}

int ScreenReceiverStub::GetValidSenderList(std::vector<ScreenSenderInfo>& list) {
    return RequestList(kGetValidSenderList, list);
}

int ScreenReceiverStub::GetModeratorInfo(ModeratorInfo& info) {
    boost::lock_guard<decltype(m_RequestMutex)> lock(m_RequestMutex);
    BeginStep();
    const int requested = Request(kGetModeratorInfo, QueryPayload(), &info);
    if (requested < 0)
        return CodeOfFailure(requested);
    return RecordResult(0, kGetModeratorInfo.recordedLine);
}

int ScreenReceiverStub::SetModeratorInfo(ModeratorInfo info) {
    return RequestResult(kSetModeratorInfo, IdPayload(info.nModeratorId, info.byModeratorFlag));
}

int ScreenReceiverStub::StartPlayImage(int senderId, unsigned char option) {
    return RequestResult(kStartPlayImage, IdPayload(senderId, option));
}

int ScreenReceiverStub::StopPlayImage(int senderId) {
    return RequestResult(kStopPlayImage, IdPayload(senderId));
}

int ScreenReceiverStub::ForceSenderLogout(int senderId) {
    return RequestResult(kForceSenderLogout, IdPayload(senderId));
}

int ScreenReceiverStub::RefreshConfCtrlTimer() {
    boost::lock_guard<decltype(m_RequestMutex)> lock(m_RequestMutex);
    return Request(kRefreshConfCtrlTimer, EmptyPayload(), nullptr);
}

int ScreenReceiverStub::QuitConfCtrl() {
    boost::lock_guard<decltype(m_RequestMutex)> lock(m_RequestMutex);
    return Request(kQuitConfCtrl, EmptyPayload(), nullptr);
}

void ScreenReceiverStub::SetScrRcvNotifyCB(ScrRcvNotifyCB cb) {
    m_pfnNotifyCB = cb;
}

// The result pointer belongs to one request: a thread that is inside its own request already (from
// a message pump) would swap it under the reader's hands, so it is refused before that.
int ScreenReceiverStub::Request(const ReceiverCommand& command,
                                const std::string& payload,
                                void* result) {
    if (m_bRequesting)
        return SetErrorAt(kErrReentry, "ProtocolBase::RequestCommand", "", recorded::kEngineFile,
                          recorded::kRequestReentered);
    struct InFlight {
        InFlight(ScreenReceiverStub& stub, void* target) : m_Stub(stub), m_pTarget(target) {
            m_Stub.m_bRequesting = true;
            if (m_pTarget != nullptr) {
                m_Stub.m_pRecvResult = m_pTarget;
                m_Stub.m_pRetiredResult = nullptr;
            }
        }
        ~InFlight() {
            if (m_pTarget != nullptr)
                m_Stub.m_pRetiredResult = m_pTarget;
            m_Stub.m_bRequesting = false;
        }
        ScreenReceiverStub& m_Stub;
        void* m_pTarget;
    } inFlight(*this, result);
    return RequestCommand(command.code, AnswerTo(command), command.name, payload, true,
                          kRequestTimeoutSec);
}

int ScreenReceiverStub::RequestList(const ReceiverCommand& command,
                                    std::vector<ScreenSenderInfo>& list) {
    boost::lock_guard<decltype(m_RequestMutex)> lock(m_RequestMutex);
    return Request(command, QueryPayload(), &list);
}

int ScreenReceiverStub::RequestResult(const ReceiverCommand& command, const std::string& payload) {
    boost::lock_guard<decltype(m_RequestMutex)> lock(m_RequestMutex);
    int32_t result = 0;
    BeginStep();
    const int requested = Request(command, payload, &result);
    if (requested < 0)
        return CodeOfFailure(requested);
    return RecordResult(result, command.recordedLine);
}

// The service's result becomes the current code, without texts: it is not an error of this library.
int ScreenReceiverStub::RecordResult(int result, int line) {
    boost::lock_guard<decltype(m_ErrMutex)> lock(m_ErrMutex);
    m_strErrMsg.clear();
    return SetErrorAt(result, "", "", recorded::kStubFile, line);
}

// Null when no request wants a result.
void* ScreenReceiverStub::ResultOfRequest() const {
    return m_pRecvResult == m_pRetiredResult ? nullptr : m_pRecvResult;
}

int ScreenReceiverStub::Recv12ByteData(std::string& payload) {
    GetLogger()->Write(recorded::kStubFile, recorded::kRecv12ByteData, kLogDebug, "Recv12ByteData");
    payload.resize(wire::kNotifyPayload);
    return m_Socket.recv(&payload[0], wire::kNotifyPayload, 0, kReadTimeoutMs);
}

int ScreenReceiverStub::Recv32ByteReserve(std::string&) {
    char reply[wire::kReplyPayload] = {};
    return m_Socket.recv(reply, wire::kReplyPayload, 0, kReadTimeoutMs);
}

int ScreenReceiverStub::RecvErrorCodeParam(std::string&) {
    char reply[wire::kReplyPayload] = {};
    const int received = m_Socket.recv(reply, wire::kReplyPayload, 0, kReadTimeoutMs);
    if (void* result = ResultOfRequest())
        *static_cast<int32_t*>(result) = wire::GetI32(reply);
    return received;
}

int ScreenReceiverStub::RecvGetModeratorInfo(std::string&) {
    char reply[wire::kReplyPayload] = {};
    const int received = m_Socket.recv(reply, wire::kReplyPayload, 0, kReadTimeoutMs);
    if (void* result = ResultOfRequest()) {
        ModeratorInfo& info = *static_cast<ModeratorInfo*>(result);
        info.nModeratorId = wire::GetI32(reply);
        info.byModeratorFlag = static_cast<uint8_t>(reply[4]);
    }
    return received;
}

int ScreenReceiverStub::RecvGetSenderListParam(std::string&) {
    char header[wire::kListHeader] = {};
    int received = m_Socket.recv(header, wire::kListHeader, 0, kReadTimeoutMs);
    if (IsBroken(received))
        return received;

    // Nobody's answer is read all the same, or its records would be taken for frames.
    std::vector<ScreenSenderInfo> nobodys;
    void* result = ResultOfRequest();
    auto& list = result != nullptr ? *static_cast<std::vector<ScreenSenderInfo>*>(result) : nobodys;
    const bool bLong = header[2] != 0;
    const int size = bLong ? wire::kLongRecord : wire::kShortRecord;
    list.resize(wire::GetU16(header));
    for (size_t read = 0; read < list.size();) {
        if (IsAnswerAbandoned()) {
            errno = ECANCELED;
            return -1;
        }
        // A long list is read in batches, but never waits for more than one record.
        char records[kBatch * wire::kLongRecord] = {};
        const int batch = std::clamp(m_Socket.available() / size, 1,
                                     std::min(kBatch, static_cast<int>(list.size() - read)));
        received = std::min(m_Socket.recv(records, batch * size, 0, kReadTimeoutMs), size);
        if (IsBroken(received))
            break;
        for (int i = 0; i < batch; ++i)
            DecodeSender(records + i * size, bLong, list[read++]);
    }
    return received;
}

void ScreenReceiverStub::DecodeSender(const char* record, bool bLong, ScreenSenderInfo& sender) {
    constexpr int kNameOffset = 8;
    const int size = bLong ? wire::kLongRecord : wire::kShortRecord;
    sender.m_nPrimaryKey = wire::GetI32(record);
    sender.m_nIpAddress = wire::GetU32(record + 4);
    sender.m_strUserName.assign(record + kNameOffset,
                                strnlen(record + kNameOffset, size - kNameOffset));
    sender.m_nStatus = wire::GetU16(record + 56);
    sender.m_bySplitScreen = static_cast<uint8_t>(record[58]);
    if (bLong) {
        sender.m_nOSType = wire::GetU16(record + 59);
        sender.m_nAppType = wire::GetU16(record + 61);
        sender.m_nPointInputType = wire::GetU16(record + 63);
    }
}

int ScreenReceiverStub::OnNotifyEvent(char* body) {
    const int first = wire::GetI32(body);
    const int second = wire::GetI32(body + 4);
    const int third = wire::GetI32(body + 8);
    if (const ScrRcvNotifyCB notify = m_pfnNotifyCB)
        notify(first, second, third);
    return -1;
}
