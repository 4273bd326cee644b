#include <atomic>
#include <memory>
#include <set>
#include <string>

#include "FaultFixture.h"

namespace {

using namespace sim_test;

class FaultStreamTest : public FaultFixture {
protected:
    FaultStreamTest() {
        m_Observer.client = [this](uint64_t, simulator::ClientChange change, const std::string&) {
            m_LastChange = change;
        };
    }

    std::atomic<simulator::ClientChange> m_LastChange{simulator::ClientChange::Connected};
};

// --- Cut ---

TEST_F(FaultStreamTest, CutAfterAnyByteSendsThatMany) {
    Start();
    const std::string answer = Frame32("21");
    for (int64_t bytes = 0; bytes <= 41; ++bytes) {
        On(CutFault(32, bytes, CutEnd::Close));
        RawClient client(m_Options.address, m_pSim->Port());
        ASSERT_TRUE(client.Send(Frame32("20", "01")));
        std::string received;
        ASSERT_EQ(Ending::Closed, client.ReceiveToEnd(received)) << bytes;
        ASSERT_EQ(answer.substr(0, static_cast<size_t>(bytes)), received);
    }
}

TEST_F(FaultStreamTest, CutInTheMiddleByDefault) {
    StartAndConnect();
    On(MakeFault(FaultKind::Cut, 32));
    ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
    std::string received;
    EXPECT_EQ(Ending::Closed, m_pClient->ReceiveToEnd(received));
    EXPECT_EQ(Frame32("21").substr(0, 20), received);
}

TEST_F(FaultStreamTest, ClosingCutIsReportedAndCountsNoLonger) {
    StartAndConnect();
    On(CutFault(32, 3, CutEnd::Close));
    ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
    EXPECT_TRUE(m_pClient->IsClosedByPeer());
    EXPECT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 0; }));
    EXPECT_TRUE(WaitFor([this] { return m_LastChange == simulator::ClientChange::Faulted; }));
    EXPECT_EQ("cut", FaultsOf(0x21));
    EXPECT_EQ(1u, m_pSim->GetStatistics().faultsDone);
    EXPECT_EQ(0u, m_pSim->GetStatistics().clientsDropped);
    m_pClient = Connect();
    ExpectServed();
}

TEST_F(FaultStreamTest, ClosingCutIsNoResetWhateverTheClientHasSent) {
    StartAndConnect();
    On(CutFault(32, 30, CutEnd::Close));
    for (int i = 0; i < 20; ++i) {
        RawClient client(m_Options.address, m_pSim->Port());
        std::string requests = Frame32("20", "01");
        for (int more = 0; more < 2000; ++more)
            requests += Frame32("22");
        client.SendNow(requests);
        std::string received;
        ASSERT_EQ(Ending::Closed, client.ReceiveToEnd(received));
        ASSERT_EQ(Frame32("21").substr(0, 30), received);
    }
    ExpectServed();
}

TEST_F(FaultStreamTest, ClosingCutStillDeliversWhatWasBeforeIt) {
    m_Options.records = RecordSize::Long;
    Start();
    for (int32_t key = 1; key <= 65535; ++key)
        m_pSim->AddSender(MakeSender(key));
    m_pClient = Connect();
    On(CutFault(32, 5, CutEnd::Close));
    ASSERT_TRUE(m_pClient->Send(Frame32("10", "01") + Frame32("20", "01") + Frame32("22")));
    ASSERT_TRUE(WaitForFaults(1));
    std::string received;
    EXPECT_EQ(Ending::Closed, m_pClient->ReceiveToEnd(received));
    const size_t listSize = kListHeadSize + 65535u * 128u;
    ASSERT_EQ(listSize + 5, received.size());
    EXPECT_EQ("RecvI", received.substr(listSize));
}

TEST_F(FaultStreamTest, ResettingCutResets) {
    StartAndConnect();
    const auto other = Connect();
    On(CutFault(32, 10, CutEnd::Reset));
    ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
    std::string received;
    EXPECT_EQ(Ending::Reset, m_pClient->ReceiveToEnd(received));
    EXPECT_EQ(Frame32("21").substr(0, received.size()), received);
    EXPECT_LE(received.size(), 10u);
    EXPECT_TRUE(WaitFor([this] { return m_LastChange == simulator::ClientChange::Faulted; }));
    EXPECT_EQ(1u, m_pSim->ClientCount());
    ExpectServed(*other);
}

