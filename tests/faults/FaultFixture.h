#ifndef TESTS_FAULTS_FAULTFIXTURE_H_
#define TESTS_FAULTS_FAULTFIXTURE_H_

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ScreenReceiver/ScreenReceiverStub.h"
#include "simulator/ReceiverSimulator.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedPeer.h"

namespace sr_test {

using simulator::CutEnd;
using simulator::Fault;
using simulator::FaultKind;
using simulator::GarbagePlace;
using simulator::kNotifications;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kNoAnswer = -6528101;
constexpr int kPeerClosed = -6528002;
constexpr int kReset = -104;
constexpr int kStalled = -11;

// Sizes of a frame's parts.
constexpr int kPrefixSize = 7;
constexpr int kPayloadAt = 8;
constexpr int kFrameSize = 40;
constexpr int kRecordSize = 128;

/// What a caller keeps his results in. Filled with old data, to tell what a call has written.
struct Data {
    Data();
    std::vector<int> Keys() const;

    std::vector<ScreenSenderInfo> list;
    ScreenReceiverStub::ModeratorInfo info = {77, 77};
};

constexpr int kOldKey = 77;
constexpr int kOldLength = 5;

inline Data::Data() : list(kOldLength) {
    for (ScreenSenderInfo& sender : list)
        ScreenReceiverStub::DecodeSender(Padded(Hex("0000004d"), 64).c_str(), false, sender);
}

inline std::vector<int> Data::Keys() const {
    std::vector<int> keys;
    for (const ScreenSenderInfo& sender : list)
        keys.push_back(sender.GetPrimaryKey());
    return keys;
}

/// One of the ten commands, with what it gives with the receiver of FaultFixture, each time.
struct Command {
    const char* name;
    int code;
    int result;
    std::vector<int> keys;  // of a list
    int (*call)(ScreenReceiverStub&, Data&);

    bool IsList() const { return !keys.empty(); }
    int AnswerSize() const { return kFrameSize + kRecordSize * static_cast<int>(keys.size()); }
    int PayloadSize() const { return AnswerSize() - kPayloadAt; }
};

inline std::ostream& operator<<(std::ostream& out, const Command& command) {
    return out << command.name;
}

inline std::string NameOf(const testing::TestParamInfo<Command>& info) {
    return info.param.name;
}

inline std::vector<Command> ListCommands() {
    return {
        {"GetSenderList",
         16,
         0,
         {1, 2, 3},
         [](ScreenReceiverStub& stub, Data& data) { return stub.GetSenderList(data.list); }},
        {"GetNonLocalSenderList",
         26,
         0,
         {2, 3},
         [](ScreenReceiverStub& stub, Data& data) {
             return stub.GetNonLocalSenderList(data.list);
         }},
        {"GetValidSenderList",
         28,
         0,
         {1, 2},
         [](ScreenReceiverStub& stub, Data& data) { return stub.GetValidSenderList(data.list); }},
    };
}

/// Those whose answer has 32 bytes. The results: already shown, not shown, unknown sender.
inline std::vector<Command> FixedCommands() {
    return {
        {"StartPlayImage",
         18,
         2,
         {},
         [](ScreenReceiverStub& stub, Data&) { return stub.StartPlayImage(2, 9); }},
        {"StopPlayImage",
         20,
         3,
         {},
         [](ScreenReceiverStub& stub, Data&) { return stub.StopPlayImage(3); }},
        {"RefreshConfCtrlTimer",
         22,
         0,
         {},
         [](ScreenReceiverStub& stub, Data&) { return stub.RefreshConfCtrlTimer(); }},
        {"QuitConfCtrl",
         24,
         0,
         {},
         [](ScreenReceiverStub& stub, Data&) { return stub.QuitConfCtrl(); }},
        {"ForceSenderLogout",
         30,
         1,
         {},
         [](ScreenReceiverStub& stub, Data&) { return stub.ForceSenderLogout(99); }},
        {"GetModeratorInfo",
         32,
         0,
         {},
         [](ScreenReceiverStub& stub, Data& data) { return stub.GetModeratorInfo(data.info); }},
        {"SetModeratorInfo",
         34,
         0,
         {},
         [](ScreenReceiverStub& stub, Data&) {
             return stub.SetModeratorInfo({256, 5});
         }},
    };
}

inline std::vector<Command> AllCommands() {
    std::vector<Command> commands = ListCommands();
    for (const Command& command : FixedCommands())
        commands.push_back(command);
    return commands;
}

inline const Command& CommandOf(int code) {
    static const std::vector<Command> commands = AllCommands();
    for (const Command& command : commands) {
        if (command.code == code)
            return command;
    }
    throw std::invalid_argument("no command has this code");
}

constexpr int kGetSenderList = 16;
constexpr int kStartPlayImage = 18;
constexpr int kQuitConfCtrl = 24;
constexpr int kGetModeratorInfo = 32;

/// All fields that come over the wire; numbers in decimal but the address.
inline std::string Described(const ScreenSenderInfo& sender) {
    std::ostringstream text;
    text << sender.GetPrimaryKey() << ' ' << sender.GetUserName() << ' ' << std::hex
         << sender.GetIpAddress() << std::dec << ' ' << sender.GetStatus() << ' '
         << int{sender.GetSplitScreen()} << ' ' << sender.GetOSType() << ' ' << sender.GetAppType()
         << ' ' << sender.GetPointInputType();
    return text.str();
}

/// The sender of FaultFixture's receiver.
inline std::string DescribedByKey(int key) {
    static const std::array<const char*, 3> kSenders = {"1 Ada c0000201 1 128 3 2 1",
                                                        "2 Grace c0000202 2 5 1 1 0",
                                                        "3 Edsger c0000203 0 128 4 2 2"};
    return kSenders.at(static_cast<size_t>(key) - 1);
}

/// The first `count` records are those that the receiver has.
inline void ExpectRecords(const Command& command, const Data& data, size_t count) {
    ASSERT_LE(count, data.list.size());
    for (size_t i = 0; i < count; ++i)
        EXPECT_EQ(DescribedByKey(command.keys[i]), Described(data.list[i])) << command;
}

inline void ExpectListUntouched(const Command& command, const Data& data) {
    EXPECT_EQ(std::vector<int>(kOldLength, kOldKey), data.Keys()) << command;
}

inline void ExpectInfo(int id, int flag, const Data& data) {
    EXPECT_EQ(id, data.info.nModeratorId);
    EXPECT_EQ(flag, data.info.byModeratorFlag);
}

inline void ExpectUntouched(const Command& command, const Data& data) {
    ExpectListUntouched(command, data);
    ExpectInfo(77, 77, data);
}

/// The call gives what the receiver has to say, and writes nothing else.
inline void ExpectRight(const Command& command, ScreenReceiverStub& stub) {
    Data data;
    EXPECT_EQ(command.result, command.call(stub, data)) << command;
    EXPECT_EQ(command.result, stub.GetErrorCode()) << command;
    EXPECT_TRUE(stub.IsConnected()) << command;
    if (command.IsList()) {
        ASSERT_EQ(command.keys, data.Keys()) << command;
        ExpectRecords(command, data, command.keys.size());
        ExpectInfo(77, 77, data);
    } else if (command.code == kGetModeratorInfo) {
        ExpectListUntouched(command, data);
        ExpectInfo(256, 5, data);
    } else {
        ExpectUntouched(command, data);
    }
}

class Stopwatch {
public:
    Stopwatch() : m_Start(std::chrono::steady_clock::now()) {}
    milliseconds Elapsed() const {
        return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - m_Start);
    }

private:
    std::chrono::steady_clock::time_point m_Start;
};

