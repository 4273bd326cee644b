#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "FaultFixture.h"

namespace {

using namespace sim_test;

// --- Every kind of fault against every command ---

class EachCommandTest : public FaultFixture, public ::testing::WithParamInterface<Exchange> {
protected:
    void SetUp() override {
        StartAndConnect();
        // Later ones are not notified: they would only keep it.
        if (GetParam().command == 22)
            Ask(Frame32("16"), kFrameSize + kNotifySize);
    }

    std::string Request() const { return Frame32(GetParam().request); }
    std::string Answer() const { return Frame32(GetParam().answer, GetParam().payload); }
    int Command() const { return GetParam().command; }

    // Of another command, which the fault does not touch.
    std::string OtherRequest() const { return Frame32(Command() == 32 ? "22" : "20"); }
    std::string OtherAnswer() const { return Frame32(Command() == 32 ? "23" : "21"); }

    void ExpectOtherServed() { EXPECT_EQ(OtherAnswer(), Ask(OtherRequest())); }

    void ExpectCured(FaultKind kind) {
        Off(kind);
        EXPECT_EQ(Answer(), Ask(Request()));
        ExpectOtherServed();
    }
};

INSTANTIATE_TEST_SUITE_P(Commands,
                         EachCommandTest,
                         ::testing::ValuesIn(Exchanges()),
                         [](const ::testing::TestParamInfo<Exchange>& test) {
                             return std::to_string(test.param.command);
                         });

TEST_P(EachCommandTest, SilentKeepsTheAnswerBack) {
    On(MakeFault(FaultKind::Silent, Command()));
    EXPECT_EQ(OtherAnswer(), Ask(Request() + OtherRequest()));
    EXPECT_EQ("silent", FaultsOf(static_cast<uint8_t>(Command() + 1)));
    ExpectCured(FaultKind::Silent);
}

TEST_P(EachCommandTest, AnswersCodeStandsForTheCommandToo) {
    On(MakeFault(FaultKind::Silent, Command() + 1));
    EXPECT_EQ(OtherAnswer(), Ask(Request() + OtherRequest()));
    EXPECT_TRUE(m_pSim->FaultOff(FaultKind::Silent, Command()));
    EXPECT_EQ(Answer(), Ask(Request()));
}

TEST_P(EachCommandTest, DelayedAnswerIsOvertaken) {
    On(DelayFault(Command(), milliseconds(200)));
    const Stopwatch watch;
    EXPECT_EQ(OtherAnswer() + Answer(), Ask(Request() + OtherRequest(), 2 * kFrameSize));
    EXPECT_GE(watch.Elapsed(), milliseconds(200));
    EXPECT_EQ("delay", FaultsOf(static_cast<uint8_t>(Command() + 1)));
    ExpectCured(FaultKind::Delay);
}

TEST_P(EachCommandTest, WrongCodeIsTwoMoreThanTheRightOne) {
    On(MakeFault(FaultKind::WrongCode, Command()));
    EXPECT_EQ(WithCode(Answer(), Command() + 3) + OtherAnswer(),
              Ask(Request() + OtherRequest(), 2 * kFrameSize));
    EXPECT_EQ(1u, m_pSim->GetStatistics().faultsDone);
    ExpectCured(FaultKind::WrongCode);
}

TEST_P(EachCommandTest, TwiceSendsTheAnswerTwoTimes) {
    On(MakeFault(FaultKind::Twice, Command()));
    EXPECT_EQ(Answer() + Answer() + OtherAnswer(), Ask(Request() + OtherRequest(), 3 * kFrameSize));
    ExpectCured(FaultKind::Twice);
}

TEST_P(EachCommandTest, UnaskedAnswersTheRequestThatChangesNothing) {
    const auto other = Connect();
    Fault fault = MakeFault(FaultKind::Unasked, Command(), 1);
    fault.time = kHour;
    On(fault);
    const std::string answer = Frame32(GetParam().answer);
    EXPECT_EQ(answer, m_pClient->Receive(kFrameSize));
    EXPECT_EQ(answer, other->Receive(kFrameSize));
    ExpectOtherServed();
    EXPECT_TRUE(m_pSim->Faults().empty());
}

TEST_P(EachCommandTest, CutAnswerEndsTheConnection) {
    On(CutFault(Command(), 11, CutEnd::Close));
    const auto other = Connect();
    ASSERT_TRUE(m_pClient->Send(Request()));
    std::string bytes;
    EXPECT_EQ(Ending::Closed, m_pClient->ReceiveToEnd(bytes));
    EXPECT_EQ(Answer().substr(0, 11), bytes);
    EXPECT_EQ(OtherAnswer(), Ask(*other, OtherRequest(), kFrameSize));
}

TEST_P(EachCommandTest, CutAnswerGoesOnLater) {
    On(CutFault(Command(), -1, CutEnd::Later, milliseconds(100)));
    const Stopwatch watch;
    ASSERT_TRUE(m_pClient->Send(Request() + OtherRequest()));
    EXPECT_EQ(Answer().substr(0, 20), m_pClient->Receive(20));
    EXPECT_EQ(Answer().substr(20) + OtherAnswer(), m_pClient->Receive(20 + kFrameSize));
    EXPECT_GE(watch.Elapsed(), milliseconds(100));
    ExpectCured(FaultKind::Cut);
}

TEST_P(EachCommandTest, TrickledAnswerIsWhole) {
    On(TrickleFault(Command(), 7, milliseconds(20)));
    const Stopwatch watch;
    EXPECT_EQ(Answer() + OtherAnswer(), Ask(Request() + OtherRequest(), 2 * kFrameSize));
    EXPECT_GE(watch.Elapsed(), milliseconds(5 * 20));
    ExpectCured(FaultKind::Trickle);
}

TEST_P(EachCommandTest, GarbageStandsWhereItShould) {
    const Fault before = GarbageFault(Command(), GarbagePlace::Before, 9);
    const Fault inside = GarbageFault(Command(), GarbagePlace::Inside, 9);
    const Fault after = GarbageFault(Command(), GarbagePlace::After, 9);
    std::string bytes;
    for (const Fault& fault : {before, inside, after}) {
        On(fault);
        bytes += Ask(Request() + OtherRequest(), 2 * kFrameSize + 9);
        Off(FaultKind::Garbage);
    }
    const size_t round = 2 * kFrameSize + 9;
    ASSERT_EQ(3 * round, bytes.size());
    EXPECT_EQ(Answer() + OtherAnswer(), bytes.substr(9, 2 * kFrameSize));
    EXPECT_EQ(Answer().substr(0, 20), bytes.substr(round, 20));
    EXPECT_EQ(Answer().substr(20) + OtherAnswer(), bytes.substr(round + 29, 20 + kFrameSize));
    EXPECT_EQ(Answer(), bytes.substr(2 * round, kFrameSize));
    EXPECT_EQ(OtherAnswer(), bytes.substr(2 * round + kFrameSize + 9, kFrameSize));
    EXPECT_EQ(3u, m_pSim->GetStatistics().faultsDone);
}

// --- Which frames, and how often ---

struct Scope {
    const char* name;
    int command;
    bool touchesModerator;
    bool touchesList;
    bool touchesNotifications;
};

class ScopeTest : public FaultFixture,
                  public ::testing::WithParamInterface<std::tuple<FaultKind, Scope, uint64_t>> {
protected:
    FaultKind Kind() const { return std::get<0>(GetParam()); }
    const Scope& Which() const { return std::get<1>(GetParam()); }
    uint64_t Count() const { return std::get<2>(GetParam()); }

    std::string Spoilt(const std::string& frame) const {
        switch (Kind()) {
            case FaultKind::Silent:
                return "";
            case FaultKind::Twice:
                return frame + frame;
            default:
                return WithCode(frame, frame[7] + 2);
        }
    }

    // Called when the frame is on its way; waits for it, or for its being kept back.
    void ExpectFrame(const std::string& frame, bool inScope) {
        const bool touched = inScope && (Count() == 0 || m_nTouched < Count());
        const std::string expected = touched ? Spoilt(frame) : frame;
        m_nTouched += touched ? 1 : 0;
        ASSERT_EQ(expected, m_pClient->Receive(expected.size()));
        ASSERT_TRUE(WaitForFaults(m_nTouched));
    }

    uint64_t m_nTouched = 0;
};

INSTANTIATE_TEST_SUITE_P(
    Faults,
    ScopeTest,
    ::testing::Combine(::testing::Values(FaultKind::Silent, FaultKind::WrongCode, FaultKind::Twice),
                       ::testing::Values(Scope{"OneCommand", 32, true, false, false},
                                         Scope{"EveryAnswer", kEveryAnswer, true, true, false},
                                         Scope{"Notifications", kNotifications, false, false, true},
                                         Scope{"EveryFrame", kEveryFrame, true, true, true}),
                       ::testing::Values(0, 1, 3)),
    [](const auto& test) {
        const FaultKind kind = std::get<0>(test.param);
        const uint64_t count = std::get<2>(test.param);
        return std::string(kind == FaultKind::Silent  ? "Silent"
                           : kind == FaultKind::Twice ? "Twice"
                                                      : "WrongCode") +
               std::get<1>(test.param).name + (count == 0 ? "ForEver" : std::to_string(count));
    });

TEST_P(ScopeTest, TouchesTheFramesOfItsScopeOnly) {
    StartAndConnect();
    On(MakeFault(Kind(), Which().command, Count()));
    for (int round = 0; round < 4; ++round) {
        ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
        ExpectFrame(Frame32("21"), Which().touchesModerator);
        ASSERT_TRUE(m_pClient->Send(Frame32("10", "01")));
        ExpectFrame(Frame32("11"), Which().touchesList);
        Notify();
        ExpectFrame(m_strNotify, Which().touchesNotifications);
    }
    EXPECT_EQ(m_nTouched, m_pSim->GetStatistics().faultsDone);
    EXPECT_EQ(Count() == 0 ? 1u : 0u, m_pSim->Faults().size());
    EXPECT_EQ(Count() == 0, m_pSim->FaultOff(Kind()));
    ExpectServed();
    Notify();
    EXPECT_EQ(m_strNotify, m_pClient->Receive(kNotifySize));
}

class AnswerFaultTest : public FaultFixture {};

TEST_F(AnswerFaultTest, CountIsOfTheFramesOfAllClients) {
    StartAndConnect();
    const auto second = Connect();
    On(MakeFault(FaultKind::WrongCode, kNotifications, 3));
    for (int i = 0; i < 3; ++i)
        Notify();
    int wrong = 0;
    for (RawClient* client : {m_pClient.get(), second.get()}) {
        for (int i = 0; i < 3; ++i) {
            const std::string frame = client->Receive(kNotifySize);
            wrong += frame == WithCode(m_strNotify, 0x26) ? 1 : 0;
            EXPECT_EQ(m_strNotify, WithCode(frame, 0x24));
        }
    }
    EXPECT_EQ(3, wrong);
    EXPECT_EQ(3u, m_pSim->GetStatistics().faultsDone);
}

TEST_F(AnswerFaultTest, CountsOfTwoFaultsAreTheirOwn) {
    StartAndConnect();
    On(MakeFault(FaultKind::Twice, 32, 1));
    On(MakeFault(FaultKind::WrongCode, 32, 2));
    const std::string wrong = WithCode(Frame32("21"), 0x23);
    EXPECT_EQ(wrong + wrong, Ask(Frame32("20", "01"), 2 * kFrameSize));
    ASSERT_EQ(1u, m_pSim->Faults().size());
    EXPECT_EQ(1u, m_pSim->Faults().at(0).count);
    EXPECT_EQ(wrong, Ask(Frame32("20", "01")));
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
    EXPECT_EQ(3u, m_pSim->GetStatistics().faultsDone);
}

// --- Silent ---

TEST_F(AnswerFaultTest, SilencedRequestHasItsEffectAndIsNotified) {
    StartAndConnect();
    On(MakeFault(FaultKind::Silent, 34));
    EXPECT_EQ(NotifyFrame("00 00 00 06 00 00 00 05 00 00 00 01") + Frame32("21", "00 00 00 05 01"),
              Ask(Frame32("22", "00 00 00 05 01") + Frame32("20", "01"), kNotifySize + kFrameSize));
    EXPECT_EQ(5, m_pSim->GetModerator().id);
    EXPECT_EQ(2u, m_pSim->GetStatistics().framesSent);
}

// --- Delay ---

TEST_F(AnswerFaultTest, DelayedAnswerIsOvertakenByItsNotification) {
    StartAndConnect();
    On(DelayFault(34, milliseconds(150)));
    EXPECT_EQ(NotifyFrame("00 00 00 06 00 00 00 05 00 00 00 01") + Frame32("23"),
              Ask(Frame32("22", "00 00 00 05 01"), kNotifySize + kFrameSize));
}

TEST_F(AnswerFaultTest, DelayedAnswersOfOneTimeKeepTheirOrder) {
    StartAndConnect();
    On(DelayFault(kEveryAnswer, milliseconds(100)));
    std::string requests;
    std::string answers;
    for (int i = 0; i < 20; ++i) {
        requests += Frame32("10", "01") + Frame32("20", "01") + Frame32("22");
        answers += Frame32("11") + Frame32("21") + Frame32("23");
    }
    const Stopwatch watch;
    EXPECT_EQ(answers, Ask(requests, answers.size()));
    EXPECT_GE(watch.Elapsed(), milliseconds(100));
}

TEST_F(AnswerFaultTest, DelayedAnswerIsThatOfTheTimeOfTheRequest) {
    StartAndConnect();
    On(DelayFault(32, milliseconds(150)));
    const std::string changed = Frame32("22", "00 00 00 05 01");
    EXPECT_EQ(Frame32("23") + NotifyFrame("00 00 00 06 00 00 00 05 00 00 00 01") + Frame32("21"),
              Ask(Frame32("20", "01") + changed, 2 * kFrameSize + kNotifySize));
}

TEST_F(AnswerFaultTest, DelayOfZeroChangesNothing) {
    StartAndConnect();
    On(DelayFault(kEveryFrame, milliseconds(0)));
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
    Notify();
    EXPECT_EQ(m_strNotify, m_pClient->Receive(kNotifySize));
}

TEST_F(AnswerFaultTest, DelayedFrameForAClientThatLeftHarmsNobody) {
    StartAndConnect();
    const auto other = Connect();
    On(DelayFault(32, milliseconds(50)));
    ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
    ASSERT_TRUE(WaitForFaults(1));
    m_pClient.reset();
    ASSERT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 1; }));
    EXPECT_EQ(Frame32("21"), Ask(*other, Frame32("20", "01"), kFrameSize));
    ExpectServed(*other);
}