TEST_F(FaultStreamTest, CutNotificationEndsTheConnectionsOfAll) {
    StartAndConnect();
    const auto other = Connect();
    On(CutFault(kNotifications, -1, CutEnd::Close));
    ExpectServed();
    Notify();
    for (RawClient* client : {m_pClient.get(), other.get()}) {
        std::string received;
        EXPECT_EQ(Ending::Closed, client->ReceiveToEnd(received));
        EXPECT_EQ(m_strNotify.substr(0, 10), received);
    }
    EXPECT_EQ(2u, m_pSim->GetStatistics().faultsDone);
}

TEST_F(FaultStreamTest, CutNotificationGoesOnLater) {
    StartAndConnect();
    On(CutFault(kNotifications, 15, CutEnd::Later, milliseconds(150)));
    const Stopwatch watch;
    Notify();
    EXPECT_EQ(m_strNotify.substr(0, 15), m_pClient->Receive(15));
    EXPECT_EQ(m_strNotify.substr(15) + Frame32("21"), Ask(Frame32("20", "01"), 5 + kFrameSize));
    EXPECT_GE(watch.Elapsed(), milliseconds(150));
}

TEST_F(FaultStreamTest, UnfinishedFrameHoldsBackItsClientOnly) {
    StartAndConnect();
    const auto other = Connect();
    Fault fault = CutFault(32, 30, CutEnd::Later, kHour);
    fault.count = 1;
    On(fault);
    EXPECT_EQ(Frame32("21").substr(0, 30), Ask(Frame32("20", "01"), 30));
    ASSERT_TRUE(m_pClient->Send(Frame32("22")));
    Notify();
    EXPECT_EQ(m_strNotify, other->Receive(kNotifySize));
    ExpectServed(*other);
    ASSERT_TRUE(WaitFor([this] { return m_pSim->FramesReceived(0x22) == 2; }));
    EXPECT_FALSE(m_pClient->IsAnythingComing(kWhile));
}

TEST_F(FaultStreamTest, CutAfterTheWholeFrameLaterSendsAll) {
    StartAndConnect();
    On(CutFault(32, 40, CutEnd::Later, milliseconds(1)));
    EXPECT_EQ(Frame32("21") + Frame32("23"),
              Ask(Frame32("20", "01") + Frame32("22"), 2 * kFrameSize));
    On(CutFault(32, 1000000, CutEnd::Later, milliseconds(1)));
    EXPECT_EQ(Frame32("21") + Frame32("23"),
              Ask(Frame32("20", "01") + Frame32("22"), 2 * kFrameSize));
}

TEST_F(FaultStreamTest, ClientMayLeaveDuringAPause) {
    StartAndConnect();
    const auto other = Connect();
    On(CutFault(32, 30, CutEnd::Later, milliseconds(50)));
    On(TrickleFault(34, 1, milliseconds(10)));
    for (int i = 0; i < 3; ++i) {
        RawClient client(m_Options.address, m_pSim->Port());
        Ask(client, Frame32("20", "01"), 30);
        RawClient second(m_Options.address, m_pSim->Port());
        Ask(second, Frame32("22"), 1);
        second.Reset();
    }
    EXPECT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 2; }));
    m_pSim->FaultsOff();
    ExpectServed(*other);
    ExpectServed();
}

TEST_F(FaultStreamTest, ListMayBeCutInARecord) {
    Start();
    m_pSim->AddSender(MakeSender(0x01020304));
    m_pSim->AddSender(MakeSender(0x05060708));
    m_pClient = Connect();
    On(CutFault(16, 106, CutEnd::Close));
    ASSERT_TRUE(m_pClient->Send(Frame32("10", "01")));
    std::string received;
    EXPECT_EQ(Ending::Closed, m_pClient->ReceiveToEnd(received));
    EXPECT_EQ(106u, received.size());
    EXPECT_EQ(Hex("05 06"), received.substr(104));
}

// --- Trickle ---

TEST_F(FaultStreamTest, FirstPieceComesAtOnceAndTheNextInItsTime) {
    StartAndConnect();
    On(TrickleFault(32, 5, kHour));
    EXPECT_EQ("RecvI", Ask(Frame32("20", "01"), 5));
    EXPECT_FALSE(m_pClient->IsAnythingComing(kWhile));
    EXPECT_EQ("trickle", FaultsOf(0x21));
}

TEST_F(FaultStreamTest, TrickleIsOneByteByDefault) {
    StartAndConnect();
    Fault fault = MakeFault(FaultKind::Trickle, 32);
    fault.time = kHour;
    On(fault);
    EXPECT_EQ("R", Ask(Frame32("20", "01"), 1));
    EXPECT_FALSE(m_pClient->IsAnythingComing(kWhile));
}

