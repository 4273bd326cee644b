#include "simulator/Answers.h"

#include <cstddef>
#include <string>

namespace simulator {

namespace {

// In the order in which FaultKind::Unasked goes through them.
constexpr std::array<uint8_t, 10> kRequests = {
    kGetSenderList,    kStartPlayImage,        kStopPlayImage,      kRefreshConfCtrlTimer,
    kQuitConfCtrl,     kGetNonLocalSenderList, kGetValidSenderList, kForceSenderLogout,
    kGetModeratorInfo, kSetModeratorInfo};

}  // namespace

Bytes Answers::Answer(const Request& request, uint64_t client, ReceiverState::Notes& notes) {
    const auto code = static_cast<uint8_t>(request.code + 1);
    if (IsListAnswer(code))
        return List(request.code);
    std::string payload = EncodeReserved();
    switch (request.code) {
        case kGetModeratorInfo:
            payload = EncodeModerator(m_State.GetModerator());
            break;
        case kRefreshConfCtrlTimer:
            m_State.RefreshConfControl(client, notes);
            break;
        case kQuitConfCtrl:
            m_State.QuitConfControl(client, notes);
            break;
        default:
            payload = EncodeResult(Steer(request, client, notes));
            break;
    }
    return MakeFrame(code, payload);
}

Bytes Answers::List(uint8_t request) {
    using Selection = ReceiverState::Selection;
    Selection selection = Selection::All;
    if (request == kGetNonLocalSenderList)
        selection = Selection::NonLocal;
    else if (request == kGetValidSenderList)
        selection = Selection::Valid;
    ListFrame& list = m_Lists[static_cast<size_t>(selection)];
    if (!list.bytes || list.version != m_State.Version()) {
        const std::string payload = EncodeSenders(m_State.Reported(selection), m_Options.records);
        list.bytes = MakeFrame(static_cast<uint8_t>(request + 1), payload);
        list.version = m_State.Version();
    }
    return list.bytes;
}

Result Answers::Steer(const Request& request, uint64_t client, ReceiverState::Notes& notes) {
    if (m_Options.requireControl && client != m_State.ConfControlClient())
        return kResultNotInControl;
    switch (request.code) {
        case kStartPlayImage:
            return m_State.StartPlay(request.number, request.byte, notes);
        case kStopPlayImage:
            return m_State.StopPlay(request.number, notes);
        case kForceSenderLogout:
            return m_State.Remove(request.number, notes) ? kResultOk : kResultUnknownSender;
        default:
            m_State.SetModerator({request.number, request.byte}, notes);
            return kResultOk;
    }
}

Bytes Answers::Unasked(int command, uint64_t round) {
    const uint8_t request = command < 0 ? kRequests[static_cast<size_t>(round % kRequests.size())]
                                        : static_cast<uint8_t>(command & ~1);
    const auto code = static_cast<uint8_t>(request + 1);
    if (IsListAnswer(code))
        return List(request);
    return MakeFrame(code, request == kGetModeratorInfo ? EncodeModerator(m_State.GetModerator())
                                                        : EncodeReserved());
}

}  // namespace simulator
