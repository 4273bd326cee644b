#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "SimulatorFixture.h"

namespace {

using namespace sim_test;

class ReceiverStateTest : public SimulatorFixture {};

// --- Lists ---

TEST_F(ReceiverStateTest, EmptyShortListIsAHeaderOfZeros) {
    StartAndConnect();
    EXPECT_EQ(Frame32("11", "00 00 00"), Ask(Frame32("10", "01")));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ReceiverStateTest, EmptyLongListSetsOnlyTheLongByte) {
    m_Options.records = RecordSize::Long;
    StartAndConnect();
    EXPECT_EQ(Frame32("11", "00 00 01"), Ask(Frame32("10", "01")));
}

Sender FullSender() {
    Sender sender;
    sender.key = 0x01020304;
    sender.address = 0xC0A80A14;
    sender.userName = "Ada";
    sender.status = 0xFFFE;
    sender.splitScreen = 0x85;
    sender.osType = 0x1112;
    sender.appType = 0x2122;
    sender.pointerInputType = 0x3132;
    return sender;
}

TEST_F(ReceiverStateTest, ShortRecordHas64Bytes) {
    StartAndConnect();
    m_pSim->AddSender(FullSender());
    m_pClient->Receive(kNotifySize);
    const std::string expected = Frame32("11", "00 01 00") + Hex("01 02 03 04 C0 A8 0A 14") +
                                 Hex("41 64 61") + Zeros(45) + Hex("FF FE 85") + Zeros(5);
    EXPECT_EQ(expected, Ask(Frame32("10", "01"), expected.size()));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ReceiverStateTest, LongRecordHas128BytesWithPackedTypes) {
    m_Options.records = RecordSize::Long;
    StartAndConnect();
    m_pSim->AddSender(FullSender());
    m_pClient->Receive(kNotifySize);
    const std::string expected = Frame32("11", "00 01 01") + Hex("01 02 03 04 C0 A8 0A 14") +
                                 Hex("41 64 61") + Zeros(45) + Hex("FF FE 85") +
                                 Hex("11 12 21 22 31 32") + Zeros(63);
    EXPECT_EQ(expected, Ask(Frame32("10", "01"), expected.size()));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ReceiverStateTest, DefaultSenderIsReadyWithoutPlaceOnTheScreen) {
    Start();
    m_pSim->AddSender(MakeSender(-1, ""));
    m_pClient = Connect();
    EXPECT_EQ(Frame32("11", "00 01 00") + Hex("FF FF FF FF 00 00 00 00") + Zeros(48) +
                  Hex("00 01 80") + Zeros(5),
              ListOfShort(Frame32("10", "01"), 1));
}

TEST_F(ReceiverStateTest, NameIsCutAfter47BytesAndKeepsItsNul) {
    Start();
    m_pSim->AddSender(MakeSender(1, std::string(60, 'x')));
    m_pClient = Connect();
    const std::string list = ListOfShort(Frame32("10", "01"), 1);
    EXPECT_EQ(std::string(47, 'x') + Hex("00 00 01 80"), list.substr(kListHeadSize + 8, 51));
}

TEST_F(ReceiverStateTest, NameOf47BytesIsWhole) {
    Start();
    m_pSim->AddSender(MakeSender(1, std::string(46, 'x') + "y"));
    m_pClient = Connect();
    const std::string list = ListOfShort(Frame32("10", "01"), 1);
    EXPECT_EQ(std::string(46, 'x') + Hex("79 00"), list.substr(kListHeadSize + 8, 48));
}

TEST_F(ReceiverStateTest, NameEndsAtItsFirstNul) {
    Start();
    m_pSim->AddSender(MakeSender(1, std::string("ab\0cd", 5)));
    m_pClient = Connect();
    const std::string list = ListOfShort(Frame32("10", "01"), 1);
    EXPECT_EQ(Hex("61 62") + Zeros(46), list.substr(kListHeadSize + 8, 48));
}

class SelectionTest : public SimulatorFixture {
protected:
    void SetUp() override {
        Start();
        Sender local = MakeSender(9);
        local.local = true;
        Sender invalid = MakeSender(5);
        invalid.valid = false;
        m_pSim->AddSender(local);
        m_pSim->AddSender(MakeSender(7));
        m_pSim->AddSender(invalid);
        m_pClient = Connect();
    }
};

TEST_F(SelectionTest, AllComeInTheOrderOfJoining) {
    const std::string list = ListOfShort(Frame32("10", "01"), 3);
    EXPECT_EQ(Frame32("11", "00 03 00"), list.substr(0, kListHeadSize));
    EXPECT_EQ(Hex("00 00 00 09 00 00 00 07 00 00 00 05"), KeysOf(list));
}

TEST_F(SelectionTest, NonLocalLeavesOutLocalSenders) {
    const std::string list = ListOfShort(Frame32("1A", "01"), 2);
    EXPECT_EQ(Frame32("1B", "00 02 00"), list.substr(0, kListHeadSize));
    EXPECT_EQ(Hex("00 00 00 07 00 00 00 05"), KeysOf(list));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(SelectionTest, ValidLeavesOutTheOthers) {
    const std::string list = ListOfShort(Frame32("1C", "01"), 2);
    EXPECT_EQ(Frame32("1D", "00 02 00"), list.substr(0, kListHeadSize));
    EXPECT_EQ(Hex("00 00 00 09 00 00 00 07"), KeysOf(list));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(SelectionTest, SenderThatReturnsComesLast) {
    m_pSim->RemoveSender(9);
    m_pSim->AddSender(MakeSender(9));
    EXPECT_EQ(NotifyFrame("00 00 00 02 00 00 00 09 00 00 00 00") +
                  NotifyFrame("00 00 00 01 00 00 00 09 00 00 00 01"),
              m_pClient->Receive(2 * kNotifySize));
    EXPECT_EQ(Hex("00 00 00 07 00 00 00 05 00 00 00 09"),
              KeysOf(ListOfShort(Frame32("10", "01"), 3)));
}

TEST_F(ReceiverStateTest, ListOf65535LongRecordsIsWholeAndIsTheMost) {
    m_Options.records = RecordSize::Long;
    Start();
    for (int32_t key = 1; key <= 65535; ++key)
        ASSERT_TRUE(m_pSim->AddSender(MakeSender(key)));
    EXPECT_FALSE(m_pSim->AddSender(MakeSender(65536)));
    m_pClient = Connect();
    const std::string list = Ask(Frame32("10", "01"), kListHeadSize + 65535u * 128u);
    ASSERT_EQ(kListHeadSize + 65535u * 128u, list.size());
    EXPECT_EQ(Frame32("11", "FF FF 01"), list.substr(0, kListHeadSize));
    EXPECT_EQ(Hex("00 00 80 00"), list.substr(kListHeadSize + 0x7FFFu * 128u, 4));
    EXPECT_EQ(Hex("00 00 FF FF"), list.substr(kListHeadSize + 0xFFFEu * 128u, 4));
    ExpectNothingQueued(*m_pClient);
}

// --- Showing ---

class ShowTest : public SimulatorFixture {
protected:
    void SetUp() override {
        Start();
        Sender invalid = MakeSender(6);
        invalid.valid = false;
        m_pSim->AddSender(MakeSender(0x01020304));
        m_pSim->AddSender(invalid);
        m_pClient = Connect();
    }

    static constexpr const char* kStart = "01 02 03 04 07";

    void StartSender() {
        ASSERT_EQ(Frame32("13") + NotifyFrame("00 00 00 04 01 02 03 04 00 00 00 07"),
                  Ask(Frame32("12", kStart), kFrameSize + kNotifySize));
    }
};

TEST_F(ShowTest, StartAnswersThenNotifies) {
    StartSender();
    EXPECT_TRUE(m_pSim->IsShown(0x01020304));
    EXPECT_EQ(7, m_pSim->ShownOption(0x01020304));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ShowTest, ListReportsAShownSenderAtItsPlace) {
    StartSender();
    EXPECT_EQ(Hex("00 02 07"), ListOfShort(Frame32("10", "01"), 2).substr(kListHeadSize + 56, 3));
    EXPECT_EQ(simulator::kStatusReady, m_pSim->Senders().at(0).status);
}

TEST_F(ShowTest, StartOfAShownSenderIsRefused) {
    StartSender();
    EXPECT_EQ(Frame32("13", "00 00 00 02"), Ask(Frame32("12", "01 02 03 04 09")));
    EXPECT_EQ(7, m_pSim->ShownOption(0x01020304));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ShowTest, StartOfAnUnknownSenderIsRefused) {
    EXPECT_EQ(Frame32("13", "00 00 00 01"), Ask(Frame32("12", "00 00 00 63 00")));
    EXPECT_FALSE(m_pSim->IsShown(99));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ShowTest, StartOfASenderThatIsNotValidIsRefused) {
    EXPECT_EQ(Frame32("13", "00 00 00 04"), Ask(Frame32("12", "00 00 00 06 00")));
    EXPECT_FALSE(m_pSim->IsShown(6));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ShowTest, StopEndsTheShowAndRestoresTheSendersOwnValues) {
    StartSender();
    EXPECT_EQ(Frame32("15") + NotifyFrame("00 00 00 05 01 02 03 04 00 00 00 00"),
              Ask(Frame32("14", "01 02 03 04"), kFrameSize + kNotifySize));
    EXPECT_FALSE(m_pSim->IsShown(0x01020304));
    EXPECT_EQ(Hex("00 01 80"), ListOfShort(Frame32("10", "01"), 2).substr(kListHeadSize + 56, 3));
}

TEST_F(ShowTest, StopOfASenderThatIsNotShownIsRefused) {
    EXPECT_EQ(Frame32("15", "00 00 00 03"), Ask(Frame32("14", "01 02 03 04")));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ShowTest, StopOfAnUnknownSenderIsRefused) {
    EXPECT_EQ(Frame32("15", "00 00 00 01"), Ask(Frame32("14", "00 00 00 63")));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ShowTest, LogoutStopsTheShowAndRemovesTheSender) {
    StartSender();
    EXPECT_EQ(Frame32("1F") + NotifyFrame("00 00 00 05 01 02 03 04 00 00 00 00") +
                  NotifyFrame("00 00 00 02 01 02 03 04 00 00 00 00"),
              Ask(Frame32("1E", "01 02 03 04"), kFrameSize + 2 * kNotifySize));
    EXPECT_FALSE(m_pSim->IsShown(0x01020304));
    EXPECT_EQ(Hex("00 00 00 06"), KeysOf(ListOfShort(Frame32("10", "01"), 1)));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ShowTest, LogoutOfASenderThatIsNotShownOnlyRemovesIt) {
    EXPECT_EQ(Frame32("1F") + NotifyFrame("00 00 00 02 00 00 00 06 00 00 00 00"),
              Ask(Frame32("1E", "00 00 00 06"), kFrameSize + kNotifySize));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ShowTest, LogoutOfAnUnknownSenderIsRefused) {
    EXPECT_EQ(Frame32("1F", "00 00 00 01"), Ask(Frame32("1E", "FF FF FF FF")));
    EXPECT_EQ(2u, m_pSim->Senders().size());
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ShowTest, SenderThatIsChangedStaysShown) {
    StartSender();
    Sender sender = MakeSender(0x01020304, "b");
    sender.status = 0x1234;
    EXPECT_TRUE(Update(sender));
    EXPECT_EQ(NotifyFrame("00 00 00 03 01 02 03 04 00 00 12 34"), m_pClient->Receive(kNotifySize));
    EXPECT_TRUE(m_pSim->IsShown(0x01020304));
    const std::string list = ListOfShort(Frame32("10", "01"), 2);
    EXPECT_EQ("b", list.substr(kListHeadSize + 8, 1));
    EXPECT_EQ(Hex("00 02 07"), list.substr(kListHeadSize + 56, 3));
}

TEST_F(ShowTest, ListFollowsEveryChange) {
    const auto record = [this](size_t count) {
        const std::string list = ListOfShort(Frame32("10", "01"), count);
        EXPECT_EQ(list.substr(kFrameSize),
                  ListOfShort(Frame32("1A", "01"), count).substr(kFrameSize));
        return list.substr(kListHeadSize + 8, 1) + list.substr(kListHeadSize + 56, 3);
    };
    EXPECT_EQ(Hex("61 00 01 80"), record(2));
    StartSender();
    EXPECT_EQ(Hex("61 00 02 07"), record(2));
    Update(MakeSender(0x01020304, "b"));
    m_pClient->Receive(kNotifySize);
    EXPECT_EQ(Hex("62 00 02 07"), record(2));
    m_pSim->StopPlay(0x01020304);
    m_pClient->Receive(kNotifySize);
    EXPECT_EQ(Hex("62 00 01 80"), record(2));
    m_pSim->AddSender(MakeSender(3));
    m_pClient->Receive(kNotifySize);
    EXPECT_EQ(Hex("62 00 01 80"), record(3));
    Ask(Frame32("1E", "01 02 03 04"), kFrameSize + kNotifySize);
    EXPECT_EQ(Hex("61 00 01 80"), record(2));
}

// --- Moderator ---

TEST_F(ReceiverStateTest, ModeratorIsZeroAtFirst) {
    StartAndConnect();
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
}

TEST_F(ReceiverStateTest, ModeratorThatIsSetIsReadBackAndNotified) {
    StartAndConnect();
    EXPECT_EQ(Frame32("23") + NotifyFrame("00 00 00 06 FF FF FF FF 00 00 00 02"),
              Ask(Frame32("22", "FF FF FF FF 02"), kFrameSize + kNotifySize));
    EXPECT_EQ(-1, m_pSim->GetModerator().id);
    EXPECT_EQ(2, m_pSim->GetModerator().flag);
    EXPECT_EQ(Frame32("21", "FF FF FF FF 02"), Ask(Frame32("20", "01")));
}

TEST_F(ReceiverStateTest, ModeratorSetToTheSameIsNotNotified) {
    StartAndConnect();
    EXPECT_EQ(Frame32("23"), Ask(Frame32("22")));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ReceiverStateTest, ModeratorFlagAloneIsAChange) {
    StartAndConnect();
    m_pSim->SetModerator({0, 0xFF});
    EXPECT_EQ(NotifyFrame("00 00 00 06 00 00 00 00 00 00 00 FF"), m_pClient->Receive(kNotifySize));
    EXPECT_EQ(Frame32("21", "00 00 00 00 FF"), Ask(Frame32("20", "01")));
}

// --- Notifications ---

TEST_F(ReceiverStateTest, EveryClientIsNotified) {
    StartAndConnect();
    const auto second = Connect();
    const auto third = Connect();
    m_pSim->Notify(1, -1, 256);
    const std::string expected = NotifyFrame("00 00 00 01 FF FF FF FF 00 00 01 00");
    EXPECT_EQ(expected, m_pClient->Receive(kNotifySize));
    EXPECT_EQ(expected, second->Receive(kNotifySize));
    EXPECT_EQ(expected, third->Receive(kNotifySize));
}

TEST_F(ReceiverStateTest, ChangeByOneClientIsNotifiedToTheOthers) {
    StartAndConnect();
    const auto other = Connect();
    Ask(Frame32("22", "00 00 00 05 01"), kFrameSize + kNotifySize);
    EXPECT_EQ(NotifyFrame("00 00 00 06 00 00 00 05 00 00 00 01"), other->Receive(kNotifySize));
}

TEST_F(ReceiverStateTest, JoinChangeAndLeaveAreNotified) {
    StartAndConnect();
    EXPECT_TRUE(m_pSim->AddSender(MakeSender(3)));
    Sender changed = MakeSender(3);
    changed.status = 0xFFFF;
    EXPECT_TRUE(Update(changed));
    EXPECT_TRUE(m_pSim->RemoveSender(3));
    EXPECT_EQ(NotifyFrame("00 00 00 01 00 00 00 03 00 00 00 01") +
                  NotifyFrame("00 00 00 03 00 00 00 03 00 00 FF FF") +
                  NotifyFrame("00 00 00 02 00 00 00 03 00 00 00 00"),
              m_pClient->Receive(3 * kNotifySize));
}

TEST_F(ReceiverStateTest, EachFieldOfASenderIsAChange) {
    Start();
    m_pSim->AddSender(MakeSender(3));
    m_pClient = Connect();
    Sender sender = MakeSender(3);
    const std::vector<void (*)(Sender&)> changes = {
        [](Sender& s) { s.address = 1; },     [](Sender& s) { s.userName = "b"; },
        [](Sender& s) { s.splitScreen = 1; }, [](Sender& s) { s.osType = 1; },
        [](Sender& s) { s.appType = 1; },     [](Sender& s) { s.pointerInputType = 1; },
        [](Sender& s) { s.local = true; },    [](Sender& s) { s.valid = false; },
    };
    for (const auto change : changes) {
        change(sender);
        EXPECT_TRUE(Update(sender));
        EXPECT_EQ(NotifyFrame("00 00 00 03 00 00 00 03 00 00 00 01"),
                  m_pClient->Receive(kNotifySize));
    }
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ReceiverStateTest, ChangesOfOneSenderByTwoThreadsLoseNothing) {
    constexpr uint16_t kLast = 1000;
    Start();
    m_pSim->AddSender(MakeSender(3));
    std::atomic<int> ready{0};
    const auto count = [&](uint16_t Sender::*member) {
        ++ready;
        while (ready < 2)
            std::this_thread::yield();
        for (uint16_t i = 1; i <= kLast; ++i) {
            m_pSim->ChangeSender(3, [&](Sender& sender) {
                std::this_thread::yield();
                sender.*member = i;
            });
            const Sender sender = m_pSim->Senders().at(0);
            EXPECT_EQ(i, sender.*member);
        }
    };
    std::thread other([&] { count(&Sender::osType); });
    count(&Sender::status);
    other.join();
    EXPECT_EQ(kLast, m_pSim->Senders().at(0).status);
    EXPECT_EQ(kLast, m_pSim->Senders().at(0).osType);
}

TEST_F(ReceiverStateTest, ChangedSenderKeepsItsKey) {
    Start();
    m_pSim->AddSender(MakeSender(3));
    m_pSim->AddSender(MakeSender(4));
    m_pClient = Connect();
    for (const int32_t key : {4, 5}) {
        EXPECT_TRUE(m_pSim->ChangeSender(3, [&](Sender& sender) { sender.key = key; }));
        EXPECT_FALSE(m_pSim->ChangeSender(5, [](Sender&) { ADD_FAILURE(); }));
    }
    EXPECT_EQ(Hex("00 00 00 03 00 00 00 04"), KeysOf(ListOfShort(Frame32("10", "01"), 2)));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ReceiverStateTest, WhatChangesNothingIsNotNotified) {
    Start();
    m_pSim->AddSender(MakeSender(3));
    m_pClient = Connect();
    EXPECT_FALSE(m_pSim->AddSender(MakeSender(3, "other")));
    EXPECT_TRUE(Update(MakeSender(3)));
    EXPECT_FALSE(Update(MakeSender(4)));
    EXPECT_FALSE(m_pSim->RemoveSender(4));
    m_pSim->SetModerator({0, 0});
    ExpectNothingQueued(*m_pClient);
    EXPECT_EQ("a", m_pSim->Senders().at(0).userName);
}

TEST_F(ReceiverStateTest, ClientIsNotNotifiedOfWhatWasBeforeIt) {
    Start();
    m_pSim->AddSender(MakeSender(3));
    m_pSim->Notify(1, 2, 3);
    m_pClient = Connect();
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ReceiverStateTest, HundredThousandNotificationsArriveInOrder) {
    StartAndConnect();
    std::thread notifier([this] {
        for (int32_t i = 0; i < 100000; ++i)
            m_pSim->Notify(i, 0, -1);
    });
    const std::string all = m_pClient->Receive(100000 * kNotifySize);
    notifier.join();
    ASSERT_EQ(100000 * kNotifySize, all.size());
    std::string expected = NotifyFrame("00 00 00 00 00 00 00 00 FF FF FF FF");
    size_t wrong = 0;
    for (unsigned i = 0; i < 100000; ++i) {
        expected[8 + 1] = static_cast<char>(i >> 16);
        expected[8 + 2] = static_cast<char>(i >> 8 & 0xFFu);
        expected[8 + 3] = static_cast<char>(i & 0xFFu);
        wrong += all.compare(i * kNotifySize, kNotifySize, expected) == 0 ? 0 : 1;
    }
    EXPECT_EQ(0u, wrong);
}

}  // namespace