// --- Wrong code ---

TEST_F(AnswerFaultTest, WrongCodeIsTheOneAskedFor) {
    StartAndConnect();
    for (const int code : {0, 17, 36, 255}) {
        Fault fault = MakeFault(FaultKind::WrongCode, 32);
        fault.code = code;
        On(fault);
        EXPECT_EQ(WithCode(Frame32("21"), code), Ask(Frame32("20", "01")));
    }
    EXPECT_EQ("wrong-code", FaultsOf(0x21));
}

// --- Unasked ---

class UnaskedTest : public FaultFixture {
protected:
    static Fault Unasked(int command, milliseconds time, uint64_t count = 0) {
        Fault fault = MakeFault(FaultKind::Unasked, command, count);
        fault.time = time;
        return fault;
    }
};

TEST_F(UnaskedTest, ListIsTheRealOne) {
    Start();
    m_pSim->AddSender(MakeSender(0x01020304, "Ada"));
    m_pClient = Connect();
    On(Unasked(16, kHour));
    EXPECT_EQ(Frame32("11", "00 01 00") + Hex("01 02 03 04 00 00 00 00 41 64 61") + Zeros(45) +
                  Hex("00 01 80") + Zeros(5),
              m_pClient->Receive(kListHeadSize + 64));
}

TEST_F(UnaskedTest, ModeratorIsTheRealOne) {
    Start();
    m_pSim->SetModerator({5, 1});
    m_pClient = Connect();
    On(Unasked(32, kHour));
    EXPECT_EQ(Frame32("21", "00 00 00 05 01"), m_pClient->Receive(kFrameSize));
}

