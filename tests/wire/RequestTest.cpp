#include <atomic>

#include "tests/wire/ProtocolFixture.h"

namespace sr_test {
namespace {

constexpr int kPeerClosed = -6528002;
constexpr int kNoAnswer = -6528101;
constexpr int kReentry = -6527002;

const char kCancelText[] = "Cancel command failed to receive response packet within ? seconds.";

std::string Frame(const std::string& commandAndPayload) {
    return Hex("52 65 63 76 49 50 43") + Hex(commandAndPayload);
}

class RequestTest : public ProtocolTest {
protected:
    int Request(int timeoutSec) {
        return m_P.RequestCommand(kRequest, kAnswer, "Name", std::string(), true, timeoutSec);
    }

    /// A request that the peer has received and nobody has answered yet.
    std::future<int> WaitingRequest(int timeoutSec, int req = kRequest, int ans = kAnswer) {
        std::future<int> result = RequestAsync(req, ans, "Name", timeoutSec);
        EXPECT_EQ(8u, m_Peer.Receive(8).size());
        EXPECT_TRUE(IsWaitingFor(ans));
        return result;
    }

    /// Waits for a request that must end promptly; its result.
    static int Promptly(std::future<int>& result) {
        const Clock::time_point start = Clock::now();
        const int code = result.get();
        EXPECT_LT(Since(start), Stretched(milliseconds(4000)));
        return code;
    }

    void ExpectTimeOut(const std::string& name, int seconds) {
        ExpectError(kNoAnswer, name, std::to_string(seconds),
                    name + " command failed to receive response packet within " +
                        std::to_string(seconds) + " seconds.",
                    302);
    }
    void ExpectCancelled() { ExpectError(kNoAnswer, "Cancel", "?", kCancelText, 273); }