TEST_F(FaultStreamTest, TricklingTakesItsTime) {
    StartAndConnect();
    On(TrickleFault(32, 1, milliseconds(10)));
    const Stopwatch watch;
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
    EXPECT_GE(watch.Elapsed(), milliseconds(39 * 10));
}

TEST_F(FaultStreamTest, TrickledFramesDoNotMix) {
    StartAndConnect();
    On(TrickleFault(kEveryFrame, 3, milliseconds(1)));
    ASSERT_TRUE(m_pClient->Send(Frame32("20", "01") + Frame32("10", "01")));
    ASSERT_TRUE(WaitFor([this] { return m_pSim->FramesReceived(0x10) == 1; }));
    Notify();
    EXPECT_EQ(Frame32("21") + Frame32("11") + m_strNotify,
              m_pClient->Receive(2 * kFrameSize + kNotifySize));
}

TEST_F(FaultStreamTest, TrickleHoldsBackWhatIsNotTrickled) {
    StartAndConnect();
    On(TrickleFault(kNotifications, 2, milliseconds(10)));
    Notify();
    EXPECT_EQ("Re", m_pClient->Receive(2));
    EXPECT_EQ(m_strNotify.substr(2) + Frame32("21"),
              Ask(Frame32("20", "01"), kNotifySize - 2 + kFrameSize));
}

TEST_F(FaultStreamTest, TrickleOfMoreThanTheFrameIsOnePiece) {
    StartAndConnect();
    On(TrickleFault(32, 100000, kHour));
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
}

TEST_F(FaultStreamTest, TrickleWithoutTimeIsWhole) {
    m_Options.records = RecordSize::Long;
    Start();
    for (int32_t key = 1; key <= 100; ++key)
        m_pSim->AddSender(MakeSender(key));
    m_pClient = Connect();
    const size_t size = kListHeadSize + 100 * 128;
    const std::string list = Ask(Frame32("10", "01"), size);
    On(TrickleFault(16, 1, milliseconds(0)));
    EXPECT_EQ(list, Ask(Frame32("10", "01"), size));
    ExpectServed();
}

// --- Garbage ---

const char* const kPrefix = "RecvIPC";

TEST_F(FaultStreamTest, GarbageHas16BytesByDefaultAndStandsBeforeTheFrame) {
    StartAndConnect();
    On(MakeFault(FaultKind::Garbage, 32));
    const std::string bytes = Ask(Frame32("20", "01"), 16 + kFrameSize);
    ASSERT_EQ(16 + kFrameSize, bytes.size());
    EXPECT_EQ(Frame32("21"), bytes.substr(16));
    EXPECT_EQ(16u, bytes.find(kPrefix));
    EXPECT_EQ("garbage", FaultsOf(0x21));
    ExpectServed();
}

TEST_F(FaultStreamTest, GarbageIsRandom) {
    StartAndConnect();
    On(GarbageFault(32, GarbagePlace::Before, 4096));
    const std::string first = Ask(Frame32("20", "01"), 4096 + kFrameSize).substr(0, 4096);
    const std::string second = Ask(Frame32("20", "01"), 4096 + kFrameSize).substr(0, 4096);
    EXPECT_NE(first, second);
    EXPECT_GT(std::set<char>(first.begin(), first.end()).size(), 200u);
}

TEST_F(FaultStreamTest, GarbageMayHaveAMebibyte) {
    StartAndConnect();
    const size_t size = 1 << 20;
    On(GarbageFault(32, GarbagePlace::Before, 1 << 20));
    const std::string bytes = Ask(Frame32("20", "01"), size + kFrameSize);
    ASSERT_EQ(size + kFrameSize, bytes.size());
    EXPECT_EQ(size, bytes.find(kPrefix));
    EXPECT_EQ(Frame32("21"), bytes.substr(size));
    ExpectServed();
}

TEST_F(FaultStreamTest, GarbageInsideAndAfterANotification) {
    StartAndConnect();
    On(GarbageFault(kNotifications, GarbagePlace::Inside, 7));
    Notify();
    const std::string inside = m_pClient->Receive(kNotifySize + 7);
    EXPECT_EQ(m_strNotify, std::string(inside).erase(10, 7));
    Off(FaultKind::Garbage);
    On(GarbageFault(kNotifications, GarbagePlace::After, 7));
    Notify();
    const std::string after = m_pClient->Receive(kNotifySize + 7);
    EXPECT_EQ(m_strNotify, after.substr(0, kNotifySize));
    EXPECT_EQ(27u, after.size());
    ExpectServed();
}

class PrefixPartsTest : public FaultFixture, public ::testing::WithParamInterface<GarbagePlace> {};

