#include "tests/faults/FaultFixture.h"

// Connections that end in the middle of an answer, at once, or are never read from.

namespace sr_test {
namespace {

struct Ending {
    CutEnd end;
    int code;
};

struct Place {
    int bytes;         // of the answer that come
    const char* site;  // where the end is found
};

std::vector<Place> PlacesIn(const Command& command) {
    std::vector<Place> places = {
        {0, "ProtocolBase.cpp:471"},           {3, "ProtocolBase.cpp:471"},
        {kPrefixSize, "ProtocolBase.cpp:492"}, {kPayloadAt, "ProtocolBase.cpp:498"},
        {12, "ProtocolBase.cpp:498"},          {39, "ProtocolBase.cpp:498"},
    };
    if (command.IsList()) {
        for (const int bytes :
             {kFrameSize, kFrameSize + 4, kFrameSize + kRecordSize, command.AnswerSize() - 1})
            places.push_back({bytes, "ProtocolBase.cpp:498"});
    }
    return places;
}

/// What a caller holds when so many bytes of his answer have come.
void ExpectCutAt(int bytes, const Command& command, const Data& data) {
    if (command.IsList() && bytes >= kFrameSize) {
        ASSERT_EQ(command.keys.size(), data.list.size()) << bytes;
        const auto whole = static_cast<size_t>((bytes - kFrameSize) / kRecordSize);
        ExpectRecords(command, data, whole);
        for (size_t i = whole; i < data.list.size(); ++i)
            EXPECT_EQ(kOldKey, data.list[i].GetPrimaryKey()) << bytes;
    } else {
        ExpectListUntouched(command, data);
    }
    if (command.code != kGetModeratorInfo || bytes < kPayloadAt)
        ExpectInfo(77, 77, data);
    else
        ExpectInfo(bytes >= 12 ? 256 : 0, bytes > 12 ? 5 : 0, data);
}

class CutTest : public CommandFaultFixture {
protected:
    void ExpectCut(const Ending& ending) {
        const Command& command = GetParam();
        for (const Place& place : PlacesIn(command)) {
            SCOPED_TRACE(place.bytes);
            FaultOn(Cut(command.code, place.bytes, ending.end));
            Data data;
            EXPECT_EQ(ending.code, command.call(m_Client.stub, data));
            EXPECT_EQ(ending.code, m_Client.stub.GetErrorCode());
            EXPECT_STREQ(place.site, m_Client.stub.GetErrFileLine());
            ExpectCutAt(place.bytes, command, data);
            ExpectInitHelps(command, m_Client);
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Commands, CutTest, testing::ValuesIn(AllCommands()), NameOf);

TEST_P(CutTest, CloseInsideAnAnswerIsAClosedConnection) {
    ExpectCut({CutEnd::Close, kPeerClosed});
}

TEST_P(CutTest, ResetInsideAnAnswerIsANetworkFailure) {
    ExpectCut({CutEnd::Reset, kReset});
}

TEST_P(CutTest, WaitingRequestEndsWhenTheReceiverDropsItsClients) {
    FaultOn(MakeFault(FaultKind::Silent, GetParam().code));
    std::thread dropper([this] {
        EXPECT_TRUE(WaitFor([this] {
            return m_pReceiver->FramesReceived(static_cast<uint8_t>(GetParam().code)) == 1;
        }));
        m_pReceiver->DropClients();
    });
    Data data;
    EXPECT_EQ(kPeerClosed, GetParam().call(m_Client.stub, data));
    dropper.join();
    EXPECT_EQ(kPeerClosed, m_Client.stub.GetErrorCode());
    ExpectUntouched(GetParam(), data);
    ExpectInitHelps(GetParam(), m_Client);
}

class ConnectionFaultTest : public FaultFixture {
protected:
    void ExpectClosed(Client& client) {
        EXPECT_TRUE(WaitFor([&] { return client.stub.GetErrorCode() == kPeerClosed; }));
        EXPECT_TRUE(WaitFor([&] { return !client.stub.IsConnected(); }));
    }
};

TEST_F(ConnectionFaultTest, EndOfALinkIsLoggedAndClosedByTheCloseThread) {
    FaultOn(Cut(kQuitConfCtrl, kPayloadAt, CutEnd::Close));
    EXPECT_EQ(kPeerClosed, m_Client.stub.QuitConfCtrl());
    ExpectClosed(m_Client);
    EXPECT_TRUE(m_Client.log.WaitForLines(kLogDebug, "NetworkThread end sock:"));
    EXPECT_TRUE(m_Client.log.WaitForLines(kLogDebug, "OnConnectClose sock:"));
    EXPECT_TRUE(m_Client.log.WaitForLines(kLogDebug, "DispatcherThread end sock:"));
    EXPECT_TRUE(m_Client.log.WaitForLines(
        kLogError, "ErrorCode=-6528002 -> The connection has been gracefully closed."));
}

TEST_F(ConnectionFaultTest, RequestsAfterTheEndFailWithItsReason) {
    FaultOnEach(AllCommands(), Cut(0, kPayloadAt, CutEnd::Close));
    AtOnce(AllCommands(), [this](const Command& command, Client& client) {
        Data lost;
        EXPECT_EQ(kPeerClosed, command.call(client.stub, lost)) << command;
        EXPECT_TRUE(WaitFor([&] { return !client.stub.IsConnected(); })) << command;
        Data data;
        const Stopwatch watch;
        EXPECT_EQ(kPeerClosed, command.call(client.stub, data)) << command;
        EXPECT_GE(watch.Elapsed() + kClockStep, seconds(5)) << command;
        EXPECT_EQ(kPeerClosed, client.stub.GetErrorCode()) << command;
        ExpectUntouched(command, data);
        ExpectInitHelps(command, client);
    });
}

TEST_F(ConnectionFaultTest, CloseOnAcceptShowsAfterInit) {
    FaultOn(MakeFault(FaultKind::CloseOnAccept, simulator::kEveryAnswer, 3));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, m_Client.stub.Init(Host(), false));
        ExpectClosed(m_Client);
        EXPECT_STREQ("ProtocolBase.cpp:471", m_Client.stub.GetErrFileLine());
    }
    EXPECT_EQ(0, m_Client.stub.Init(Host(), false));
    ExpectRight(CommandOf(kGetSenderList), m_Client.stub);
}

TEST_F(ConnectionFaultTest, RequestIntoAConnectionClosedOnAcceptFails) {
    FaultOn(MakeFault(FaultKind::CloseOnAccept, simulator::kEveryAnswer, 1));
    EXPECT_EQ(0, m_Client.stub.Init(Host(), false));
    Data data;
    // A request that comes before the close makes it a reset.
    const int result = m_Client.stub.GetSenderList(data.list);
    EXPECT_TRUE(result == kPeerClosed || result == kReset) << result;
    ExpectListUntouched(CommandOf(kGetSenderList), data);
    ExpectInitHelps(CommandOf(kGetSenderList), m_Client);
}

TEST_F(ConnectionFaultTest, RequestThatNobodyReadsTimesOutAndItsLateAnswerIsDropped) {
    FaultOn(MakeFault(FaultKind::NeverRead, simulator::kEveryAnswer, 0));
    AtOnce(AllCommands(), [](const Command& command, Client& client) {
        Data data;
        const Stopwatch watch;
        EXPECT_EQ(kNoAnswer, command.call(client.stub, data)) << command;
        EXPECT_GE(watch.Elapsed() + kClockStep, seconds(10)) << command;
        ExpectUntouched(command, data);
        EXPECT_TRUE(client.stub.IsConnected()) << command;
    });
    EXPECT_EQ(0u, m_pReceiver->GetStatistics().framesReceived);
    EXPECT_TRUE(m_pReceiver->FaultOff(FaultKind::NeverRead));
    AtOnce(AllCommands(), [](const Command& command, Client& client) {
        EXPECT_TRUE(client.WaitForExceptional(command.code + 1)) << command;
        ExpectRight(command, client.stub);
        EXPECT_EQ(command.PayloadSize(), client.Skipped()) << command;
    });
}

TEST_F(ConnectionFaultTest, NotificationsComeFromAReceiverThatNeverReads) {
    FaultOn(MakeFault(FaultKind::NeverRead, simulator::kEveryAnswer, 0));
    m_Client.stub.SetScrRcvNotifyCB(Events::Record);
    ASSERT_EQ(0, m_Client.stub.Init(Host(), false));
    EXPECT_TRUE(WaitFor([this] {
        m_pReceiver->Notify(1, -1, 256);
        return !Events::All().empty();
    }));
    EXPECT_EQ((Event{1, -1, 256}), Events::All().front());
}

TEST_F(ConnectionFaultTest, FrameThatIsNotSentWholeFailsAndTheNextOneWorks) {
    FaultOn(MakeFault(FaultKind::NeverRead, simulator::kEveryAnswer, 0));
    ASSERT_EQ(0, m_Client.stub.Init(Host(), false));
    const std::string large(size_t{32} * 1024 * 1024, '\0');
    const Stopwatch watch;
    EXPECT_EQ(kNoAnswer, m_Client.stub.RequestCommand(24, 25, "QuitConfCtrl", large, true, 1));
    EXPECT_GE(watch.Elapsed() + kClockStep, seconds(6));
    EXPECT_TRUE(m_Client.stub.IsConnected());
    EXPECT_TRUE(m_pReceiver->FaultOff(FaultKind::NeverRead));
    EXPECT_TRUE(m_Client.WaitForExceptional(25));
    ExpectRight(CommandOf(kGetSenderList), m_Client.stub);
    EXPECT_EQ(32, m_Client.Skipped());
}

}  // namespace
}  // namespace sr_test