/// The client measures its time-outs in whole milliseconds of another clock.
constexpr milliseconds kClockStep(50);

/// A client and what it logs.
struct Client {
    Client() { stub.SetLogger(&log); }

    int Skipped() const { return log.Count(kLogNotice, "NetworkThread unknown prefix data 0x"); }

    static std::string ExceptionalLine(int code) {
        std::ostringstream text;
        text << "<== NetworkThread got exceptional event 0x" << std::hex << std::uppercase << code;
        return text.str();
    }
    /// Frames with this command byte that nobody waited for.
    bool WaitForExceptional(int code, int count = 1) const {
        return log.WaitForLines(kLogNotice, ExceptionalLine(code), count);
    }

    /// The first line that begins with `text`; past the last one when there is none.
    size_t FirstLine(const std::string& text) const {
        const std::vector<LogCapture::Line> lines = log.Lines();
        size_t i = 0;
        while (i < lines.size() && lines[i].text.compare(0, text.size(), text) != 0)
            ++i;
        return i;
    }

    LogCapture log;
    ScreenReceiverStub stub;
};

using Event = std::array<int, 3>;

/// What the notification callback of the one client with a callback was called with.
class Events {
public:
    static int Record(int first, int second, int third) {
        std::function<void()> hook;
        {
            const std::lock_guard<std::mutex> lock(s_Mutex);
            s_Events.push_back({first, second, third});
            hook = s_Hook;
        }
        if (hook)
            hook();
        return 0;
    }
    static std::vector<Event> All() {
        const std::lock_guard<std::mutex> lock(s_Mutex);
        return s_Events;
    }
    static bool WaitForCount(size_t count) {
        return WaitFor([count] { return All().size() >= count; });
    }
    /// Called after each event was recorded, inside the callback.
    static void SetHook(const std::function<void()>& hook) {
        const std::lock_guard<std::mutex> lock(s_Mutex);
        s_Hook = hook;
    }
    static void Clear() {
        const std::lock_guard<std::mutex> lock(s_Mutex);
        s_Events.clear();
        s_Hook = nullptr;
    }

private:
    inline static std::mutex s_Mutex;
    inline static std::vector<Event> s_Events;
    inline static std::function<void()> s_Hook;
};

/// A fault of the next so many frames of a command.
inline Fault MakeFault(FaultKind kind, int command, uint64_t count = 1) {
    Fault fault;
    fault.kind = kind;
    fault.command = command;
    fault.count = count;
    return fault;
}