    /// The record that a success leaves: nothing but its line.
    void ExpectCleared(int line) {
        EXPECT_EQ(0, m_P.GetErrorCode());
        EXPECT_EQ(std::make_pair(std::string(), std::string()), m_P.ErrorArguments());
        EXPECT_EQ(line, m_P.ErrorLine());
    }
};

// ---- Answered ----

TEST_F(RequestTest, AnswerEndsTheWaitAndClearsTheRecord) {
    Connect();
    m_P.SetErrorAt(-6528004, "one", "two", "Elsewhere.cpp", 77);
    std::future<int> result = WaitingRequest(20);
    m_Peer.Send(Frame("11 41 42 43 44"));
    EXPECT_EQ(0, Promptly(result));
    EXPECT_EQ("ABCD", m_P.LastAnswer());
    EXPECT_EQ(0, m_P.m_nAnsCode);
    ExpectCleared(307);
    EXPECT_EQ(1, CountErrorLines());
}

TEST_F(RequestTest, IsLoggedWithAllItsArguments) {
    Connect();
    EXPECT_EQ(0, m_P.RequestCommand(0x1A, 0xFB, "GetThings", "abc", true, 0));
    EXPECT_EQ(0, m_P.RequestCommand(5, 6, "Other", "", false, 0));
    EXPECT_EQ(1,
              CountLines(kLogInfo,
                         WithPlace("==> RequestCommand Req:0x1A Ans:0xFB GetThings size:3 peek:1 "
                                   "timeout:0 pend:0")));
    EXPECT_EQ(1, CountLines(kLogInfo,
                            WithPlace("==> RequestCommand Req:0x05 Ans:0x06 Other size:0 peek:0 "
                                      "timeout:0 pend:0")));
}

TEST_F(RequestTest, AnswerCodeCountsWithItsLowEightBits) {
    Connect();
    std::future<int> result = RequestAsync(kRequest, 0x300 + kAnswer, "Name", 20);
    EXPECT_TRUE(IsWaitingFor(kAnswer));
    m_Peer.Send(Frame("11 41 42 43 44"));
    EXPECT_EQ(0, Promptly(result));
}

TEST_F(RequestTest, AnswerCodeZeroWaitsForNothing) {
    Connect();
    std::future<int> result = RequestAsync(kRequest, 0, "Name", 20);
    EXPECT_EQ(0, Promptly(result));
    EXPECT_EQ(Frame("10"), m_Peer.Receive(8));
}

TEST_F(RequestTest, WaitHoldsNoLock) {
    Connect();
    std::future<int> result = WaitingRequest(20);
    EXPECT_TRUE(WaitFor([&] { return TestProtocol::IsFree(m_P.m_SendMutex); }));
    EXPECT_TRUE(WaitFor([&] { return TestProtocol::IsFree(m_P.m_ConnMutex); }));
    EXPECT_EQ(8, m_P.AckCommand(0x41, "Ack", ""));
    EXPECT_EQ(Frame("41"), m_Peer.Receive(8));
    m_Peer.Send(Frame("11 41 42 43 44"));
    EXPECT_EQ(0, Promptly(result));
}

TEST_F(RequestTest, HundredRequestsInARowAreAnswered) {
    Connect();
    std::thread peer([this] {
        for (int n = 0; n < 100 && m_Peer.Receive(8) == Frame("10"); ++n)
            m_Peer.Send(Frame("11 41 42 43 44"));
    });
    for (int n = 0; n < 100; ++n)
        EXPECT_EQ(0, Request(20));
    peer.join();
}

// ---- Time-outs ----

TEST_F(RequestTest, TimeOutZeroSendsAndReturnsAtOnce) {
    Connect();
    m_P.SetErrorAt(-6528004, "one", "two", "Elsewhere.cpp", 77);
    EXPECT_EQ(0, Request(0));
    EXPECT_EQ(0, m_P.m_nAnsCode);
    ExpectCleared(298);
    EXPECT_EQ(Frame("10"), m_Peer.Receive(8));
    EXPECT_EQ(1, CountLines(kLogNotice,
                            "Name command will not wait for response due to timeout is set to 0 "
                            "second."));
}

TEST_F(RequestTest, LateAnswerToARequestThatDidNotWaitIsExceptional) {
    Connect();
    EXPECT_EQ(0, Request(0));
    m_Peer.Send(Frame("11") + Frame("26"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
    EXPECT_EQ(1, CountLines(kLogNotice, WithPlace("<== NetworkThread got exceptional event 0x11")));
    EXPECT_EQ("", m_P.LastAnswer());
}

TEST_F(RequestTest, LateAnswerWithAHandlerIsAnEvent) {
    Connect();
    EXPECT_EQ(0, m_P.RequestCommand(kRequest, kCountedEvent, "Name", "", true, 0));
    m_Peer.Send(Frame("25 01 41"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
    EXPECT_EQ(0, m_Log.Count(kLogInfo, "<== NetworkThread got response"));
}

TEST_F(RequestTest, SilentPeerIsATimeOutOfTheGivenSeconds) {
    Connect();
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(kNoAnswer, Request(1));
    EXPECT_GE(Since(start).count(), 990);
    EXPECT_EQ(0, m_P.m_nAnsCode);
    ExpectTimeOut("Name", 1);
    EXPECT_TRUE(m_P.IsConnected());
    EXPECT_EQ(0, m_Log.Count(kLogNotice, "Name command will not wait"));
}

TEST_F(RequestTest, TimeOutOfFiveSecondsTakesFiveSeconds) {
    Connect();
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(kNoAnswer, Request(5));
    EXPECT_GE(Since(start).count(), 4900);
    EXPECT_LT(Since(start), Stretched(milliseconds(9000)));
    ExpectTimeOut("Name", 5);
}

TEST_F(RequestTest, RequestAfterATimeOutIsAnswered) {
    Connect();
    EXPECT_EQ(kNoAnswer, Request(1));
    EXPECT_EQ(Frame("10"), m_Peer.Receive(8));
    std::future<int> result = WaitingRequest(20, kOtherRequest, kOtherAnswer);
    m_Peer.Send(Frame("21 31 32 33 34"));
    EXPECT_EQ(0, Promptly(result));
    EXPECT_EQ("1234", m_P.LastAnswer());
    ExpectCleared(307);
}

TEST_F(RequestTest, EventsAreReadWhileARequestWaits) {
    Connect();
    std::future<int> result = WaitingRequest(20);
    m_Peer.Send(Frame("25 01 41") + Frame("77") + Frame("21 31 32 33 34") + Frame("26"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 2; }));
    EXPECT_FALSE(IsReady(result));
    m_Peer.Send(Frame("11 41 42 43 44"));
    EXPECT_EQ(0, Promptly(result));
    EXPECT_EQ("ABCD", m_P.LastAnswer());
}

// ---- Message pumps ----

TEST_F(RequestTest, PumpIsChosenByTheCallerAndCalledWhilePending) {
    std::atomic<int> all{0};
    std::atomic<int> some{0};
    std::atomic<int> wrong{0};
    Interposed().pump = [&](bool isAll, int argument) {
        ++(isAll ? all : some);
        wrong += argument != 0 || !m_P.IsFuncPending();
    };
    Connect();
    all = 0;  // connecting pumps too
    some = 0;
    EXPECT_EQ(kNoAnswer, m_P.RequestCommand(kRequest, kAnswer, "Name", "", true, 1));
    EXPECT_LE(2, all);
    EXPECT_EQ(0, some);
    all = 0;
    EXPECT_EQ(kNoAnswer, m_P.RequestCommand(kRequest, kAnswer, "Name", "", false, 1));
    EXPECT_LE(2, some);
    EXPECT_EQ(0, all);
    EXPECT_EQ(0, wrong);
    EXPECT_FALSE(m_P.IsFuncPending());
}

TEST_F(RequestTest, WaitLooksAgainEvery30Milliseconds) {
    std::atomic<int> pumps{0};
    Interposed().pump = [&](bool, int) { ++pumps; };
    Connect();
    pumps = 0;
    EXPECT_EQ(kNoAnswer, Request(2));
    // 2 s in slices of 30 ms are 67; a busy machine makes fewer, nothing makes more.
    EXPECT_GE(70, pumps);
    EXPECT_LE(5, pumps);
}

TEST_F(RequestTest, RequestFromInsideThePumpIsRefusedAndNotSent) {
    std::atomic<int> inner{1};
    Connect();
    Interposed().pump = [&](bool, int) {
        if (inner == 1)
            inner = m_P.RequestCommand(kOtherRequest, kOtherAnswer, "Inner", "zz", true, 20);
    };
    std::future<int> result = RequestAsync(kRequest, kAnswer, "Name", 20);
    EXPECT_TRUE(WaitFor([&] { return inner != 1; }));
    EXPECT_EQ(kReentry, inner);
    ExpectError(kReentry, "ProtocolBase::RequestCommand", "",
                "Function reentry is not allowed: ProtocolBase::RequestCommand", 251);
    EXPECT_EQ(1, CountLines(kLogInfo,
                            WithPlace("==> RequestCommand Req:0x20 Ans:0x21 Inner size:2 peek:1 "
                                      "timeout:20 pend:1")));
    EXPECT_EQ(Frame("10"), m_Peer.Receive(8));
    EXPECT_EQ("", m_Peer.ReceiveAllWithin(milliseconds(100)));
    EXPECT_EQ(kAnswer, m_P.m_nAnsCode);
    m_Peer.Send(Frame("11 41 42 43 44"));
    EXPECT_EQ(0, Promptly(result));
}

TEST_F(RequestTest, AnotherThreadsPumpRefusesNobody) {
    Gate inside;
    Gate leave;
    Interposed().pump = [&](bool isAll, int) {
        if (isAll)
            return;
        inside.Open();
        leave.Wait();
    };
    Connect();
    std::thread other([this] { m_P.RequestCommand(kRequest, kAnswer, "Other", "", false, 1); });
    EXPECT_TRUE(inside.Wait());
    EXPECT_TRUE(m_P.IsFuncPending());
    EXPECT_EQ(0, m_P.RequestCommand(kOtherRequest, kOtherAnswer, "Own", "", true, 0));
    leave.Open();
    other.join();
}

TEST_F(RequestTest, PendingFlagRefusesARequestEvenWithTimeOutZero) {
    Connect();
    m_P.m_bFuncPending = true;
    EXPECT_EQ(kReentry, Request(0));
    m_P.m_bFuncPending = false;
    ExpectError(kReentry, "ProtocolBase::RequestCommand", "",
                "Function reentry is not allowed: ProtocolBase::RequestCommand", 251);
    EXPECT_EQ("", m_Peer.ReceiveAllWithin(milliseconds(50)));
    EXPECT_TRUE(TestProtocol::IsFree(m_P.m_SendMutex));
}

// ---- Cancelled by teardown ----

TEST_F(RequestTest, TeardownCancelsTheWait) {
    Connect();
    std::future<int> result = WaitingRequest(20);
    m_P.ProtocolBase::CloseConnect();
    EXPECT_EQ(kNoAnswer, Promptly(result));
    ExpectCancelled();
}

TEST_F(RequestTest, ClearedRunningFlagAloneCancelsTheWait) {
    Connect();
    std::future<int> result = WaitingRequest(20);
    m_P.m_bRunning = false;
    EXPECT_EQ(kNoAnswer, Promptly(result));
    ExpectCancelled();
}

TEST_F(RequestTest, TeardownKeepsAnErrorThatIsRecordedAlready) {
    Connect();
    std::future<int> result = WaitingRequest(20);
    m_P.SetErrorAt(-6528004, "", "", "Elsewhere.cpp", 77);
    m_P.ProtocolBase::CloseConnect();
    EXPECT_EQ(-6528004, Promptly(result));
    EXPECT_EQ(-6528004, m_P.GetErrorCode());
    EXPECT_EQ(77, m_P.ErrorLine());
    EXPECT_EQ(1, CountErrorLines());
}

TEST_F(RequestTest, PeerThatClosesEndsTheWaitWithItsOwnError) {
    Connect();
    std::future<int> result = WaitingRequest(20);
    m_Peer.Close();
    EXPECT_EQ(kPeerClosed, Promptly(result));
    ExpectError(kPeerClosed, "", "", "The connection has been gracefully closed.", 471);
}

TEST_F(RequestTest, PeerThatResetsEndsTheWaitWithTheSystemsError) {
    Connect();
    std::future<int> result = WaitingRequest(20);
    m_Peer.Reset();
    EXPECT_EQ(-104, Promptly(result));
    ExpectError(-104, "", "", "Connection reset by peer", 471);
}

TEST_F(RequestTest, AnswerWhoseReaderFailsIsNoAnswer) {
    m_P.onRead = [](std::string&) { return 0; };
    Connect();
    std::future<int> result = WaitingRequest(20, kRequest, kHookedAnswer);
    m_Peer.Send(Frame("31"));
    EXPECT_EQ(kPeerClosed, Promptly(result));
    EXPECT_EQ(498, m_P.ErrorLine());
}

TEST_F(RequestTest, AnswerThatBreaksOffIsNoAnswer) {
    Connect();
    std::future<int> result = WaitingRequest(20);
    m_Peer.Send(Frame("11 41 42"));
    m_Peer.Close();
    EXPECT_EQ(kPeerClosed, Promptly(result));
    ExpectError(kPeerClosed, "", "", "The connection has been gracefully closed.", 498);
}

TEST_F(RequestTest, PeerThatIsJudgedDeadCancelsTheWait) {
    // The dead peer is no error, so the request has to find the fallen flag by itself.
    std::atomic<bool> alive{true};
    m_P.onIsPeerAlive = [&] { return alive.load(); };
    Connect();
    std::future<int> result = WaitingRequest(20);
    alive = false;
    EXPECT_EQ(kNoAnswer, Promptly(result));
    ExpectCancelled();
}

// ---- Without a connection ----

TEST_F(RequestTest, NeverConnectedObjectFailsAfterTheSendBudget) {
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(kNoAnswer, Request(10));
    EXPECT_GE(Since(start).count(), 4900);
    EXPECT_LT(Since(start), Stretched(milliseconds(9000)));
    ExpectCancelled();
    EXPECT_EQ(0, m_P.m_nAnsCode);
}

TEST_F(RequestTest, ClosedConnectionFailsAfterTheSendBudgetWithTheRecordedError) {
    Connect();
    m_Peer.Close();
    EXPECT_TRUE(WaitFor([&] { return !m_P.IsConnected(); }));
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(kPeerClosed, Request(10));
    EXPECT_GE(Since(start).count(), 4900);
    EXPECT_LT(Since(start), Stretched(milliseconds(9000)));
    ExpectError(kPeerClosed, "", "", "The connection has been gracefully closed.", 471);
}

TEST_F(RequestTest, ConnectionClosedByItsOwnerFailsAfterTheSendBudgetAsCancelled) {
    Connect();
    m_P.ProtocolBase::CloseConnect();
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(kNoAnswer, Request(10));
    EXPECT_GE(Since(start).count(), 4900);
    ExpectCancelled();
    EXPECT_EQ("", m_Peer.Receive(1));
}

TEST_F(RequestTest, SendsOnAMissingConnectionReturnNothingSent) {
    std::future<int> bare =
        std::async(std::launch::async, [this] { return m_P.SendCommandData("a", 1, 0, false); });
    TestProtocol other;
    EXPECT_EQ(0, other.AckCommand(0x41, "Ack", ""));
    EXPECT_EQ(0, bare.get());
    EXPECT_EQ(0, other.GetErrorCode());
    EXPECT_EQ(0, m_P.GetErrorCode());
}

// ---- Nothing is left of a cancelled request ----

class CancelledRequestTest : public RequestTest {
protected:
    /// An answer that nobody asks for on the next connection must meet no waiting request.
    void ExpectUnaskedAnswerIsExceptional() {
        EXPECT_EQ(0, m_P.m_nAnsCode);
        Connect();
        m_Peer.Send(Frame("11 41 42 43 44") + Frame("26"));
        EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
        EXPECT_EQ(
            1, CountLines(kLogNotice, WithPlace("<== NetworkThread got exceptional event 0x11")));
        EXPECT_EQ(0, m_Log.Count(kLogInfo, "<== NetworkThread got response"));
        EXPECT_EQ("", m_P.LastAnswer());
    }
};

TEST_F(CancelledRequestTest, TeardownLeavesNoAnswerCodeForTheNextConnection) {
    Connect();
    std::future<int> result = WaitingRequest(20);
    m_P.ProtocolBase::CloseConnect();
    EXPECT_EQ(kNoAnswer, Promptly(result));
    ExpectUnaskedAnswerIsExceptional();
}

TEST_F(CancelledRequestTest, ClosingPeerLeavesNoAnswerCodeForTheNextConnection) {
    Connect();
    std::future<int> result = WaitingRequest(20);
    m_Peer.Close();
    EXPECT_EQ(kPeerClosed, Promptly(result));
    ExpectUnaskedAnswerIsExceptional();
}

TEST_F(CancelledRequestTest, RequestWithoutConnectionLeavesNoAnswerCode) {
    EXPECT_EQ(kNoAnswer, Request(1));
    ExpectUnaskedAnswerIsExceptional();
}

TEST_F(CancelledRequestTest, ReturnsOnlyWhenAReaderIsDoneWithItsResult) {
    Gate reading;
    Gate goOn;
    std::atomic<bool> readerDone{false};
    m_P.onRead = [&](std::string&) {
        reading.Open();
        goOn.Wait();
        readerDone = true;
        return 0;
    };
    Connect();
    std::future<int> result = WaitingRequest(20, kRequest, kHookedAnswer);
    std::future<bool> doneAtReturn = std::async(std::launch::async, [&] {
        result.wait();
        return readerDone.load();
    });
    std::thread closer;
    {
        GateOpener opener(goOn);
        m_Peer.Send(Frame("31"));
        EXPECT_TRUE(reading.Wait());
        closer = std::thread([this] { m_P.ProtocolBase::CloseConnect(); });
        EXPECT_TRUE(WaitFor([&] { return !m_P.m_bRunning; }));
        EXPECT_EQ("", m_Peer.ReceiveAllWithin(milliseconds(150)));
        EXPECT_FALSE(IsReady(result));
    }
    closer.join();
    EXPECT_TRUE(doneAtReturn.get());
    EXPECT_GT(0, result.get());
    EXPECT_EQ(0, m_P.m_nAnsCode);
}

TEST_F(CancelledRequestTest, TimedOutRequestReturnsOnlyWhenAReaderIsDoneWithItsResult) {
    Gate reading;
    Gate goOn;
    std::atomic<bool> readerDone{false};
    m_P.onRead = [&](std::string&) {
        reading.Open();
        goOn.Wait();
        readerDone = true;
        return 1;
    };
    Connect();
    std::future<int> result = WaitingRequest(1, kRequest, kHookedAnswer);
    std::future<bool> doneAtReturn = std::async(std::launch::async, [&] {
        result.wait();
        return readerDone.load();
    });
    {
        GateOpener opener(goOn);
        m_Peer.Send(Frame("31"));
        EXPECT_TRUE(reading.Wait());
        EXPECT_EQ(std::future_status::timeout, result.wait_for(milliseconds(1500)));
    }
    EXPECT_TRUE(doneAtReturn.get());
    // It was read in the end, so it is an answer.
    EXPECT_EQ(0, result.get());
}

// ---- One request, one connection ----

class ReplacedConnectionTest : public RequestTest {
protected:
    ReplacedConnectionTest() {
        m_P.onNetworkThread = [this] {
            if (!m_bEndsAtOnce) {
                m_P.ProtocolBase::NetworkThread();
                return;
            }
            while (m_P.m_bRunning)
                std::this_thread::sleep_for(milliseconds(1));
        };
    }

    /// A request waits on a connection that is then replaced in a moment: its network thread reads
    /// nothing and ends at once, so that the running flag falls and rises between two looks.
    std::future<int> ReplaceBehindARequest() {
        m_bEndsAtOnce = true;
        Connect();
        std::future<int> result = WaitingRequest(20);
        m_bEndsAtOnce = false;
        EXPECT_EQ(0, m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, true, 10));
        EXPECT_TRUE(m_Peer.Accept());
        return result;
    }

    std::atomic<bool> m_bEndsAtOnce{false};
};

TEST_F(ReplacedConnectionTest, WaitingRequestIsCancelledThoughTheNextConnectionRuns) {
    for (int round = 0; round < 10 && !HasFailure(); ++round) {
        std::future<int> result = ReplaceBehindARequest();
        EXPECT_EQ(kNoAnswer, Promptly(result));
        EXPECT_TRUE(m_P.IsConnected());
    }
}

TEST_F(ReplacedConnectionTest, AnswerOfTheNextConnectionIsNotTheWaitingRequests) {
    for (int round = 0; round < 10 && !HasFailure(); ++round) {
        std::future<int> result = ReplaceBehindARequest();
        m_Peer.Send(Frame("11 41 42 43 44") + Frame("26"));
        EXPECT_EQ(kNoAnswer, Promptly(result));
        EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
        m_P.TakeEvents();
    }
    EXPECT_EQ(0, m_Log.Count(kLogInfo, "<== NetworkThread got response"));
    EXPECT_EQ("", m_P.LastAnswer());
}

TEST_F(ReplacedConnectionTest, EndOfTheOldRequestLeavesARequestOnTheNewConnectionAlone) {
    for (int round = 0; round < 10 && !HasFailure(); ++round) {
        std::future<int> old = ReplaceBehindARequest();
        std::future<int> next = RequestAsync(kRequest, kAnswer, "Next", 20);
        EXPECT_EQ(Frame("10"), m_Peer.Receive(8));
        EXPECT_EQ(kNoAnswer, Promptly(old));
        EXPECT_EQ(kAnswer, m_P.m_nAnsCode);
        EXPECT_FALSE(IsReady(next));
        m_Peer.Send(Frame("11 41 42 43 44"));
        EXPECT_EQ(0, Promptly(next));
    }
}

TEST_F(ReplacedConnectionTest, ReopenedConnectionCancelsTheWaitingRequest) {
    Connect();
    std::future<int> result = WaitingRequest(20);
    EXPECT_EQ(0, m_P.ReConnect());
    EXPECT_TRUE(m_Peer.Accept());
    EXPECT_GT(0, Promptly(result));
    EXPECT_TRUE(m_P.IsConnected());
}

TEST_F(ReplacedConnectionTest, AnswerThatWasReadWinsOverATeardownThatFollows) {
    for (int round = 0; round < 20 && !HasFailure(); ++round) {
        std::atomic<bool> read{false};
        m_P.onRead = [&](std::string&) {
            read = true;
            return 1;
        };
        Connect();
        std::future<int> result = WaitingRequest(20, kRequest, kHookedAnswer);
        m_Peer.Send(Frame("31"));
        EXPECT_TRUE(WaitFor([&] { return read.load(); }));
        m_P.ProtocolBase::CloseConnect();
        EXPECT_EQ(0, Promptly(result));
    }
}

TEST_F(ReplacedConnectionTest, AnswerWhoseReaderEndsDuringATeardownWins) {
    Gate reading;
    Gate goOn;
    m_P.onRead = [&](std::string&) {
        reading.Open();
        goOn.Wait();
        return 1;
    };
    Connect();
    std::future<int> result = WaitingRequest(20, kRequest, kHookedAnswer);
    std::thread closer;
    {
        GateOpener opener(goOn);
        m_Peer.Send(Frame("31"));
        EXPECT_TRUE(reading.Wait());
        closer = std::thread([this] { m_P.ProtocolBase::CloseConnect(); });
        EXPECT_TRUE(WaitFor([&] { return !m_P.m_bRunning; }));
        EXPECT_FALSE(IsReady(result));
    }
    closer.join();
    EXPECT_EQ(0, Promptly(result));
}

// ---- Two requests at once ----

class TwoRequestsTest : public RequestTest {
protected:
    std::future<int> SecondRequest(int timeoutSec, int ans = kOtherAnswer) {
        std::future<int> result = RequestAsync(kOtherRequest, ans, "Second", timeoutSec);
        EXPECT_EQ(Frame("20"), m_Peer.Receive(8));
        EXPECT_TRUE(IsWaitingFor(ans));
        return result;
    }
};

TEST_F(TwoRequestsTest, SecondIsNotRefusedAndTakesTheFirstsPlace) {
    Connect();
    std::future<int> first = WaitingRequest(2);
    std::future<int> second = SecondRequest(20);
    m_Peer.Send(Frame("21 31 32 33 34"));
    EXPECT_EQ(0, Promptly(second));
    EXPECT_EQ("1234", m_P.LastAnswer());
    EXPECT_EQ(kNoAnswer, first.get());
}

TEST_F(TwoRequestsTest, FirstEndsWithItsOwnTimeOutThoughTheSecondIsAnswered) {
    Connect();
    const Clock::time_point start = Clock::now();
    std::future<int> first = WaitingRequest(2);
    std::future<int> second = SecondRequest(20);
    m_Peer.Send(Frame("21 31 32 33 34"));
    EXPECT_EQ(0, second.get());
    EXPECT_EQ(kNoAnswer, first.get());
    EXPECT_GE(Since(start).count(), 1990);
    ExpectTimeOut("Name", 2);
}

TEST_F(TwoRequestsTest, TimeOutOfTheFirstDoesNotEndTheSecondsWait) {
    Connect();
    std::future<int> first = WaitingRequest(1);
    std::future<int> second = SecondRequest(20);
    EXPECT_EQ(kNoAnswer, first.get());
    ExpectTimeOut("Name", 1);
    EXPECT_EQ(kOtherAnswer, m_P.m_nAnsCode);
    EXPECT_EQ(std::future_status::timeout, second.wait_for(milliseconds(200)));
    m_Peer.Send(Frame("21 31 32 33 34"));
    EXPECT_EQ(0, Promptly(second));
    EXPECT_EQ("1234", m_P.LastAnswer());
}

TEST_F(TwoRequestsTest, BothTimeOutOnTheirOwn) {
    Connect();
    const Clock::time_point start = Clock::now();
    std::future<int> first = WaitingRequest(1);
    std::future<int> second = SecondRequest(2);
    EXPECT_EQ(kNoAnswer, first.get());
    ExpectTimeOut("Name", 1);
    EXPECT_EQ(kNoAnswer, second.get());
    EXPECT_GE(Since(start).count(), 1990);
    ExpectTimeOut("Second", 2);
    EXPECT_EQ(0, m_P.m_nAnsCode);
}

TEST_F(TwoRequestsTest, AnswerToTheFirstIsExceptionalOnceTheSecondIsSent) {
    Connect();
    std::future<int> first = WaitingRequest(2);
    std::future<int> second = SecondRequest(20);
    m_Peer.Send(Frame("11") + Frame("21 31 32 33 34"));
    EXPECT_EQ(0, Promptly(second));
    EXPECT_EQ(1, CountLines(kLogNotice, WithPlace("<== NetworkThread got exceptional event 0x11")));
    EXPECT_EQ(kNoAnswer, first.get());
}

TEST_F(TwoRequestsTest, CodesThatCoincideShareOneAnswer) {
    Connect();
    std::future<int> first = WaitingRequest(20);
    std::future<int> second = SecondRequest(20, kAnswer);
    m_Peer.Send(Frame("11 41 42 43 44"));
    EXPECT_EQ(0, Promptly(first));
    EXPECT_EQ(0, Promptly(second));
}

TEST_F(TwoRequestsTest, SecondThatDoesNotWaitStillTakesTheFirstsPlace) {
    Connect();
    std::future<int> first = WaitingRequest(1);
    EXPECT_EQ(0, m_P.RequestCommand(kOtherRequest, kOtherAnswer, "Second", "", true, 0));
    EXPECT_EQ(kNoAnswer, first.get());
}

TEST_F(TwoRequestsTest, TeardownCancelsBoth) {
    Connect();
    std::future<int> first = WaitingRequest(20);
    std::future<int> second = SecondRequest(20);
    m_P.ProtocolBase::CloseConnect();
    EXPECT_EQ(kNoAnswer, Promptly(first));
    EXPECT_EQ(kNoAnswer, Promptly(second));
    EXPECT_EQ(0, m_P.m_nAnsCode);
}

// ---- Bounded wait ----

TEST(TimedWaitTest, EndsAtItsDeadlineWithoutASignal) {
    boost::condition_variable_any condition;
    boost::recursive_mutex mutex;
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(timed_wait(condition, mutex, 30));
    EXPECT_GE(Since(start).count(), 29);
    const Clock::time_point longer = Clock::now();
    EXPECT_FALSE(timed_wait(condition, mutex, 1100));  // carries into the seconds
    EXPECT_GE(Since(longer).count(), 1090);
}

TEST(TimedWaitTest, EndsAtASignal) {
    boost::condition_variable_any condition;
    boost::recursive_mutex mutex;
    std::atomic<bool> stop{false};
    std::thread signaller([&] {
        while (!stop) {
            condition.notify_all();
            std::this_thread::yield();
        }
    });
    EXPECT_TRUE(timed_wait(condition, mutex, 60000));
    stop = true;
    signaller.join();
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
}

}  // namespace
}  // namespace sr_test