TEST_F(UnaskedTest, NothingChanges) {
    StartAndConnect();
    m_pSim->SetModerator({5, 1});
    m_pClient->Receive(kNotifySize);
    m_pSim->AddSender(MakeSender(0));
    m_pClient->Receive(kNotifySize);
    for (const int command : {18, 22, 30, 34}) {
        On(Unasked(command, kHour, 1));
        ASSERT_EQ(WithCode(Frame32("00"), command + 1), m_pClient->Receive(kFrameSize));
    }
    EXPECT_EQ(5, m_pSim->GetModerator().id);
    EXPECT_FALSE(m_pSim->ConfControlHeld());
    EXPECT_FALSE(m_pSim->IsShown(0));
    EXPECT_EQ(1u, m_pSim->Senders().size());
    EXPECT_EQ(Frame32("21", "00 00 00 05 01"), Ask(Frame32("20", "01")));
}

TEST_F(UnaskedTest, ComesAgainEveryTimeUntilItIsOff) {
    StartAndConnect();
    const Stopwatch watch;
    On(Unasked(34, milliseconds(50)));
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(Frame32("23"), m_pClient->Receive(kFrameSize));
    EXPECT_GE(watch.Elapsed(), milliseconds(4 * 50));
    Off(FaultKind::Unasked);
    const uint64_t done = m_pSim->GetStatistics().faultsDone;
    EXPECT_GE(done, 5u);
    for (uint64_t i = 5; i < done; ++i)
        ASSERT_EQ(Frame32("23"), m_pClient->Receive(kFrameSize));
    m_pClient->IsAnythingComing(3 * kWhile);
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
    EXPECT_EQ(done, m_pSim->GetStatistics().faultsDone);
}

