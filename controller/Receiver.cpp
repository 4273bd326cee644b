#include "controller/Receiver.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "controller/Text.h"

namespace screenctl {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr milliseconds kFirstPause(100);
constexpr milliseconds kLongestPause(2000);

}  // namespace

bool IsDottedAddress(const std::string& host) {
    in_addr address = {};
    return inet_pton(AF_INET, host.c_str(), &address) == 1;
}

class Receiver::Stub : public ScreenReceiverStub {
public:
    ~Stub() override {
        EndThreads();
        Stub* self = this;
        s_pListening.compare_exchange_strong(self, nullptr);
    }

    /// 0 or why not; unlike Init() it tells a refused port.
    int Connect(const std::string& host) {
        m_nRefused = 0;
        const int opened = Init(host.c_str(), false);
        if (opened >= 0)
            return 0;
        return m_nRefused < 0 ? SetErrorAt(m_nRefused, "", "", __FILE__, __LINE__) : opened;
    }

    /// False as soon as the network thread has found the link broken.
    bool IsLinkUp() const { return m_bRunning; }

    void Listen(Listener listener) {
        m_Listener = std::move(listener);
        s_pListening = this;
        SetScrRcvNotifyCB(&Stub::Notified);
    }

    std::string TextOf(int code) {
        return GetErrorCode() == code ? WithoutPlace(GetErrorMessage()) : Explain(code).message;
    }

    /// Whether a negative result is the receiver's own. The methods that have results record them
    /// under their own file's name, and everything that fails under the engine's.
    bool IsReceiversResult(int result) {
        constexpr std::string_view kPlace = "ScreenReceiverStub.cpp:";
        return GetErrorCode() == result &&
               std::string_view(GetErrFileLine()).substr(0, kPlace.size()) == kPlace;
    }

protected:
    // A refused or unreachable port is "writable" as well. Without this it would be adopted, and
    // the refusal would only show later.
    int HandShake(int sock) override {
        int error = 0;
        socklen_t size = sizeof error;
        getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &size);
        sockaddr_in peer = {};
        size = sizeof peer;
        if (error == 0 && getpeername(sock, reinterpret_cast<sockaddr*>(&peer), &size) == -1)
            error = errno;
        if (error == 0)
            return 0;
        m_nRefused = -error;
        m_bClosing = true;  // or the library would look at this socket again until the time is over
        return -1;
    }

    void OnConnectClose() override {
        ScreenReceiverStub::OnConnectClose();
        if (!IsLinkUp())
            Tell(nullptr);
    }

private:
    static int Notified(int first, int second, int third) {
        const int values[] = {first, second, third};
        if (Stub* stub = s_pListening)
            stub->Tell(values);
        return 0;
    }

    void Tell(const int* values) {
        const std::lock_guard<std::mutex> lock(m_ListenMutex);
        if (m_Listener)
            m_Listener(values);
    }

    static inline std::atomic<Stub*> s_pListening{nullptr};
    Listener m_Listener;       // set before there are threads
    std::mutex m_ListenMutex;  // one call at a time
    int m_nRefused = 0;
};

Receiver::Receiver(const std::string& host, const Trace& trace)
    : m_pStub(std::make_unique<Stub>()), m_strHost(host) {
    if (trace.file.empty())
        return;
    const char* file = trace.file == "-" ? nullptr : trace.file.c_str();
    errno = 0;
    if (m_pStub->GetLogger()->Open(file, static_cast<LogLevel>(trace.level), true) != 0) {
        const int error = errno;
        m_Unusable = Failure{Exit::WrongUsage, -error, std::strerror(error),
                             fmt::format("The trace file {} cannot be opened: give another one.",
                                         Printable(trace.file))};
    }
}

Receiver::~Receiver() = default;