INSTANTIATE_TEST_SUITE_P(Places,
                         PrefixPartsTest,
                         ::testing::Values(GarbagePlace::Before,
                                           GarbagePlace::Inside,
                                           GarbagePlace::After),
                         [](const ::testing::TestParamInfo<GarbagePlace>& test) {
                             return test.param == GarbagePlace::Before   ? "Before"
                                    : test.param == GarbagePlace::Inside ? "Inside"
                                                                         : "After";
                         });

// Each byte is one of "RecvIP" and stands behind the one that it follows there.
bool IsMadeOfPrefixParts(const std::string& bytes) {
    const std::string parts = "RecvIP";
    for (size_t at = 0; at < bytes.size(); ++at) {
        const size_t place = parts.find(bytes[at]);
        if (place == std::string::npos)
            return false;
        if (place > 0 && (at == 0 || bytes[at - 1] != parts[place - 1]))
            return false;
    }
    return true;
}

TEST_P(PrefixPartsTest, AreProperBeginningsAndHideNoFrame) {
    StartAndConnect();
    const size_t at = GetParam() == GarbagePlace::Before   ? 0
                      : GetParam() == GarbagePlace::Inside ? 20
                                                           : kFrameSize;
    std::string all;
    for (int64_t size = 1; size <= 64; ++size) {
        Fault fault = GarbageFault(32, GetParam(), size);
        fault.prefixParts = true;
        On(fault);
        std::string bytes =
            Ask(Frame32("20", "01") + Frame32("22"), 2 * kFrameSize + static_cast<size_t>(size));
        const std::string garbage = bytes.substr(at, static_cast<size_t>(size));
        ASSERT_TRUE(IsMadeOfPrefixParts(garbage)) << garbage;
        const size_t frameAt = GetParam() == GarbagePlace::Before ? garbage.size() : 0;
        ASSERT_EQ(frameAt, bytes.find(kPrefix));
        ASSERT_EQ(kFrameSize + garbage.size(), bytes.find(kPrefix, frameAt + 1));
        bytes.erase(at, garbage.size());
        ASSERT_EQ(Frame32("21") + Frame32("23"), bytes);
        all += garbage;
    }
    for (const char* part : {"RR", "ReR", "RecR", "RecvR", "RecvIR", "RecvIPR"})
        EXPECT_NE(std::string::npos, all.find(part)) << part;
}

TEST_F(FaultStreamTest, GarbageIsOneThatItsNeighboursDoNotCompleteToAPrefix) {
    Start();
    // Half of this list of 232 bytes are in front of a name that begins with the prefix's end.
    m_pSim->AddSender(MakeSender(1));
    m_pSim->AddSender(MakeSender(2, "abcdCC"));
    m_pSim->AddSender(MakeSender(3));
    m_pClient = Connect();
    for (int i = 0; i < 300; ++i) {
        Fault fault = GarbageFault(16, GarbagePlace::Inside, 6);
        fault.prefixParts = true;
        On(fault);
        const std::string list = Ask(Frame32("10", "01"), kListHeadSize + 3 * 64 + 6);
        ASSERT_EQ(kListHeadSize + 3 * 64 + 6, list.size());
        ASSERT_EQ('C', list[116 + 6]);
        ASSERT_EQ(std::string::npos, list.find(kPrefix, 1));
    }
}

// --- All together ---

TEST_F(FaultStreamTest, GarbageTricklesAndTheFrameComesTwice) {
    StartAndConnect();
    On(TrickleFault(32, 10, milliseconds(10)));
    On(GarbageFault(32, GarbagePlace::Before, 5));
    On(MakeFault(FaultKind::Twice, 32));
    const Stopwatch watch;
    const std::string bytes = Ask(Frame32("20", "01"), 5 + 2 * kFrameSize);
    EXPECT_GE(watch.Elapsed(), milliseconds(8 * 10));
    EXPECT_EQ(Frame32("21") + Frame32("21"), bytes.substr(5));
    EXPECT_EQ("twice, garbage, trickle", FaultsOf(0x21));
    EXPECT_EQ(3u, m_pSim->GetStatistics().faultsDone);
    ExpectServed();
}

TEST_F(FaultStreamTest, GarbageStandsBeforeInsideOrAfterBothCopies) {
    StartAndConnect();
    On(MakeFault(FaultKind::Twice, 32));
    const std::string two = Frame32("21") + Frame32("21");
    On(GarbageFault(32, GarbagePlace::Inside, 4));
    EXPECT_EQ(two, Ask(Frame32("20", "01"), two.size() + 4).erase(20, 4));
    Off(FaultKind::Garbage);
    On(GarbageFault(32, GarbagePlace::After, 4));
    EXPECT_EQ(two, Ask(Frame32("20", "01"), two.size() + 4).substr(0, two.size()));
}