TEST_F(UnaskedTest, CountIsOfRounds) {
    StartAndConnect();
    const auto second = Connect();
    On(Unasked(34, milliseconds(1), 3));
    for (RawClient* client : {m_pClient.get(), second.get()}) {
        EXPECT_EQ(Frame32("23") + Frame32("23") + Frame32("23"), client->Receive(3 * kFrameSize));
        EXPECT_TRUE(WaitFor([this] { return m_pSim->Faults().empty(); }));
        EXPECT_EQ(Frame32("21"), Ask(*client, Frame32("20", "01"), kFrameSize));
    }
}

TEST_F(UnaskedTest, EveryAnswerGoesThroughThemAll) {
    StartAndConnect();
    On(Unasked(kEveryAnswer, milliseconds(1), 12));
    std::string expected;
    for (const char* code :
         {"11", "13", "15", "17", "19", "1B", "1D", "1F", "21", "23", "11", "13"})
        expected += Frame32(code);
    EXPECT_EQ(expected, m_pClient->Receive(expected.size()));
}

TEST_F(UnaskedTest, WithoutAPauseTheRequestsAreStillServed) {
    StartAndConnect();
    On(Unasked(34, milliseconds(0)));
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
        std::string answer = m_pClient->Receive(kFrameSize);
        while (answer == Frame32("23"))
            answer = m_pClient->Receive(kFrameSize);
        ASSERT_EQ(Frame32("21"), answer);
    }
}