Receiver::Result Receiver::Connect(milliseconds wait) {
    if (!IsDottedAddress(m_strHost))
        return Failure{Exit::WrongUsage, 0, "",
                       fmt::format("\"{}\" is not a dotted IPv4 address: give four numbers from 0 "
                                   "to 255, like 192.0.2.7, since names are not looked up.",
                                   Printable(m_strHost))};
    if (m_Unusable)
        return m_Unusable;
    const auto end = steady_clock::now() + wait;
    milliseconds pause = kFirstPause;
    for (;;) {
        const int code = m_pStub->Connect(m_strHost);
        if (code == 0)
            return std::nullopt;
        const auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now());
        if (left <= milliseconds(0))
            return FailureOf(code, m_pStub->TextOf(code), m_strHost);
        std::this_thread::sleep_for(std::min(pause, left));
        pause = std::min(pause * 2, kLongestPause);
    }
}

bool Receiver::IsConnected() const {
    return m_pStub->IsLinkUp();
}

void Receiver::Close() {
    m_pStub->CloseConnect();
}

// The library would notice a lost link only after some seconds of trying to send. A connection on
// which a request has failed is not used again: a late answer would be taken for the next one's.
Receiver::Result Receiver::Ask(const std::function<int(Stub&)>& request, const std::string& what) {
    int result = -ENOTCONN;
    if (IsConnected())
        result = request(*m_pStub);
    else if (m_pStub->GetErrorCode() < 0)
        result = m_pStub->GetErrorCode();
    if (result == 0)
        return std::nullopt;
    if (result > 0 || m_pStub->IsReceiversResult(result))
        return Failure{Exit::Refused, result, "",
                       fmt::format("The receiver {} did not {}: it answered with the result {}, "
                                   "whose meaning its manual tells.",
                                   m_strHost, what, result)};
    const std::string text = m_pStub->TextOf(result);
    Close();
    return FailureOf(result, text, m_strHost);
}

Receiver::Result Receiver::List(Which which, std::vector<ScreenSenderInfo>& senders) {
    const Result failure = Ask(
        [&](Stub& stub) {
            switch (which) {
                case Which::NonLocal:
                    return stub.GetNonLocalSenderList(senders);
                case Which::Valid:
                    return stub.GetValidSenderList(senders);
                case Which::All:
                    break;
            }
            return stub.GetSenderList(senders);
        },
        "list its senders");
    if (failure)
        senders.clear();
    return failure;
}

Receiver::Result Receiver::GetModerator(ScreenReceiverStub::ModeratorInfo& moderator) {
    return Ask([&](Stub& stub) { return stub.GetModeratorInfo(moderator); }, "tell its moderator");
}

Receiver::Result Receiver::SetModerator(const ScreenReceiverStub::ModeratorInfo& moderator) {
    return Ask([&](Stub& stub) { return stub.SetModeratorInfo(moderator); }, "set its moderator");
}

Receiver::Result Receiver::Play(int sender, unsigned char option) {
    return Ask([&](Stub& stub) { return stub.StartPlayImage(sender, option); },
               fmt::format("show sender {}", sender));
}

Receiver::Result Receiver::Stop(int sender) {
    return Ask([&](Stub& stub) { return stub.StopPlayImage(sender); },
               fmt::format("stop showing sender {}", sender));
}

Receiver::Result Receiver::Logout(int sender) {
    return Ask([&](Stub& stub) { return stub.ForceSenderLogout(sender); },
               fmt::format("log sender {} out", sender));
}

Receiver::Result Receiver::KeepAlive() {
    return Ask([](Stub& stub) { return stub.RefreshConfCtrlTimer(); }, "keep conference control");
}

Receiver::Result Receiver::QuitControl() {
    return Ask([](Stub& stub) { return stub.QuitConfCtrl(); }, "leave conference control");
}

void Receiver::Listen(Listener listener) {
    m_pStub->Listen(std::move(listener));
}

const std::string& Receiver::Host() const {
    return m_strHost;
}

}  // namespace screenctl
