#include <set>

#include "tests/wire/ProtocolFixture.h"

namespace sr_test {
namespace {

using Notes = std::vector<std::string>;

std::string Frame(const std::string& commandAndPayload) {
    return Hex("52 65 63 76 49 50 43") + Hex(commandAndPayload);
}

class DispatcherTest : public ProtocolTest {
protected:
    /// What handlers and HandleRetVal have noted, without the notes of the network thread.
    Notes Handled() {
        Notes notes;
        for (const std::string& note : m_P.Notes()) {
            if (note.find("On ") == 0 || note.find("HandleRetVal") == 0)
                notes.push_back(note);
        }
        return notes;
    }
    void ExpectHandled(const Notes& notes) {
        WaitFor([&] { return Handled().size() >= notes.size(); });
        EXPECT_EQ(notes, Handled());
    }
};

TEST_F(DispatcherTest, LogsItsBeginAndItsEnd) {
    Connect(false);
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("DispatcherThread begin")));
    EXPECT_EQ(0, m_Log.Count(kLogDebug, "DispatcherThread end"));
    EndProtocol();
    EXPECT_EQ(1, m_Log.Count(kLogDebug, "DispatcherThread begin"));
    EXPECT_EQ(1, m_Log.Count(kLogDebug, "DispatcherThread end"));
}

TEST_F(DispatcherTest, EndNamesTheSocketThatIsHeldThen) {
    Connect(false);
    m_P.m_bRunning = false;  // ends the threads and leaves the socket
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("DispatcherThread end")));
}

TEST_F(DispatcherTest, EventsReachTheirOwnHandlersInOrderEachWithItsResult) {
    m_P.onEvent = [](unsigned char cmd, const char*) { return 100 + cmd; };
    Connect(false);
    m_Peer.Send(Frame("25 02 61 62") + Frame("24 00 01 02 03 04 05 06 07 08 09 0A FF") +
                Frame("26"));
    ExpectHandled({"On 25 6162", "HandleRetVal 25 137", "On 24 000102030405060708090AFF",
                   "HandleRetVal 24 136", "On 26 ", "HandleRetVal 26 138"});
}

TEST_F(DispatcherTest, EmptyPayloadIsAnEmptyZeroTerminatedText) {
    std::atomic<int> first{-1};
    m_P.onEvent = [&](unsigned char, const char* data) {
        first = data == nullptr ? -2 : *data;
        return 1;
    };
    Connect(false);
    m_Peer.Send(Frame("26"));
    ExpectHandled({"On 26 ", "HandleRetVal 26 1"});
    EXPECT_EQ(0, first);
}

TEST_F(DispatcherTest, EmptyPayloadAfterALongOneHasNothingOfIt) {
    Connect(false);
    m_Peer.Send(Frame("25 0A 61 61 61 61 61 61 61 61 61 61") + Frame("26"));
    ExpectHandled(
        {"On 25 61616161616161616161", "HandleRetVal 25 1", "On 26 ", "HandleRetVal 26 1"});
}

TEST_F(DispatcherTest, PayloadIsFollowedByAZeroByte) {
    std::atomic<int> behind{-1};
    m_P.onEvent = [&](unsigned char, const char* data) {
        behind = data[12];
        return 1;
    };
    Connect(false);
    m_Peer.Send(Frame("24 FF FF FF FF FF FF FF FF FF FF FF FF"));
    ExpectHandled({"On 24 FFFFFFFFFFFFFFFFFFFFFFFF", "HandleRetVal 24 1"});
    EXPECT_EQ(0, behind);
}

TEST_F(DispatcherTest, ThousandsOfEventsKeepTheirOrder) {
    Connect(false);
    std::string stream;
    Notes expected;
    for (unsigned n = 0; n < 3000; ++n) {
        const std::string number = Text("%04X", n);
        stream += Frame("25 02" + number);
        expected.push_back("On 25 " + number);
        expected.push_back("HandleRetVal 25 1");
    }
    m_Peer.Send(stream);
    EXPECT_TRUE(WaitFor([&] { return Handled().size() == expected.size(); }, milliseconds(40000)));
    EXPECT_TRUE(expected == Handled());
}

class HandlerResultTest : public DispatcherTest, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Results, HandlerResultTest, testing::Values(0, -1, -6528002, 7));