TEST_F(UnaskedTest, NotificationsAreNoAnswers) {
    StartAndConnect();
    EXPECT_FALSE(m_pSim->FaultOn(Unasked(kNotifications, kHour)));
    EXPECT_TRUE(m_pSim->Faults().empty());
}

TEST_F(UnaskedTest, ClientThatComesLaterGetsTheNextRounds) {
    Start();
    On(Unasked(34, milliseconds(20)));
    m_pClient = Connect();
    EXPECT_EQ(Frame32("23") + Frame32("23"), m_pClient->Receive(2 * kFrameSize));
}

// --- Lies about lists ---

class ListLieTest : public FaultFixture {
protected:
    void StartWithSenders(int32_t count) {
        Start();
        for (int32_t key = 1; key <= count; ++key)
            m_pSim->AddSender(MakeSender(key, "Ada"));
        m_pClient = Connect();
    }

    static Fault Count(int records, int command = kEveryAnswer) {
        Fault fault = MakeFault(FaultKind::FalseCount, command);
        fault.records = records;
        return fault;
    }
};

TEST_F(ListLieTest, FalseCountIsOneMoreThanThereAre) {
    StartWithSenders(2);
    On(MakeFault(FaultKind::FalseCount));
    for (const auto& [request, answer] : {std::pair("10", "11"), {"1A", "1B"}, {"1C", "1D"}}) {
        const std::string list = ListOfShort(Frame32(request, "01"), 2);
        EXPECT_EQ(Frame32(answer, "00 03 00"), list.substr(0, kListHeadSize));
        EXPECT_EQ(Hex("00 00 00 01 00 00 00 02"), KeysOf(list));
    }
    ExpectServed();
    EXPECT_EQ("false-count", FaultsOf(0x11));
    EXPECT_EQ("", FaultsOf(0x23));
    EXPECT_EQ(3u, m_pSim->GetStatistics().faultsDone);
}

