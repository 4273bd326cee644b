#ifndef TESTS_WIRE_PROTOCOLFIXTURE_H_
#define TESTS_WIRE_PROTOCOLFIXTURE_H_

#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TeskClient/ProtocolBase.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/wire/Interposed.h"

namespace sr_test {

using Clock = std::chrono::steady_clock;

inline milliseconds Since(Clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

/// printf into a string.
inline std::string Text(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline std::string Text(const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

inline int OpenDescriptors() {
    DIR* directory = ::opendir("/proc/self/fd");
    int count = 0;
    while (::readdir(directory) != nullptr)
        ++count;
    ::closedir(directory);
    return count;
}

/// Holds threads back until it is opened.
class Gate {
public:
    void Open() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_bOpen = true;
        m_Cond.notify_all();
    }
    /// False when it was not opened within a time that only a broken test needs.
    bool Wait() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cond.wait_for(lock, std::chrono::seconds(60), [this] { return m_bOpen; });
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    bool m_bOpen = false;
};

/// Opens a gate at the end of a test, also of one that an assertion ends early.
class GateOpener {
public:
    explicit GateOpener(Gate& gate) : m_Gate(gate) {}
    ~GateOpener() { m_Gate.Open(); }
    GateOpener(const GateOpener&) = delete;
    GateOpener& operator=(const GateOpener&) = delete;

private:
    Gate& m_Gate;
};

/// A log capture that lets a test act in the middle of a function, at one of its log lines.
class HookLog : public LogCapture {
public:
    std::function<void(const std::string& message)> onLine;  // set before the object has threads

    void fWriteLogva(FILE* stream, LogLevel level, const char* format, va_list args) override {
        char message[2048];
        va_list copy;
        va_copy(copy, args);
        std::vsnprintf(message, sizeof message, format, copy);
        va_end(copy);
        LogCapture::fWriteLogva(stream, level, format, args);
        if (onLine)
            onLine(message);
    }
};

// Command bytes of TestProtocol.
constexpr int kRequest = 0x10;
constexpr int kAnswer = 0x11;  // 4 bytes, no handler
constexpr int kOtherRequest = 0x20;
constexpr int kOtherAnswer = 0x21;   // 4 bytes, no handler
constexpr int kFixedEvent = 0x24;    // 12 bytes
constexpr int kCountedEvent = 0x25;  // a count byte, then as many bytes
constexpr int kBareEvent = 0x26;     // no payload: the default reader
constexpr int kHookedEvent = 0x30;   // onRead reads it
constexpr int kHookedAnswer = 0x31;  // onRead reads it, no handler

constexpr int kReadTimeoutMs = 5000;

/**
 * A protocol of a few commands that opens its insides to the tests. The hooks are set before the
 * object has threads; an empty one leaves the base class's behaviour.
 */
class TestProtocol : public ProtocolBase {
public:
    using Event = std::pair<unsigned char, std::string>;

    TestProtocol() {
        m_RecvHandlers[kAnswer] = static_cast<RecvHandler>(&TestProtocol::RecvAnswer);
        m_RecvHandlers[kOtherAnswer] = static_cast<RecvHandler>(&TestProtocol::RecvAnswer);
        m_RecvHandlers[kFixedEvent] = static_cast<RecvHandler>(&TestProtocol::RecvFixed);
        m_RecvHandlers[kCountedEvent] = static_cast<RecvHandler>(&TestProtocol::RecvCounted);
        m_RecvHandlers[kHookedEvent] = static_cast<RecvHandler>(&TestProtocol::RecvHooked);
        m_RecvHandlers[kHookedAnswer] = static_cast<RecvHandler>(&TestProtocol::RecvHooked);
        m_CmdHandlers[kFixedEvent] = static_cast<CmdHandler>(&TestProtocol::OnFixed);
        m_CmdHandlers[kCountedEvent] = static_cast<CmdHandler>(&TestProtocol::OnCounted);
        m_CmdHandlers[kBareEvent] = static_cast<CmdHandler>(&TestProtocol::OnBare);
        m_CmdHandlers[kHookedEvent] = static_cast<CmdHandler>(&TestProtocol::OnHooked);
    }

    ~TestProtocol() override { EndThreads(); }

    std::function<bool()> onIsPeerAlive;
    std::function<void()> onPeerAlive;
    std::function<int()> onCustCommand;
    std::function<void()> onConnectClose;
    std::function<int(int sock)> onHandShake;
    std::function<int()> onCloseConnect;
    std::function<int(int result)> onOpenSocketEnd;
    std::function<void()> onNetworkThread;
    std::function<int(std::string& payload)> onRead;
    std::function<int(unsigned char cmd, const char* data)> onEvent;

    std::atomic<int> connectCloses{0};
    std::atomic<int> closeConnects{0};
    std::atomic<int> handShakes{0};
    std::atomic<int> peerAliveLooks{0};

    bool IsPeerAlive() override {
        ++peerAliveLooks;
        return onIsPeerAlive ? onIsPeerAlive() : ProtocolBase::IsPeerAlive();
    }
    void OnPeerAlive() override {
        Note("OnPeerAlive");
        if (onPeerAlive)
            onPeerAlive();
        ProtocolBase::OnPeerAlive();
    }
    int OnCustCommand() override {
        Note("OnCustCommand");
        return onCustCommand ? onCustCommand() : ProtocolBase::OnCustCommand();
    }
    void OnConnectClose() override {
        ++connectCloses;
        if (onConnectClose)
            onConnectClose();
        else
            ProtocolBase::OnConnectClose();
    }
    int HandShake(int sock) override {
        ++handShakes;
        return onHandShake ? onHandShake(sock) : ProtocolBase::HandShake(sock);
    }
    int CloseConnect() override {
        ++closeConnects;
        return onCloseConnect ? onCloseConnect() : ProtocolBase::CloseConnect();
    }
    int OpenSocket(const char* host, const std::vector<unsigned short>& ports, int sec) override {
        const int result = ProtocolBase::OpenSocket(host, ports, sec);
        return onOpenSocketEnd ? onOpenSocketEnd(result) : result;
    }
    void NetworkThread() override {
        if (onNetworkThread)
            onNetworkThread();
        else
            ProtocolBase::NetworkThread();
    }
    void HandleRetVal(unsigned char cmd, int result) override {
        Note(Text("HandleRetVal %02X %d", cmd, result));
        ProtocolBase::HandleRetVal(cmd, result);
    }

    /// What was called on the object's threads, in order.
    std::vector<std::string> Notes() const {
        std::lock_guard<std::mutex> lock(m_NotesMutex);
        return m_Notes;
    }
    void ForgetNotes() {
        std::lock_guard<std::mutex> lock(m_NotesMutex);
        m_Notes.clear();
    }
    void Note(const std::string& note) {
        std::lock_guard<std::mutex> lock(m_NotesMutex);
        m_Notes.push_back(note);
    }

    size_t QueuedEvents() {
        OrderedMutex<LockRank::Events>::scoped_lock lock(m_EventMutex);
        return m_EventQueue.size();
    }
    /// Takes the queue's contents; for connections without a dispatcher.
    std::vector<Event> TakeEvents() {
        OrderedMutex<LockRank::Events>::scoped_lock lock(m_EventMutex);
        std::vector<Event> events(m_EventQueue.begin(), m_EventQueue.end());
        m_EventQueue.clear();
        return events;
    }
    std::string Host() {
        OrderedMutex<LockRank::Connection>::scoped_lock lock(m_ConnMutex);
        return m_strHost;
    }
    bool HasThreadGroup() {
        OrderedMutex<LockRank::Connection>::scoped_lock lock(m_ConnMutex);
        return m_pThreadGroup != nullptr;
    }
    std::string LastAnswer() {
        std::lock_guard<std::mutex> lock(m_NotesMutex);
        return m_strAnswer;
    }
    std::pair<std::string, std::string> ErrorArguments() {
        OrderedMutex<LockRank::ErrorState>::scoped_lock lock(m_ErrMutex);
        return {m_strErrArg1, m_strErrArg2};
    }
    std::string ErrorMessage() {
        OrderedMutex<LockRank::ErrorState>::scoped_lock lock(m_ErrMutex);
        return GetErrorMessage();
    }
    int ErrorLine() {
        OrderedMutex<LockRank::ErrorState>::scoped_lock lock(m_ErrMutex);
        return m_nErrLine;
    }

    /// Whether another thread could take the mutex now.
    template <class Mutex>
    static bool IsFree(Mutex& mutex) {
        bool free = false;
        std::thread([&] {
            free = mutex.try_lock();
            if (free)
                mutex.unlock();
        }).join();
        return free;
    }

    int RecvAnswer(std::string& payload) {
        payload.assign(4, '\0');
        const int result = m_Socket.recv(&payload[0], 4, 0, kReadTimeoutMs);
        std::lock_guard<std::mutex> lock(m_NotesMutex);
        m_strAnswer = payload;
        m_Notes.push_back("RecvAnswer");
        return result;
    }
    int RecvFixed(std::string& payload) {
        payload.assign(12, '\0');
        return m_Socket.recv(&payload[0], 12, 0, kReadTimeoutMs);
    }
    int RecvCounted(std::string& payload) {
        payload.assign(1, '\0');
        const int result = m_Socket.recv(&payload[0], 1, 0, kReadTimeoutMs);
        const int count = static_cast<unsigned char>(payload[0]);
        if (result < 1 || count == 0)
            return result;
        payload.resize(static_cast<size_t>(count) + 1);
        return m_Socket.recv(&payload[1], count, 0, kReadTimeoutMs);
    }
    int RecvHooked(std::string& payload) {
        Note("RecvHooked");
        return onRead ? onRead(payload) : RecvUnknownData(payload);
    }
    int OnFixed(char* data) { return Handle(kFixedEvent, data, std::string(data, 12)); }
    int OnCounted(char* data) {
        const size_t count = static_cast<unsigned char>(*data);
        return Handle(kCountedEvent, data, std::string(data + 1, count));
    }
    int OnBare(char* data) { return Handle(kBareEvent, data, data); }
    int OnHooked(char* data) { return Handle(kHookedEvent, data, data); }

    // clang-format off
    using ProtocolBase::m_CmdHandlers;
    using ProtocolBase::m_RecvHandlers;
    using ProtocolBase::m_EventMutex;
    using ProtocolBase::m_SendMutex;
    using ProtocolBase::m_ConnMutex;
    using ProtocolBase::m_pThreadGroup;
    using ProtocolBase::m_EventWaitMutex;
    using ProtocolBase::m_AnsWaitMutex;
    using ProtocolBase::m_EventCond;
    using ProtocolBase::m_AnsCond;
    using ProtocolBase::m_pDispatcherThread;
    using ProtocolBase::m_pCloseThread;
    using ProtocolBase::m_RecvMutex;
    using ProtocolBase::m_Socket;
    using ProtocolBase::m_bRunning;
    using ProtocolBase::m_EventQueue;
    using ProtocolBase::m_nAnsCode;
    using ProtocolBase::m_strCmdPrefix;
    using ProtocolBase::m_strCustCmdPrefix;
    using ProtocolBase::m_strSendBuf;
    using ProtocolBase::m_bFuncPending;
    using ProtocolBase::m_nSndRcvTimeout;
    using ProtocolBase::m_bClosing;
    using ProtocolBase::m_strHost;
    using ProtocolBase::m_vecPort;
    using ProtocolBase::m_bNoDispatcher;
    using ProtocolBase::m_nConnectTimeout;
    // clang-format on

private:
    int Handle(int cmd, const char* data, const std::string& payload) {
        std::string hex;
        for (const char byte : payload)
            hex += Text("%02X", static_cast<unsigned char>(byte));
        Note(Text("On %02X %s", static_cast<unsigned>(cmd), hex.c_str()));
        return onEvent ? onEvent(static_cast<unsigned char>(cmd), data) : 1;
    }

    mutable std::mutex m_NotesMutex;
    std::vector<std::string> m_Notes;
    std::string m_strAnswer;
};

/// A protocol with the prefix "RecvIPC", its log, and the far end of its connection.
class ProtocolTest : public testing::Test {
protected:
    static constexpr LogLevel kTrace = kLogDebug;

    ProtocolTest() : m_Peer(UniqueAddress(), 0), m_pProtocol(new TestProtocol), m_P(*m_pProtocol) {
        m_P.SetLogger(&m_Log);
        m_P.SetCmdPrefix("RecvIPC", 7);
    }

    ~ProtocolTest() override {
        m_pProtocol.reset();
        Interposed() = InterposedCalls();
    }

    /// Connects to the peer; without a dispatcher the events stay in the queue to be looked at.
    void Connect(bool noDispatcher = true) {
        ASSERT_EQ(0, m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, noDispatcher, 10));
        ASSERT_TRUE(m_Peer.Accept());
        m_nSock = m_P.GetSocket();
    }

    /// Ends the object, so that its log is complete and its threads are gone.
    void EndProtocol() { m_pProtocol.reset(); }

    const void* This() const { return m_pThis; }

    /// `text` with " sock:<the connection's descriptor> this:<the object>" behind it.
    std::string WithPlace(const std::string& text) const { return WithPlace(text, m_nSock); }
    std::string WithPlace(const std::string& text, int sock) const {
        return text + Text(" sock:%d this:%p", sock, This());
    }

    /// Lines of this level that read exactly so, the source place at their end aside.
    int CountLines(LogLevel level, const std::string& text) const {
        int count = 0;
        for (const LogCapture::Line& line : m_Log.Lines())
            count += line.level == level && line.text == text;
        return count;
    }
    bool HasLine(LogLevel level, const std::string& text, int count = 1) const {
        return WaitFor([&] { return CountLines(level, text) >= count; });
    }

    bool HasError(int code) {
        return WaitFor([&] { return m_P.GetErrorCode() == code; });
    }

    /// The record as a whole: code, arguments, place, message and log line. Line 0 = not fixed.
    void ExpectError(int code,
                     const std::string& arg1,
                     const std::string& arg2,
                     const std::string& message,
                     int line) {
        EXPECT_EQ(code, m_P.GetErrorCode());
        EXPECT_EQ(std::make_pair(arg1, arg2), m_P.ErrorArguments());
        if (line == 0)
            line = m_P.ErrorLine();
        EXPECT_LT(0, line);
        EXPECT_EQ(line, m_P.ErrorLine());
        const std::string whole = message + Text(" [ProtocolBase.cpp:%d]", line);
        EXPECT_EQ(whole, m_P.ErrorMessage());
        EXPECT_EQ(1, CountErrorLines(Text("ErrorCode=%d -> ", code) + whole));
    }

    int CountErrorLines(const std::string& whole) const {
        int count = 0;
        for (const LogCapture::Line& line : m_Log.Lines()) {
            const std::string place = line.place.empty() ? "" : " [" + line.place + "]";
            count += line.level == kLogError && line.text + place == whole;
        }
        return count;
    }
    int CountErrorLines() const { return m_Log.Count(kLogError, "ErrorCode="); }

    std::future<int> RequestAsync(int req, int ans, const char* name, int timeoutSec) {
        return std::async(std::launch::async, [=] {
            return m_P.RequestCommand(req, ans, name, std::string(), true, timeoutSec);
        });
    }
    static bool IsReady(std::future<int>& result) {
        return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }
    bool IsWaitingFor(int ansCode) {
        return WaitFor([&] { return m_P.m_nAnsCode == ansCode; });
    }

    // The log outlives the object that writes to it.
    HookLog m_Log;
    ScriptedPeer m_Peer;
    std::unique_ptr<TestProtocol> m_pProtocol;
    TestProtocol& m_P;
    const void* m_pThis = static_cast<ProtocolBase*>(m_pProtocol.get());
    int m_nSock = -1;
};

/// How a stream of bytes comes over the wire.
enum class Delivery { Whole, SplitAtEveryOffset, ByteByByte };

inline std::ostream& operator<<(std::ostream& out, Delivery delivery) {
    static const char* const names[] = {"Whole", "SplitAtEveryOffset", "ByteByByte"};
    return out << names[static_cast<int>(delivery)];
}

inline std::string NameOf(const testing::TestParamInfo<Delivery>& info) {
    return testing::PrintToString(info.param);
}

/// Receive rules that must hold however the bytes are cut on their way.
class ReceiveTest : public ProtocolTest, public testing::WithParamInterface<Delivery> {
protected:
    /// Sends the stream as often as its delivery has ways, and checks after each.
    void Deliver(const std::string& stream, const std::function<void()>& check) {
        if (GetParam() == Delivery::SplitAtEveryOffset) {
            for (size_t offset = 1; offset < stream.size() && !HasFailure(); ++offset) {
                SCOPED_TRACE(Text("split at %zu", offset));
                m_Peer.SendSplitAt(stream, {offset});
                check();
            }
            return;
        }
        if (GetParam() == Delivery::Whole)
            m_Peer.Send(stream);
        else
            m_Peer.SendByteByByte(stream);
        check();
    }

    /// The same; each time exactly these events must be queued.
    void DeliverEvents(const std::string& stream, const std::vector<TestProtocol::Event>& events) {
        Deliver(stream, [&] {
            WaitFor([&] { return m_P.QueuedEvents() >= events.size(); });
            EXPECT_EQ(events, m_P.TakeEvents());
            ++m_nRounds;
        });
    }

    int m_nRounds = 0;
};

#define SR_INSTANTIATE_RECEIVE_TEST(Suite)                                                    \
    INSTANTIATE_TEST_SUITE_P(                                                                 \
        Delivered, Suite,                                                                     \
        testing::Values(Delivery::Whole, Delivery::SplitAtEveryOffset, Delivery::ByteByByte), \
        NameOf)

}  // namespace sr_test

#endif  // TESTS_WIRE_PROTOCOLFIXTURE_H_