TEST_P(HandlerResultTest, IsOnlyPassedOn) {
    m_P.onEvent = [](unsigned char, const char*) { return GetParam(); };
    Connect(false);
    m_Peer.Send(Frame("26"));
    ExpectHandled({"On 26 ", Text("HandleRetVal 26 %d", GetParam())});
    m_Peer.Send(Frame("25 01 41"));
    ExpectHandled({"On 26 ", Text("HandleRetVal 26 %d", GetParam()), "On 25 41",
                   Text("HandleRetVal 25 %d", GetParam())});
    EXPECT_EQ(0, m_P.GetErrorCode());
    EXPECT_EQ(0, m_P.connectCloses);
    EXPECT_TRUE(m_P.IsConnected());
}

TEST_F(DispatcherTest, HandlersRunWithoutAnyLockOfTheProtocol) {
    std::atomic<int> free{-1};
    m_P.onEvent = [&](unsigned char, const char*) {
        // Idle polls of the other threads take none of these for longer than a moment.
        free = WaitFor([&] { return TestProtocol::IsFree(m_P.m_EventMutex); }) +
               2 * WaitFor([&] { return TestProtocol::IsFree(m_P.m_SendMutex); }) +
               4 * WaitFor([&] { return TestProtocol::IsFree(m_P.m_ConnMutex); }) +
               8 * WaitFor([&] { return TestProtocol::IsFree(m_P.m_RecvMutex); }) +
               16 * WaitFor([&] { return TestProtocol::IsFree(m_P.m_EventWaitMutex); });
        return 1;
    };
    Connect(false);
    m_Peer.Send(Frame("26"));
    ExpectHandled({"On 26 ", "HandleRetVal 26 1"});
    EXPECT_EQ(31, free);
}

TEST_F(DispatcherTest, HandlersRunOneAtATimeOnOneThreadOfTheirOwn) {
    std::mutex mutex;
    std::set<std::thread::id> handlers;
    std::set<std::thread::id> readers;
    std::atomic<int> running{0};
    std::atomic<int> overlaps{0};
    m_P.onEvent = [&](unsigned char, const char*) {
        overlaps += ++running != 1;
        {
            std::lock_guard<std::mutex> lock(mutex);
            handlers.insert(std::this_thread::get_id());
        }
        std::this_thread::yield();
        --running;
        return 1;
    };
    m_P.onRead = [&](std::string& payload) {
        std::lock_guard<std::mutex> lock(mutex);
        readers.insert(std::this_thread::get_id());
        return m_P.RecvUnknownData(payload);
    };
    Connect(false);
    for (int n = 0; n < 100; ++n)
        m_Peer.Send(Frame("30") + Frame("26"));
    EXPECT_TRUE(WaitFor([&] { return Handled().size() == 400; }));
    EXPECT_EQ(0, overlaps);
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(1u, handlers.size());
    ASSERT_EQ(1u, readers.size());
    EXPECT_NE(*readers.begin(), *handlers.begin());
    EXPECT_EQ(0u, handlers.count(std::this_thread::get_id()));
}

TEST_F(DispatcherTest, NetworkThreadKeepsReadingWhileAHandlerTakesItsTime) {
    Gate handling;
    Gate goOn;
    m_P.onEvent = [&](unsigned char, const char*) {
        handling.Open();
        goOn.Wait();
        return 1;
    };
    Connect(false);
    GateOpener opener(goOn);
    m_Peer.Send(Frame("26"));
    EXPECT_TRUE(handling.Wait());
    m_Peer.Send(Frame("25 01 41") + Frame("25 01 42") + Frame("25 01 43"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 3; }));
    EXPECT_EQ(Notes({"On 26 "}), Handled());
    goOn.Open();
    ExpectHandled({"On 26 ", "HandleRetVal 26 1", "On 25 41", "HandleRetVal 25 1", "On 25 42",
                   "HandleRetVal 25 1", "On 25 43", "HandleRetVal 25 1"});
}

TEST_F(DispatcherTest, TeardownDropsTheEventsThatAreStillQueued) {
    Gate handling;
    Gate goOn;
    m_P.onEvent = [&](unsigned char, const char*) {
        handling.Open();
        goOn.Wait();
        return 1;
    };
    Connect(false);
    {
        GateOpener opener(goOn);
        m_Peer.Send(Frame("26"));
        EXPECT_TRUE(handling.Wait());
        m_Peer.Send(Frame("25 01 41") + Frame("25 01 42"));
        EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 2; }));
        // Closing does not wait for the handler.
        m_P.ProtocolBase::CloseConnect();
        EXPECT_EQ(2u, m_P.QueuedEvents());
    }
    EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "DispatcherThread end"));
    EXPECT_EQ(0u, m_P.QueuedEvents());
    EXPECT_EQ(Notes({"On 26 ", "HandleRetVal 26 1"}), Handled());
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("DispatcherThread end", -1)));
    EXPECT_TRUE(TestProtocol::IsFree(m_P.m_EventMutex));
}