TEST_F(ListLieTest, FalseCountIsTheOneAskedFor) {
    StartWithSenders(2);
    for (const auto& [records, payload] :
         {std::pair(0, "00 00 00"), {1, "00 01 00"}, {0x0102, "01 02 00"}, {65535, "FF FF 00"}}) {
        On(Count(records));
        EXPECT_EQ(Frame32("11", payload),
                  ListOfShort(Frame32("10", "01"), 2).substr(0, kListHeadSize));
    }
}

TEST_F(ListLieTest, FalseCountOfAnEmptyListIsOne) {
    m_Options.records = RecordSize::Long;
    StartWithSenders(0);
    On(Count(-1, 16));
    EXPECT_EQ(Frame32("11", "00 01 01"), Ask(Frame32("10", "01")));
}

TEST_F(ListLieTest, FalseCountOfAFullListIsOneLess) {
    StartWithSenders(65534);
    On(Count(-1, 16));
    const size_t size = kListHeadSize + 65534 * 64;
    EXPECT_EQ(Frame32("11", "FF FF 00"), Ask(Frame32("10", "01"), size).substr(0, kListHeadSize));
    m_pSim->AddSender(MakeSender(65535));
    m_pClient->Receive(kNotifySize);
    const std::string list = Ask(Frame32("10", "01"), size + 64);
    EXPECT_EQ(Frame32("11", "FF FE 00"), list.substr(0, kListHeadSize));
    EXPECT_EQ(size + 64, list.size());
}

