#include "ScreenReceiver/ScreenReceiver.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "ScreenReceiver/ScreenReceiverStub.h"
#include "TeskClient/ErrorTable.h"

static_assert(sizeof(ScreenSenderRecord) == 156, "callers are compiled against this layout");

namespace {

constexpr int kLeaveSliceMs = 5;
constexpr int kLeaveLimitMs = 500;

// Calls of the exported functions that are in progress, of all threads and of this one. Trivial
// types: they outlive the object.
std::atomic<int> s_nCalls{0};
thread_local int t_nCalls = 0;
std::atomic<bool> s_bEnded{false};

/**
 * Begins and ends g_ScreenReceiver. When the library is unloaded or the process exits, threads may
 * still be inside a call, or make another. Those that come later are turned away (see Run); those in
 * progress are cancelled and get time to leave. Should one stay, the object is left as it is, for its
 * locks are in use, and the process ends without it.
 */
class ProcessReceiver {
public:
    ProcessReceiver();
    ~ProcessReceiver();

private:
    const pid_t m_nPid;
};

}  // namespace

// The object whose end ProcessReceiver decides: its storage goes by the same symbol, so that no
// destructor is registered for it.
extern ScreenReceiverStub g_ScreenReceiver;
alignas(ScreenReceiverStub) char s_Storage[sizeof(ScreenReceiverStub)] __asm__("g_ScreenReceiver");

namespace {

ProcessReceiver s_Receiver;

ProcessReceiver::ProcessReceiver() : m_nPid(getpid()) {
    new (&g_ScreenReceiver) ScreenReceiverStub;
}

ProcessReceiver::~ProcessReceiver() {
    s_bEnded = true;
    // Two cases where nothing can be ended: exit() in a child of fork(), which has none of the
    // threads, and exit() from a signal handler that interrupted a call, whose locks are never
    // released.
    if (getpid() != m_nPid || t_nCalls != 0)
        return;
    g_ScreenReceiver.EndThreads();
    for (int waited = 0; s_nCalls != 0; waited += kLeaveSliceMs) {
        if (waited >= kLeaveLimitMs)
            return;
        usleep(kLeaveSliceMs * 1000);
    }
    g_ScreenReceiver.~ScreenReceiverStub();
}

/// One call of an exported function.
class Call {
public:
    Call() {
        ++t_nCalls;
        ++s_nCalls;
    }
    ~Call() {
        --s_nCalls;
        --t_nCalls;
    }
};

int RecordOutOfMemory() {
    try {
        g_ScreenReceiver.SetErrorAt(-ENOMEM, "", "", __FILE__, __LINE__);
    } catch (const std::bad_alloc&) {
        // The code is recorded first; only its place is missing.
    }
    return -ENOMEM;
}

// Runs one call. No exception leaves the library; the only one there is means that memory ran out.
template <class Function>
int Run(Function function) {
    // Looked at twice: callers that go on calling must not keep the end waiting, and one that came
    // just before the end must be seen by it.
    if (s_bEnded)
        return kErrNoAnswer;
    const Call call;
    if (s_bEnded)
        return kErrNoAnswer;
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return RecordOutOfMemory();
    }
}

void Fill(ScreenSenderRecord& record, const ScreenSenderInfo& sender) {
    record = ScreenSenderRecord();
    record.nPrimaryKey = static_cast<uint32_t>(sender.GetPrimaryKey());
    // A name has 120 bytes at most, for a record on the wire has 128.
    std::strcpy(record.szUserName, sender.GetUserName());
    record.nAppType = sender.GetAppType();
    record.nIpAddress = sender.GetIpAddress();
    record.bySplitScreen = sender.GetSplitScreen();
    record.nStatus = sender.GetStatus();
    record.nOSType = sender.GetOSType();
    record.nPointInputType = sender.GetPointInputType();
}

void Release(ScreenSenderRecord** records, size_t count) {
    while (count > 0)
        std::free(records[--count]);
    std::free(records);
}

// A new array of `senders`, or null when memory runs out; nothing is left behind then.
ScreenSenderRecord** Copy(const std::vector<ScreenSenderInfo>& senders) {
    const size_t count = senders.size();
    auto** records =
        static_cast<ScreenSenderRecord**>(std::malloc(count * sizeof(ScreenSenderRecord*)));
    if (records == nullptr)
        return nullptr;
    for (size_t i = 0; i < count; ++i) {
        records[i] = static_cast<ScreenSenderRecord*>(std::malloc(sizeof(ScreenSenderRecord)));
        if (records[i] == nullptr) {
            Release(records, i);
            return nullptr;
        }
        Fill(*records[i], senders[i]);
    }
    return records;
}

typedef int (ScreenReceiverStub::*ListMethod)(std::vector<ScreenSenderInfo>&);

int GetList(ListMethod method, ScreenSenderRecord*** list) {
    const int count = Run([=] {
        std::vector<ScreenSenderInfo> senders;
        (g_ScreenReceiver.*method)(senders);
        if (senders.empty())
            return 0;
        ScreenSenderRecord** records = Copy(senders);
        if (records == nullptr)
            return RecordOutOfMemory();
        *list = records;
        return static_cast<int>(senders.size());
    });
    return count < 0 ? 0 : count;
}

}  // namespace

int Init(const char* host, bool flag) {
    return Run([=] { return g_ScreenReceiver.Init(host, flag); });
}

int GetSenderList(ScreenSenderRecord*** list) {
    return GetList(&ScreenReceiverStub::GetSenderList, list);
}

int GetNonLocalSenderList(ScreenSenderRecord*** list) {
    return GetList(&ScreenReceiverStub::GetNonLocalSenderList, list);
}

int GetValidSenderList(ScreenSenderRecord*** list) {
    return GetList(&ScreenReceiverStub::GetValidSenderList, list);
}

int GetModeratorInfo(ModeratorInfo* info) {
    ScreenReceiverStub::ModeratorInfo local = {0, 0};
    const int result = Run([&] { return g_ScreenReceiver.GetModeratorInfo(local); });
    info->nModeratorId = local.nModeratorId;
    info->byModeratorFlag = local.byModeratorFlag;
    return result;
}

int SetModeratorInfo(const ModeratorInfo* info) {
    return Run([=] {
        return g_ScreenReceiver.SetModeratorInfo({info->nModeratorId, info->byModeratorFlag});
    });
}

int StartPlayImage(int senderId, unsigned char option) {
    return Run([=] { return g_ScreenReceiver.StartPlayImage(senderId, option); });
}

int StopPlayImage(int senderId) {
    return Run([=] { return g_ScreenReceiver.StopPlayImage(senderId); });
}

int ForceSenderLogout(int senderId) {
    return Run([=] { return g_ScreenReceiver.ForceSenderLogout(senderId); });
}

int RefreshConfCtrlTimer(void) {
    return Run([] { return g_ScreenReceiver.RefreshConfCtrlTimer(); });
}

int QuitConfCtrl(void) {
    return Run([] { return g_ScreenReceiver.QuitConfCtrl(); });
}

void SetScrRcvNotifyCB(int (*cb)(int, int, int)) {
    Run([=] {
        g_ScreenReceiver.SetScrRcvNotifyCB(cb);
        return 0;
    });
}

int GetErrorCode(void) {
    return Run([] { return g_ScreenReceiver.GetErrorCode(); });
}