inline Fault Delay(int command, milliseconds time) {
    Fault fault = MakeFault(FaultKind::Delay, command);
    fault.time = time;
    return fault;
}

inline Fault Cut(int command, int bytes, CutEnd end) {
    Fault fault = MakeFault(FaultKind::Cut, command);
    fault.bytes = bytes;
    fault.end = end;
    return fault;
}

inline Fault Stall(int command, int bytes, milliseconds time) {
    Fault fault = Cut(command, bytes, CutEnd::Later);
    fault.time = time;
    return fault;
}

inline Fault Trickle(int command, int bytes, milliseconds time) {
    Fault fault = MakeFault(FaultKind::Trickle, command);
    fault.bytes = bytes;
    fault.time = time;
    return fault;
}

inline Fault Garbage(int command, GarbagePlace place, int bytes, bool prefixParts = false) {
    Fault fault = MakeFault(FaultKind::Garbage, command);
    fault.place = place;
    fault.bytes = bytes;
    fault.prefixParts = prefixParts;
    return fault;
}

inline Fault WrongCode(int command, int code) {
    Fault fault = MakeFault(FaultKind::WrongCode, command);
    fault.code = code;
    return fault;
}

inline Fault FalseCount(int command, int records) {
    Fault fault = MakeFault(FaultKind::FalseCount, command);
    fault.records = records;
    return fault;
}

/**
 * A receiver with three senders, the second one shown and local the first one only, and one client.
 * Nothing changes by itself, and the commands of AllCommands() always have the same results.
 */
class FaultFixture : public testing::Test {
protected:
    FaultFixture() {
        m_Options.address = UniqueAddress();
        m_Options.confTimeout = milliseconds(0);
    }

    void StartReceiver() {
        m_pReceiver = std::make_unique<simulator::ReceiverSimulator>(m_Options);
        AddSender({1, 0xC0000201, "Ada", 1, 0x80, 3, 2, 1, true, true});
        AddSender({2, 0xC0000202, "Grace", 1, 0x80, 1, 1, 0, false, true});
        AddSender({3, 0xC0000203, "Edsger", 0, 0x80, 4, 2, 2, false, false});
        ASSERT_EQ(simulator::kResultOk, m_pReceiver->StartPlay(2, 5));
        m_pReceiver->SetModerator({256, 5});
        const std::error_code error = m_pReceiver->Start();
        ASSERT_FALSE(error) << error.message();
    }

    void AddSender(const simulator::Sender& sender) { ASSERT_TRUE(m_pReceiver->AddSender(sender)); }

    void SetUp() override {
        StartReceiver();
        Connect(m_Client);
    }

    // The receiver first: a client that has garbage unread waits 5 s for more.
    void TearDown() override {
        m_pReceiver.reset();
        m_Client.stub.CloseConnect();
        m_Client.stub.SetScrRcvNotifyCB(nullptr);
        Events::Clear();
    }

    const char* Host() const { return m_Options.address.c_str(); }

    /// Returns once the receiver counts the client, so that it gets what is notified.
    void Connect(Client& client) {
        const uint64_t before = m_pReceiver->GetStatistics().clients;
        ASSERT_EQ(0, client.stub.Init(Host(), false));
        ASSERT_TRUE(WaitFor([&] { return m_pReceiver->GetStatistics().clients > before; }));
    }

    /// After the connection was lost: Init makes everything work again.
    void ExpectInitHelps(const Command& command, Client& client) {
        EXPECT_TRUE(WaitFor([&] { return !client.stub.IsConnected(); })) << command;
        EXPECT_EQ(0, client.stub.Init(Host(), false)) << command;
        ExpectRight(command, client.stub);
    }

    void FaultOn(const Fault& fault) { ASSERT_TRUE(m_pReceiver->FaultOn(fault)); }

    /// The fault for each of the commands, once.
    void FaultOnEach(const std::vector<Command>& commands, Fault fault) {
        for (const Command& command : commands) {
            fault.command = command.code;
            FaultOn(fault);
        }
    }

    using Body = std::function<void(const Command&, Client&)>;

    /**
     * Each command at the same time, with a client and on a thread of its own. Once more with the
     * same commands: with the same clients.
     */
    void AtOnce(const std::vector<Command>& commands, const Body& body) {
        while (m_Clients.size() < commands.size()) {
            m_Clients.push_back(std::make_unique<Client>());
            Connect(*m_Clients.back());
        }
        std::vector<std::thread> threads;
        for (size_t i = 0; i < commands.size(); ++i)
            threads.emplace_back([&, i] { body(commands[i], *m_Clients[i]); });
        for (std::thread& thread : threads)
            thread.join();
    }

    simulator::Options m_Options;
    std::unique_ptr<simulator::ReceiverSimulator> m_pReceiver;
    Client m_Client;
    std::vector<std::unique_ptr<Client>> m_Clients;
};

/// One case for each command.
class CommandFaultFixture : public FaultFixture, public testing::WithParamInterface<Command> {};

}  // namespace sr_test

#endif  // TESTS_FAULTS_FAULTFIXTURE_H_
