#ifndef TESTS_STUB_STUBFIXTURE_H_
#define TESTS_STUB_STUBFIXTURE_H_

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "ScreenReceiver/ScreenReceiverStub.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedPeer.h"

namespace sr_test {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// The stub with its protected members in view.
class OpenStub : public ScreenReceiverStub {
public:
    ~OpenStub() override { EndThreads(); }

    void HandleRetVal(unsigned char, int) override { ++handled; }
    std::atomic<int> handled{0};  // events whose handler has returned

    using NibErrorHandler::m_nErrLine;
    using NibErrorHandler::m_strErrArg1;
    using NibErrorHandler::m_strErrArg2;
    using NibErrorHandler::m_strErrFile;
    using NibErrorHandler::m_strErrMsg;
    using ProtocolBase::m_bRunning;
    using ProtocolBase::m_CmdHandlers;
    using ProtocolBase::m_nAnsCode;
    using ProtocolBase::m_RecvHandlers;
    using ProtocolBase::m_Socket;
    using ProtocolBase::m_strCmdPrefix;
    using ProtocolBase::m_strCustCmdPrefix;
    using ProtocolBase::m_strHost;
    using ProtocolBase::m_strSendBuf;
    using ScreenReceiverStub::m_pfnNotifyCB;
    using ScreenReceiverStub::m_pRecvResult;
};

/// One of the ten commands, with arguments, as it stands on the wire.
struct Command {
    const char* name;
    const char* request;  // hex: prefix, code, payload up to its last byte that is not 0
    const char* answer;   // hex, likewise
    const char* logged;   // what the request's log line begins with
    int result;           // what the method makes of the answer
    int (*call)(ScreenReceiverStub&);
};

inline std::ostream& operator<<(std::ostream& out, const Command& command) {
    return out << command.name;
}

/// Every request and every answer but a list: 7 bytes of prefix, the code, 32 bytes.
constexpr size_t kFrameSize = 40;

inline std::string Frame(const std::string& hex) {
    return Padded(Hex(hex), kFrameSize);
}

/// A list answer: code in hex, count and length mark in hex, records.
inline std::string ListFrame(const std::string& code,
                             const std::string& head,
                             const std::string& records = std::string()) {
    return Padded(Hex("52 65 63 76 49 50 43" + code + head), kFrameSize) + records;
}

inline std::vector<Command> AllCommands() {
    return {
        {"GetSenderList", "52 65 63 76 49 50 43 10 01", "52 65 63 76 49 50 43 11",
         "==> RequestCommand Req:0x10 Ans:0x11 GetSenderList size:32 peek:1 timeout:10 pend:0 ", 0,
         [](ScreenReceiverStub& stub) {
             std::vector<ScreenSenderInfo> list;
             return stub.GetSenderList(list);
         }},
        {"StartPlayImage", "52 65 63 76 49 50 43 12 01 02 03 04 07",
         "52 65 63 76 49 50 43 13 00 00 00 05",
         "==> RequestCommand Req:0x12 Ans:0x13 StartPlayImage size:32 peek:1 timeout:10 pend:0 ", 5,
         [](ScreenReceiverStub& stub) { return stub.StartPlayImage(16909060, 7); }},
        {"StopPlayImage", "52 65 63 76 49 50 43 14 7f ff ff ff",
         "52 65 63 76 49 50 43 15 00 00 00 07",
         "==> RequestCommand Req:0x14 Ans:0x15 StopPlayImage size:32 peek:1 timeout:10 pend:0 ", 7,
         [](ScreenReceiverStub& stub) { return stub.StopPlayImage(INT_MAX); }},
        {"RefreshConfCtrlTimer", "52 65 63 76 49 50 43 16",
         "52 65 63 76 49 50 43 17 ff ff ff ff ff",
         "==> RequestCommand Req:0x16 Ans:0x17 RefreshConfCtrlTimer size:32 peek:1 timeout:10 "
         "pend:0 ",
         0, [](ScreenReceiverStub& stub) { return stub.RefreshConfCtrlTimer(); }},
        {"QuitConfCtrl", "52 65 63 76 49 50 43 18", "52 65 63 76 49 50 43 19 00 00 00 09",
         "==> RequestCommand Req:0x18 Ans:0x19 QuitConfCtrl size:32 peek:1 timeout:10 pend:0 ", 0,
         [](ScreenReceiverStub& stub) { return stub.QuitConfCtrl(); }},
        {"GetNonLocalSenderList", "52 65 63 76 49 50 43 1a 01", "52 65 63 76 49 50 43 1b",
         "==> RequestCommand Req:0x1A Ans:0x1B GetNonLocalSenderList size:32 peek:1 timeout:10 "
         "pend:0 ",
         0,
         [](ScreenReceiverStub& stub) {
             std::vector<ScreenSenderInfo> list;
             return stub.GetNonLocalSenderList(list);
         }},
        {"GetValidSenderList", "52 65 63 76 49 50 43 1c 01", "52 65 63 76 49 50 43 1d",
         "==> RequestCommand Req:0x1C Ans:0x1D GetValidSenderList size:32 peek:1 timeout:10 "
         "pend:0 ",
         0,
         [](ScreenReceiverStub& stub) {
             std::vector<ScreenSenderInfo> list;
             return stub.GetValidSenderList(list);
         }},
        {"ForceSenderLogout", "52 65 63 76 49 50 43 1e 80 00 00 00",
         "52 65 63 76 49 50 43 1f 00 00 00 2a",
         "==> RequestCommand Req:0x1E Ans:0x1F ForceSenderLogout size:32 peek:1 timeout:10 pend:0 ",
         42, [](ScreenReceiverStub& stub) { return stub.ForceSenderLogout(INT_MIN); }},
        {"GetModeratorInfo", "52 65 63 76 49 50 43 20 01", "52 65 63 76 49 50 43 21 00 00 01 00 05",
         "==> RequestCommand Req:0x20 Ans:0x21 GetModeratorInfo size:32 peek:1 timeout:10 pend:0 ",
         0,
         [](ScreenReceiverStub& stub) {
             ScreenReceiverStub::ModeratorInfo info = {-5, 0xEE};
             const int result = stub.GetModeratorInfo(info);
             if (result == 0) {
                 EXPECT_EQ(256, info.nModeratorId);
                 EXPECT_EQ(5, info.byModeratorFlag);
             }
             return result;
         }},
        {"SetModeratorInfo", "52 65 63 76 49 50 43 22 ff ff ff ff 02",
         "52 65 63 76 49 50 43 23 00 00 00 03",
         "==> RequestCommand Req:0x22 Ans:0x23 SetModeratorInfo size:32 peek:1 timeout:10 pend:0 ",
         3,
         [](ScreenReceiverStub& stub) {
             return stub.SetModeratorInfo({-1, 2});
         }},
    };
}

/// Names of a parameterised suite's cases.
inline std::string NameOf(const testing::TestParamInfo<Command>& info) {
    return info.param.name;
}

class StubTest : public testing::Test {
protected:
    StubTest() { m_Stub.SetLogger(&m_Log); }

