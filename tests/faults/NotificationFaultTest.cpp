#include <algorithm>

#include "tests/faults/FaultFixture.h"

// Notifications that are cut, changed, doubled, or come as a flood.

namespace sr_test {
namespace {

constexpr int kSkippedBody = 12;
const Event kFirst = {1, -1, 256};
const Event kSecond = {2, 0x01020304, -2147483647};

class NotificationFaultTest : public FaultFixture {
protected:
    void SetUp() override {
        FaultFixture::SetUp();
        m_Client.stub.SetScrRcvNotifyCB(Events::Record);
    }

    void Notify(const Event& event) { m_pReceiver->Notify(event[0], event[1], event[2]); }

    /// Returns once both have come, so that the next fault is not for them.
    void NotifyBoth(std::vector<Event>& events) {
        Notify(kFirst);
        Notify(kSecond);
        events.insert(events.end(), {kFirst, kSecond});
        EXPECT_TRUE(Events::WaitForCount(events.size()));
    }

    /// All that was called so far and one notification more, which comes as it should.
    void ExpectEvents(std::vector<Event> events) {
        const Event last = {99, 98, 97};
        Notify(last);
        events.push_back(last);
        EXPECT_TRUE(Events::WaitForCount(events.size()));
        EXPECT_EQ(events, Events::All());
    }

    void ExpectConnectionLost(int code, const char* site) {
        EXPECT_TRUE(WaitFor([this] { return !m_Client.stub.IsConnected(); }));
        EXPECT_EQ(code, m_Client.stub.GetErrorCode());
        EXPECT_STREQ(site, m_Client.stub.GetErrFileLine());
        Connect(m_Client);
    }