TEST_F(ListLieTest, OpenNameHasNoNulAndTheRestIsRight) {
    StartWithSenders(2);
    On(MakeFault(FaultKind::OpenName));
    const std::string list = ListOfShort(Frame32("10", "01"), 2);
    EXPECT_EQ(Frame32("11", "00 02 00"), list.substr(0, kListHeadSize));
    for (const size_t record : {size_t{0}, size_t{64}}) {
        const size_t at = kListHeadSize + record;
        const std::string key = record == 0 ? "00 00 00 01" : "00 00 00 02";
        EXPECT_EQ(Hex(key) + Zeros(4), list.substr(at, 8));
        const std::string name = list.substr(at + 8, 48);
        EXPECT_EQ(48u, name.size());
        EXPECT_EQ(std::string::npos, name.find('\0'));
        EXPECT_EQ(Hex("00 01 80") + Zeros(5), list.substr(at + 56, 8));
    }
    EXPECT_EQ("open-name", FaultsOf(0x11));
}

TEST_F(ListLieTest, OpenNameIsNotUsedUpByAnEmptyList) {
    StartAndConnect();
    On(MakeFault(FaultKind::OpenName, kEveryAnswer, 1));
    EXPECT_EQ(Frame32("11"), Ask(Frame32("10", "01")));
    EXPECT_EQ("", FaultsOf(0x11));
    EXPECT_EQ(0u, m_pSim->GetStatistics().faultsDone);
    ASSERT_EQ(1u, m_pSim->Faults().size());
    EXPECT_EQ(1u, m_pSim->Faults().at(0).count);
    m_pSim->AddSender(MakeSender(1, "Ada"));
    EXPECT_EQ(kNotifySize, m_pClient->Receive(kNotifySize).size());
    const std::string list = ListOfShort(Frame32("10", "01"), 1);
    EXPECT_EQ(std::string::npos, list.substr(kListHeadSize + 8, 48).find('\0'));
    EXPECT_TRUE(m_pSim->Faults().empty());
}

TEST_F(ListLieTest, OpenNameOfLongRecordsLeavesTheirTypes) {
    m_Options.records = RecordSize::Long;
    Start();
    Sender sender = MakeSender(1, std::string(47, 'x'));
    sender.osType = 0x0102;
    m_pSim->AddSender(sender);
    m_pClient = Connect();
    On(MakeFault(FaultKind::OpenName, 28));
    const std::string list = Ask(Frame32("1C", "01"), kListHeadSize + 128);
    EXPECT_EQ(std::string::npos, list.substr(kListHeadSize + 8, 48).find('\0'));
    EXPECT_EQ(Hex("00 01 80 01 02") + Zeros(67), list.substr(kListHeadSize + 56));
}

TEST_F(ListLieTest, LiesAddUpWithTheWrongCode) {
    StartWithSenders(1);
    On(MakeFault(FaultKind::OpenName, 16));
    On(MakeFault(FaultKind::WrongCode, 16));
    On(Count(7, 16));
    const std::string list = ListOfShort(Frame32("10", "01"), 1);
    EXPECT_EQ(Frame32("13", "00 07 00"), list.substr(0, kListHeadSize));
    EXPECT_EQ(std::string::npos, list.substr(kListHeadSize + 8, 48).find('\0'));
    EXPECT_EQ("false-count, open-name, wrong-code", FaultsOf(0x11));
    EXPECT_EQ(3u, m_pSim->GetStatistics().faultsDone);
}

TEST_F(ListLieTest, LiesDoNotTouchTheStateOrOtherClients) {
    StartWithSenders(1);
    On(MakeFault(FaultKind::OpenName, kEveryFrame, 1));
    ListOfShort(Frame32("10", "01"), 1);
    EXPECT_EQ(Hex("41 64 61") + Zeros(45),
              ListOfShort(Frame32("10", "01"), 1).substr(kListHeadSize + 8, 48));
    EXPECT_EQ("Ada", m_pSim->Senders().at(0).userName);
}

}  // namespace