    void Connect() {
        ASSERT_EQ(0, m_Stub.Init(m_Peer.Host(), false));
        ASSERT_TRUE(m_Peer.Accept());
    }

    /// Makes a call on a thread of its own while the test plays the receiver, and gives its result.
    int CallWhile(const std::function<int()>& call, const std::function<void()>& receiver) {
        int result = INT_MIN;
        std::thread caller([&] { result = call(); });
        receiver();
        caller.join();
        return result;
    }

    /// A call that gets this answer, after its request has been looked at.
    int CallAnswered(const Command& command, const std::string& answer) {
        return CallWhile([&] { return command.call(m_Stub); },
                         [&] {
                             EXPECT_EQ(Frame(command.request), m_Peer.Receive(kFrameSize));
                             m_Peer.Send(answer);
                         });
    }

    template <class Call>
    int CallAnswered(Call call, const std::string& answer) {
        return CallWhile(call, [&] {
            EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
            m_Peer.Send(answer);
        });
    }

    /// Shows that the connection is in step and works.
    void ExpectAlive() {
        EXPECT_EQ(42, CallAnswered([this] { return m_Stub.ForceSenderLogout(1); },
                                   Frame("52 65 63 76 49 50 43 1f 00 00 00 2a")));
    }

    /// Closes the connection and lets a running callback return.
    void EndDispatcher() {
        m_Stub.CloseConnect();
        EXPECT_TRUE(WaitFor([this] {
            return m_Log.Count(kLogDebug, "DispatcherThread begin") ==
                   m_Log.Count(kLogDebug, "DispatcherThread end");
        }));
    }

    ScriptedPeer m_Peer;
    LogCapture m_Log;
    OpenStub m_Stub;
};

class Stopwatch {
public:
    Stopwatch() : m_Start(std::chrono::steady_clock::now()) {}
    milliseconds Elapsed() const {
        return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - m_Start);
    }

private:
    std::chrono::steady_clock::time_point m_Start;
};

}  // namespace sr_test

#endif  // TESTS_STUB_STUBFIXTURE_H_