    /// A notification of which so many bytes come never reaches the callback.
    void ExpectCut(CutEnd end, int code) {
        const std::vector<std::pair<int, const char*>> places = {
            {3, "ProtocolBase.cpp:471"},
            {kPrefixSize, "ProtocolBase.cpp:492"},
            {kPayloadAt, "ProtocolBase.cpp:505"},
            {14, "ProtocolBase.cpp:505"},
            {19, "ProtocolBase.cpp:505"}};
        for (const auto& [bytes, site] : places) {
            SCOPED_TRACE(bytes);
            FaultOn(Cut(kNotifications, bytes, end));
            Notify(kFirst);
            ExpectConnectionLost(code, site);
            ExpectEvents({});
            Events::Clear();
        }
        ExpectRight(CommandOf(kGetSenderList), m_Client.stub);
    }
};

TEST_F(NotificationFaultTest, WithoutFaultComesAsItIs) {
    Notify(kFirst);
    Notify(kSecond);
    ExpectEvents({kFirst, kSecond});
    EXPECT_EQ(0, m_Client.Skipped());
}

TEST_F(NotificationFaultTest, CutByACloseIsNotCalled) {
    ExpectCut(CutEnd::Close, kPeerClosed);
}

TEST_F(NotificationFaultTest, CutByAResetIsNotCalled) {
    ExpectCut(CutEnd::Reset, kReset);
}

TEST_F(NotificationFaultTest, StallOfAMomentAnywhereOnlyTakesTime) {
    std::vector<Event> events;
    for (const int bytes : {0, 3, kPrefixSize, kPayloadAt, 14, 19}) {
        FaultOn(Stall(kNotifications, bytes, milliseconds(100)));
        NotifyBoth(events);
    }
    ExpectEvents(events);
    EXPECT_EQ(0, m_Client.Skipped());
}

TEST_F(NotificationFaultTest, StallInsideThePrefixOnlyTakesTime) {
    FaultOn(Stall(kNotifications, 3, seconds(6)));
    Notify(kFirst);
    EXPECT_TRUE(m_Client.log.WaitForLines(kLogDebug,
                                          "NetworkThread no enough data to match prefix 3 sock:"));
    ExpectEvents({kFirst});
    EXPECT_EQ(0, m_Client.Skipped());
}

TEST_F(NotificationFaultTest, StallBehindTheCommandByteEndsTheConnection) {
    FaultOn(Stall(kNotifications, kPayloadAt, seconds(9)));
    Notify(kFirst);
    ExpectConnectionLost(kStalled, "ProtocolBase.cpp:505");
    ExpectEvents({});
}

TEST_F(NotificationFaultTest, ThatStallsInsideItsBodyCountsAsFarAsItCame) {
    FaultOn(Stall(kNotifications, kPayloadAt + 4, seconds(7)));
    Notify(kFirst);
    EXPECT_TRUE(Events::WaitForCount(1));
    ASSERT_EQ(1u, Events::All().size());
    EXPECT_EQ(kFirst[0], Events::All()[0][0]);
    EXPECT_TRUE(m_Client.stub.IsConnected());
    ExpectEvents(Events::All());
    EXPECT_EQ(8, m_Client.Skipped());
}

TEST_F(NotificationFaultTest, SilentOneIsMissing) {
    FaultOn(MakeFault(FaultKind::Silent, kNotifications));
    Notify(kFirst);
    Notify(kSecond);
    ExpectEvents({kSecond});
}

TEST_F(NotificationFaultTest, SentTwiceIsCalledTwice) {
    FaultOn(MakeFault(FaultKind::Twice, kNotifications));
    Notify(kFirst);
    Notify(kSecond);
    ExpectEvents({kFirst, kFirst, kSecond});
}

TEST_F(NotificationFaultTest, DelayedOneIsOvertaken) {
    FaultOn(Delay(kNotifications, seconds(1)));
    Notify(kFirst);
    Notify(kSecond);
    EXPECT_TRUE(Events::WaitForCount(2));
    ExpectEvents({kSecond, kFirst});
}

TEST_F(NotificationFaultTest, UnderAnotherCodeIsThrownAwayByteByByte) {
    FaultOn(WrongCode(kNotifications, 0x42));
    Notify(kFirst);
    Notify(kSecond);
    ExpectEvents({kSecond});
    EXPECT_EQ(1, m_Client.log.Count(kLogNotice, Client::ExceptionalLine(0x42)));
    EXPECT_EQ(kSkippedBody, m_Client.Skipped());
}

TEST_F(NotificationFaultTest, UnderAnAnswersCodeIsThrownAwayWhenNobodyWaits) {
    for (const Command& command : AllCommands()) {
        FaultOn(WrongCode(kNotifications, command.code + 1));
        Notify(kFirst);
        EXPECT_TRUE(m_Client.WaitForExceptional(command.code + 1)) << command;
    }
    ExpectEvents({});
    EXPECT_EQ(10 * kSkippedBody, m_Client.Skipped());
}

TEST_F(NotificationFaultTest, CodeZeroIsAResponseWithoutBytesWhenNobodyWaits) {
    FaultOn(WrongCode(kNotifications, 0));
    Notify(kFirst);
    EXPECT_TRUE(m_Client.log.WaitForLines(kLogInfo, "<== NetworkThread got response 0x00 sock:"));
    ExpectEvents({});
    EXPECT_EQ(kSkippedBody, m_Client.Skipped());
    EXPECT_EQ(0, m_Client.log.Count(kLogNotice, "<== NetworkThread got exceptional event"));
    ExpectRight(CommandOf(kGetModeratorInfo), m_Client.stub);
}

TEST_F(NotificationFaultTest, GarbageAroundItIsSkipped) {
    std::vector<Event> events;
    for (const bool prefixParts : {false, true}) {
        for (const GarbagePlace place : {GarbagePlace::Before, GarbagePlace::After}) {
            FaultOn(Garbage(kNotifications, place, 40, prefixParts));
            NotifyBoth(events);
        }
    }
    ExpectEvents(events);
    EXPECT_EQ(4 * 40, m_Client.Skipped());
}

TEST_F(NotificationFaultTest, GarbageInsideItIsTakenForItsBytes) {
    FaultOn(Garbage(kNotifications, GarbagePlace::Inside, 16));
    Notify({0x12345678, 0, 0});
    EXPECT_TRUE(Events::WaitForCount(1));
    Notify(kSecond);
    EXPECT_TRUE(Events::WaitForCount(2));
    const std::vector<Event> events = Events::All();
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(0x1234, events[0][0] >> 16);  // two bytes of the body stand before it
    EXPECT_EQ(kSecond, events[1]);
    EXPECT_EQ(16, m_Client.Skipped());
}

TEST_F(NotificationFaultTest, ByteByByteIsTaken) {
    FaultOn(Trickle(kNotifications, 1, milliseconds(2)));
    Notify(kFirst);
    Notify(kSecond);
    ExpectEvents({kFirst, kSecond});
}

TEST_F(NotificationFaultTest, WithoutACallbackFaultsLeaveTheConnectionUp) {
    m_Client.stub.SetScrRcvNotifyCB(nullptr);
    FaultOn(MakeFault(FaultKind::Twice, kNotifications));
    FaultOn(Garbage(kNotifications, GarbagePlace::Before, 16));
    Notify(kFirst);
    EXPECT_TRUE(m_Client.log.WaitForLines(kLogInfo, "<== NetworkThread got event 0x24, len=12", 2));
    ExpectRight(CommandOf(kGetSenderList), m_Client.stub);
    EXPECT_TRUE(Events::All().empty());
}

TEST_F(NotificationFaultTest, QueuedOnesAreDroppedWhenTheConnectionEnds) {
    std::mutex gate;
    std::unique_lock<std::mutex> closed(gate);
    Events::SetHook([&gate] { const std::lock_guard<std::mutex> wait(gate); });
    for (int i = 0; i < 5; ++i)
        Notify(kFirst);
    EXPECT_TRUE(Events::WaitForCount(1));
    EXPECT_TRUE(m_Client.log.WaitForLines(kLogInfo, "<== NetworkThread got event 0x24", 5));
    m_pReceiver->DropClients();
    EXPECT_TRUE(WaitFor([this] { return !m_Client.stub.IsConnected(); }));
    EXPECT_EQ(kPeerClosed, m_Client.stub.GetErrorCode());
    Events::SetHook(nullptr);
    closed.unlock();
    Connect(m_Client);
    ExpectEvents({kFirst});
}

// Floods.

class FloodTest : public NotificationFaultTest {
protected:
    void FloodOn(uint32_t rate, uint64_t count = 0) {
        Fault flood = MakeFault(FaultKind::Flood, kNotifications, count);
        flood.rate = rate;
        FaultOn(flood);
    }