TEST_F(FaultStreamTest, CutCountsTheGarbageToo) {
    StartAndConnect();
    On(GarbageFault(32, GarbagePlace::Before, 8));
    On(CutFault(32, 12, CutEnd::Close));
    ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
    std::string received;
    EXPECT_EQ(Ending::Closed, m_pClient->ReceiveToEnd(received));
    EXPECT_EQ(12u, received.size());
    EXPECT_EQ("Recv", received.substr(8));
}

TEST_F(FaultStreamTest, CutByDefaultIsHalfOfOneFrameWhateverElseIsSent) {
    Start();
    std::string received;
    On(CutFault(32, -1, CutEnd::Close));
    On(MakeFault(FaultKind::Twice, 32));
    m_pClient = Connect();
    ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
    EXPECT_EQ(Ending::Closed, m_pClient->ReceiveToEnd(received));
    EXPECT_EQ(Frame32("21").substr(0, 20), received);
    Off(FaultKind::Twice);
    On(GarbageFault(32, GarbagePlace::Before, 100));
    RawClient client(m_Options.address, m_pSim->Port());
    ASSERT_TRUE(client.Send(Frame32("20", "01")));
    received.clear();
    EXPECT_EQ(Ending::Closed, client.ReceiveToEnd(received));
    EXPECT_EQ(20u, received.size());
}

TEST_F(FaultStreamTest, CutFrameTricklesUpToItsEnd) {
    StartAndConnect();
    On(TrickleFault(32, 2, milliseconds(20)));
    On(CutFault(32, 9, CutEnd::Close));
    const Stopwatch watch;
    ASSERT_TRUE(m_pClient->Send(Frame32("20", "01") + Frame32("22")));
    std::string received;
    EXPECT_EQ(Ending::Closed, m_pClient->ReceiveToEnd(received));
    EXPECT_EQ(Frame32("21").substr(0, 9), received);
    EXPECT_GE(watch.Elapsed(), milliseconds(4 * 20));
}

TEST_F(FaultStreamTest, CutAndTrickledFrameIsWholeAfterThePause) {
    StartAndConnect();
    On(TrickleFault(32, 10, milliseconds(10)));
    On(CutFault(32, 20, CutEnd::Later, milliseconds(100)));
    const Stopwatch watch;
    EXPECT_EQ(Frame32("21") + Frame32("23"),
              Ask(Frame32("20", "01") + Frame32("22"), 2 * kFrameSize));
    EXPECT_GE(watch.Elapsed(), milliseconds(100 + 2 * 10));
}

TEST_F(FaultStreamTest, DelayedCutIsOvertakenAndThenCut) {
    StartAndConnect();
    On(DelayFault(32, milliseconds(150)));
    On(CutFault(32, 9, CutEnd::Close));
    const Stopwatch watch;
    EXPECT_EQ(Frame32("23"), Ask(Frame32("20", "01") + Frame32("22")));
    std::string received;
    EXPECT_EQ(Ending::Closed, m_pClient->ReceiveToEnd(received));
    EXPECT_EQ(Frame32("21").substr(0, 9), received);
    EXPECT_GE(watch.Elapsed(), milliseconds(150));
}

TEST_F(FaultStreamTest, DelayedFrameWaitsForATrickleToEnd) {
    StartAndConnect();
    On(DelayFault(32, milliseconds(20)));
    On(TrickleFault(34, 4, milliseconds(20)));
    EXPECT_EQ(Frame32("23") + Frame32("21"),
              Ask(Frame32("20", "01") + Frame32("22"), 2 * kFrameSize));
}

TEST_F(FaultStreamTest, SilentLeavesTheOtherFaultsUnused) {
    StartAndConnect();
    On(MakeFault(FaultKind::Twice, 32, 1));
    On(MakeFault(FaultKind::Silent, 32, 1));
    EXPECT_EQ(Frame32("21") + Frame32("21"),
              Ask(Frame32("20", "01") + Frame32("20", "01"), 2 * kFrameSize));
    EXPECT_TRUE(m_pSim->Faults().empty());
}

TEST_F(FaultStreamTest, DelayedNotificationIsOvertakenByALaterOne) {
    StartAndConnect();
    Fault fault = DelayFault(kNotifications, milliseconds(100));
    fault.count = 1;
    On(fault);
    Notify();
    m_pSim->Notify(4, 5, 6);
    EXPECT_EQ(NotifyFrame("00 00 00 04 00 00 00 05 00 00 00 06") + m_strNotify,
              m_pClient->Receive(2 * kNotifySize));
}

}  // namespace
