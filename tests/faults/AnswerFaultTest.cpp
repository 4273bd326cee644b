#include <atomic>
#include <climits>

#include "tests/faults/FaultFixture.h"

// Answers that come late, twice, unasked, under another command's code or not at all.

namespace sr_test {
namespace {

/// A call on a thread of its own.
class Caller {
public:
    explicit Caller(const std::function<int()>& call)
        : m_Thread([this, call] { m_Result = call(); }) {}
    ~Caller() { Join(); }
    int Join() {
        if (m_Thread.joinable())
            m_Thread.join();
        return m_Result;
    }

private:
    std::atomic<int> m_Result{INT_MIN};
    std::thread m_Thread;
};

class AnswerFaultTest : public FaultFixture {
protected:
    /// Returns once the request has come to the receiver.
    void WaitForRequests(int code, uint64_t count = 1) {
        ASSERT_TRUE(WaitFor(
            [=] { return m_pReceiver->FramesReceived(static_cast<uint8_t>(code)) >= count; }));
    }

    Data m_Data;
};

class EachAnswerFaultTest : public CommandFaultFixture {};

INSTANTIATE_TEST_SUITE_P(Commands, EachAnswerFaultTest, testing::ValuesIn(AllCommands()), NameOf);

TEST_P(EachAnswerFaultTest, WithoutFaultIsRight) {
    ExpectRight(GetParam(), m_Client.stub);
    ExpectRight(GetParam(), m_Client.stub);
    EXPECT_EQ(0, m_Client.Skipped());
}

TEST_F(AnswerFaultTest, SilenceTimesOutAndTheConnectionStays) {
    FaultOnEach(AllCommands(), MakeFault(FaultKind::Silent, 0));
    AtOnce(AllCommands(), [](const Command& command, Client& client) {
        Data data;
        const Stopwatch watch;
        EXPECT_EQ(kNoAnswer, command.call(client.stub, data)) << command;
        EXPECT_GE(watch.Elapsed() + kClockStep, seconds(10)) << command;
        EXPECT_LT(watch.Elapsed(), Stretched(seconds(25))) << command;
        EXPECT_EQ(kNoAnswer, client.stub.GetErrorCode()) << command;
        EXPECT_EQ(std::string(command.name) +
                      " command failed to receive response packet within 10 seconds."
                      " [ProtocolBase.cpp:302]",
                  client.stub.GetErrorMessage());
        ExpectUntouched(command, data);
        EXPECT_TRUE(client.stub.IsConnected()) << command;
        ExpectRight(command, client.stub);
        EXPECT_EQ(0, client.log.Count(kLogDebug, "NetworkThread end")) << command;
    });
}

TEST_F(AnswerFaultTest, SilentRequestHasHadItsEffect) {
    m_Client.stub.SetScrRcvNotifyCB(Events::Record);
    FaultOn(MakeFault(FaultKind::Silent, kStartPlayImage));
    EXPECT_EQ(kNoAnswer, m_Client.stub.StartPlayImage(1, 9));
    EXPECT_EQ(9, m_pReceiver->ShownOption(1));
    // Told by the notification all the same: show started.
    EXPECT_EQ((std::vector<Event>{{4, 1, 9}}), Events::All());
}

TEST_F(AnswerFaultTest, AnotherThreadsRequestWaitsForTheSilentOne) {
    FaultOn(MakeFault(FaultKind::Silent, kGetModeratorInfo));
    const Stopwatch watch;
    Caller silent([this] { return m_Client.stub.GetModeratorInfo(m_Data.info); });
    WaitForRequests(kGetModeratorInfo);
    EXPECT_EQ(0, m_Client.stub.QuitConfCtrl());
    EXPECT_GE(watch.Elapsed() + kClockStep, seconds(10));
    EXPECT_EQ(kNoAnswer, silent.Join());
}

TEST_P(EachAnswerFaultTest, DelayedAnswerIsTaken) {
    FaultOn(Delay(GetParam().code, milliseconds(300)));
    const Stopwatch watch;
    ExpectRight(GetParam(), m_Client.stub);
    EXPECT_GE(watch.Elapsed(), milliseconds(300));
    ExpectRight(GetParam(), m_Client.stub);
    EXPECT_EQ(0, m_Client.Skipped());
}

TEST_F(AnswerFaultTest, NotificationOvertakesADelayedAnswer) {
    m_Client.stub.SetScrRcvNotifyCB(Events::Record);
    FaultOn(Delay(kStartPlayImage, milliseconds(1500)));
    EXPECT_EQ(0, m_Client.stub.StartPlayImage(1, 9));
    EXPECT_LT(m_Client.FirstLine("<== NetworkThread got event 0x24"),
              m_Client.FirstLine("<== NetworkThread got response 0x13"));
    EXPECT_TRUE(Events::WaitForCount(1));
    EXPECT_EQ((std::vector<Event>{{4, 1, 9}}), Events::All());
}

TEST_F(AnswerFaultTest, LateAnswerIsDroppedWhenNobodyWaits) {
    FaultOnEach(AllCommands(), Delay(0, seconds(12)));
    AtOnce(AllCommands(), [](const Command& command, Client& client) {
        Data data;
        EXPECT_EQ(kNoAnswer, command.call(client.stub, data)) << command;
        EXPECT_TRUE(client.WaitForExceptional(command.code + 1)) << command;
        ExpectUntouched(command, data);
        ExpectRight(command, client.stub);
        EXPECT_EQ(command.PayloadSize(), client.Skipped()) << command;
    });
}

TEST_F(AnswerFaultTest, LateAnswerEndsTheNextRequestOfItsCommandWithOldData) {
    FaultOn(Delay(kGetModeratorInfo, seconds(13)));
    EXPECT_EQ(kNoAnswer, m_Client.stub.GetModeratorInfo(m_Data.info));
    ExpectInfo(77, 77, m_Data);
    m_pReceiver->SetModerator({512, 6});
    FaultOn(MakeFault(FaultKind::Silent, kGetModeratorInfo));
    EXPECT_EQ(0, m_Client.stub.GetModeratorInfo(m_Data.info));
    ExpectInfo(256, 5, m_Data);
    EXPECT_EQ(0, m_Client.stub.GetErrorCode());
    EXPECT_EQ(0, m_Client.stub.GetModeratorInfo(m_Data.info));
    ExpectInfo(512, 6, m_Data);
}

TEST_F(AnswerFaultTest, InitKeepsALateAnswerAway) {
    FaultOn(Delay(kGetModeratorInfo, seconds(13)));
    EXPECT_EQ(kNoAnswer, m_Client.stub.GetModeratorInfo(m_Data.info));
    m_pReceiver->SetModerator({512, 6});
    EXPECT_EQ(0, m_Client.stub.Init(Host(), false));
    FaultOn(Delay(kGetModeratorInfo, seconds(5)));
    EXPECT_EQ(0, m_Client.stub.GetModeratorInfo(m_Data.info));
    ExpectInfo(512, 6, m_Data);
    EXPECT_EQ(0, m_Client.Skipped());
}

TEST_F(AnswerFaultTest, AnswerThatHasBegunWhenTheTimeIsUpIsTaken) {
    FaultOnEach(AllCommands(), Delay(0, seconds(8)));
    FaultOnEach(AllCommands(), Stall(0, 20, seconds(4)));
    AtOnce(AllCommands(), [](const Command& command, Client& client) {
        const Stopwatch watch;
        ExpectRight(command, client.stub);
        EXPECT_GE(watch.Elapsed(), seconds(12)) << command;
        EXPECT_EQ(0, client.Skipped()) << command;
    });
}

TEST_F(AnswerFaultTest, ListThatTakesTooLongAfterTheTimeIsUpEndsTheConnection) {
    FaultOn(Delay(kGetSenderList, seconds(8)));
    FaultOn(Trickle(kGetSenderList, kRecordSize / 2, seconds(2)));
    const Stopwatch watch;
    EXPECT_EQ(kNoAnswer, m_Client.stub.GetSenderList(m_Data.list));
    EXPECT_GE(watch.Elapsed() + kClockStep, seconds(15));
    EXPECT_LT(watch.Elapsed(), Stretched(seconds(25)));
    ExpectInitHelps(CommandOf(kGetSenderList), m_Client);
}

TEST_F(AnswerFaultTest, AnswerWithAnotherCodeIsThrownAwayByteByByte) {
    FaultOnEach(AllCommands(), MakeFault(FaultKind::WrongCode, 0));
    AtOnce(AllCommands(), [](const Command& command, Client& client) {
        Data data;
        EXPECT_EQ(kNoAnswer, command.call(client.stub, data)) << command;
        EXPECT_EQ(1, client.log.Count(kLogNotice, Client::ExceptionalLine(command.code + 3)))
            << command;
        ExpectUntouched(command, data);
        EXPECT_TRUE(client.stub.IsConnected()) << command;
        ExpectRight(command, client.stub);
        EXPECT_EQ(command.PayloadSize(), client.Skipped()) << command;
    });
}

TEST_F(AnswerFaultTest, AnswerUnderTheNotificationsCodeIsANotification) {
    m_Client.stub.SetScrRcvNotifyCB(Events::Record);
    FaultOn(WrongCode(kGetModeratorInfo, kNotifications));
    EXPECT_EQ(kNoAnswer, m_Client.stub.GetModeratorInfo(m_Data.info));
    ExpectInfo(77, 77, m_Data);
    // 12 of the 32 bytes: 00000100 05000000 00000000.
    EXPECT_EQ((std::vector<Event>{{256, 0x05000000, 0}}), Events::All());
    ExpectRight(CommandOf(kGetModeratorInfo), m_Client.stub);
    EXPECT_EQ(20, m_Client.Skipped());
}

TEST_F(AnswerFaultTest, CodeZeroIsNoAnswerWhileARequestWaits) {
    FaultOn(WrongCode(kGetModeratorInfo, 0));
    EXPECT_EQ(kNoAnswer, m_Client.stub.GetModeratorInfo(m_Data.info));
    EXPECT_TRUE(
        m_Client.log.WaitForLines(kLogNotice, "<== NetworkThread got exceptional event 0x00"));
    ExpectRight(CommandOf(kGetModeratorInfo), m_Client.stub);
    EXPECT_EQ(32, m_Client.Skipped());
}

TEST_F(AnswerFaultTest, NotificationUnderTheAwaitedCodeIsTheAnswer) {
    FaultOn(MakeFault(FaultKind::Silent, kGetModeratorInfo));
    FaultOn(WrongCode(kNotifications, kGetModeratorInfo + 1));
    Caller caller([this] { return m_Client.stub.GetModeratorInfo(m_Data.info); });
    WaitForRequests(kGetModeratorInfo);
    m_pReceiver->Notify(0x00000200, 0x06000000, 0);
    // 12 bytes of 32: the rest is not there within the time of one read, and counts as zero.
    EXPECT_EQ(0, caller.Join());
    ExpectInfo(512, 6, m_Data);
    EXPECT_TRUE(m_Client.stub.IsConnected());
    ExpectRight(CommandOf(kGetModeratorInfo), m_Client.stub);
}

TEST_P(EachAnswerFaultTest, SecondAnswerIsDropped) {
    const Command& command = GetParam();
    FaultOn(MakeFault(FaultKind::Twice, command.code));
    ExpectRight(command, m_Client.stub);
    EXPECT_TRUE(m_Client.WaitForExceptional(command.code + 1));
    ExpectRight(command, m_Client.stub);
    EXPECT_EQ(command.PayloadSize(), m_Client.Skipped());
    EXPECT_EQ(1, m_Client.log.Count(kLogNotice, "<== NetworkThread got exceptional event"));
}

TEST_P(EachAnswerFaultTest, UnaskedAnswerIsDropped) {
    const Command& command = GetParam();
    Fault unasked = MakeFault(FaultKind::Unasked, command.code, 3);
    unasked.time = milliseconds(20);
    FaultOn(unasked);
    EXPECT_TRUE(m_Client.WaitForExceptional(command.code + 1, 3));
    EXPECT_TRUE(m_Client.stub.IsConnected());
    EXPECT_EQ(0, m_Client.stub.GetErrorCode());
    ExpectRight(command, m_Client.stub);
    EXPECT_EQ(3 * command.PayloadSize(), m_Client.Skipped());
}

TEST_F(AnswerFaultTest, UnaskedAnswerEndsTheRequestThatWaits) {
    FaultOn(MakeFault(FaultKind::Silent, kGetModeratorInfo));
    Caller caller([this] { return m_Client.stub.GetModeratorInfo(m_Data.info); });
    WaitForRequests(kGetModeratorInfo);
    FaultOn(MakeFault(FaultKind::Unasked, kGetModeratorInfo));
    EXPECT_EQ(0, caller.Join());
    ExpectInfo(256, 5, m_Data);
    EXPECT_EQ(0, m_Client.Skipped());
}

TEST_F(AnswerFaultTest, UnaskedAnswerOfAnotherCommandDoesNotEndTheRequestThatWaits) {
    FaultOn(Delay(kGetModeratorInfo, seconds(1)));
    Caller caller([this] { return m_Client.stub.GetModeratorInfo(m_Data.info); });
    WaitForRequests(kGetModeratorInfo);
    FaultOn(MakeFault(FaultKind::Unasked, kGetSenderList));
    EXPECT_EQ(0, caller.Join());
    EXPECT_LT(m_Client.FirstLine(Client::ExceptionalLine(kGetSenderList + 1)),
              m_Client.FirstLine("<== NetworkThread got response 0x21"));
    ExpectInfo(256, 5, m_Data);
    EXPECT_EQ(CommandOf(kGetSenderList).PayloadSize(), m_Client.Skipped());
}

}  // namespace
}  // namespace sr_test