    /// The flood's notifications have come without a gap, in order. How many.
    static size_t CheckedFlood() {
        size_t count = 0;
        int previous = 0;
        for (const Event& event : Events::All()) {
            if (event[0] != simulator::kNotifyFlood)
                continue;
            EXPECT_TRUE(count == 0 || event[1] == previous + 1) << previous << " " << event[1];
            EXPECT_EQ(0, event[2]);
            previous = event[1];
            ++count;
        }
        return count;
    }
};

TEST_F(FloodTest, IsCalledWholeAndInOrder) {
    FloodOn(20000, 10000);
    EXPECT_TRUE(WaitFor([] { return Events::All().size() >= 10000; }, seconds(30)));
    ExpectRight(CommandOf(kGetSenderList), m_Client.stub);
    EXPECT_EQ(10000u, CheckedFlood());
    EXPECT_EQ(0, m_Client.Skipped());
}

TEST_F(FloodTest, LetsRequestsThrough) {
    FloodOn(2000);
    EXPECT_TRUE(Events::WaitForCount(100));
    for (const Command& command : AllCommands())
        ExpectRight(command, m_Client.stub);
    EXPECT_TRUE(m_pReceiver->FaultOff(FaultKind::Flood));
    const Event last = {99, 98, 97};
    Notify(last);
    EXPECT_TRUE(WaitFor([&] { return Events::All().back() == last; }, seconds(30)));
    EXPECT_GE(CheckedFlood(), 100u);
}

TEST_F(FloodTest, LetsRequestsOfTheCallbackThrough) {
    Events::SetHook([this] {
        if (Events::All().size() % 100 == 1)
            ExpectRight(CommandOf(kGetSenderList), m_Client.stub);
    });
    FloodOn(2000, 1000);
    EXPECT_TRUE(WaitFor([] { return Events::All().size() >= 1000; }, seconds(30)));
    EXPECT_TRUE(m_Client.log.WaitForLines(kLogInfo, "<== NetworkThread got response 0x11", 10));
    EXPECT_EQ(1000u, CheckedFlood());
}

TEST_F(FloodTest, QueuesBehindASlowCallback) {
    std::mutex gate;
    std::unique_lock<std::mutex> closed(gate);
    Events::SetHook([&gate] { const std::lock_guard<std::mutex> wait(gate); });
    FloodOn(5000, 2000);
    EXPECT_TRUE(m_Client.log.WaitForLines(kLogInfo, "<== NetworkThread got event 0x24", 2000));
    ExpectRight(CommandOf(kGetSenderList), m_Client.stub);
    EXPECT_EQ(1u, Events::All().size());
    closed.unlock();
    EXPECT_TRUE(Events::WaitForCount(2000));
    Events::SetHook(nullptr);
    ExpectEvents(Events::All());
    EXPECT_EQ(2000u, CheckedFlood());
}

}  // namespace
}  // namespace sr_test