TEST_F(DispatcherTest, LostLinkDropsTheEventsThatAreStillQueued) {
    Gate handling;
    Gate goOn;
    m_P.onEvent = [&](unsigned char, const char*) {
        handling.Open();
        goOn.Wait();
        return 1;
    };
    Connect(false);
    {
        GateOpener opener(goOn);
        m_Peer.Send(Frame("26"));
        EXPECT_TRUE(handling.Wait());
        m_Peer.Send(Frame("25 01 41"));
        m_Peer.Close();
        EXPECT_TRUE(WaitFor([&] { return !m_P.IsConnected(); }));
    }
    EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "DispatcherThread end"));
    EXPECT_EQ(0u, m_P.QueuedEvents());
    EXPECT_EQ(Notes({"On 26 ", "HandleRetVal 26 1"}), Handled());
}

TEST_F(DispatcherTest, EndWhileItWaitsIsPrompt) {
    Connect(false);
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("DispatcherThread begin")));
    const Clock::time_point start = Clock::now();
    EndProtocol();
    EXPECT_LT(Since(start), Stretched(milliseconds(3000)));
}

// ---- What a handler may call ----

TEST_F(DispatcherTest, RequestFromAHandlerGetsItsAnswer) {
    std::atomic<int> result{-1};
    m_P.onEvent = [&](unsigned char, const char*) {
        return result = m_P.RequestCommand(kRequest, kAnswer, "Name", "", true, 20);
    };
    Connect(false);
    m_Peer.Send(Frame("26"));
    EXPECT_EQ(Frame("10"), m_Peer.Receive(8));
    m_Peer.Send(Frame("11 41 42 43 44"));
    ExpectHandled({"On 26 ", "HandleRetVal 26 0"});
    EXPECT_EQ(0, result);
    EXPECT_EQ("ABCD", m_P.LastAnswer());
}

TEST_F(DispatcherTest, EventThatComesWhileAHandlersRequestWaitsFollowsIt) {
    m_P.onEvent = [&](unsigned char cmd, const char*) {
        return cmd == kBareEvent ? m_P.RequestCommand(kRequest, kAnswer, "Name", "", true, 20) : 1;
    };
    Connect(false);
    m_Peer.Send(Frame("26"));
    EXPECT_EQ(Frame("10"), m_Peer.Receive(8));
    m_Peer.Send(Frame("25 01 41") + Frame("11 41 42 43 44"));
    ExpectHandled({"On 26 ", "HandleRetVal 26 0", "On 25 41", "HandleRetVal 25 1"});
}

TEST_F(DispatcherTest, HandlerAcknowledgesAndSends) {
    m_P.onEvent = [&](unsigned char, const char*) {
        return m_P.AckCommand(0x41, "Ack", "ok") + m_P.SendCommandData("!", 1, 0, true);
    };
    Connect(false);
    m_Peer.Send(Frame("26"));
    EXPECT_EQ(Frame("41 6F 6B") + Frame("21"), m_Peer.Receive(18));
    ExpectHandled({"On 26 ", "HandleRetVal 26 18"});
}

TEST_F(DispatcherTest, HandlerClosesItsOwnConnection) {
    std::atomic<int> result{1};
    m_P.onEvent = [&](unsigned char, const char*) { return result = m_P.CloseConnect(); };
    Connect(false);
    m_Peer.Send(Frame("26"));
    EXPECT_TRUE(m_Peer.ClientClosed());
    EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "DispatcherThread end"));
    EXPECT_EQ(0, result);
    EXPECT_FALSE(m_P.IsConnected());
}

TEST_F(DispatcherTest, HandlerCannotOpenAConnection) {
    std::atomic<int> result{1};
    m_P.onEvent = [&](unsigned char, const char*) {
        return result = m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, false, 10);
    };
    Connect(false);
    m_Peer.Send(Frame("26"));
    EXPECT_TRUE(WaitFor([&] { return result != 1; }));
    EXPECT_EQ(-6527002, result);
    ExpectError(-6527002, "ProtocolBase::OpenConnect", "",
                "Function reentry is not allowed: ProtocolBase::OpenConnect", 0);
    EXPECT_TRUE(m_P.IsConnected());
    EXPECT_EQ(m_nSock, m_P.GetSocket());
}

}  // namespace
}  // namespace sr_test
