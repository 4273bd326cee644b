#include <cerrno>

#include "tests/stub/StubFixture.h"

namespace sr_test {
namespace {

// Every command on a stub of its own, all at once, so that a fixed time-out is waited for once.
struct Outcome {
    int result = 0;
    int code = 0;
    std::string message;
    milliseconds elapsed{0};
};

std::vector<Outcome> CallSideBySide(const std::vector<Command>& commands,
                                    const std::vector<OpenStub*>& stubs) {
    std::vector<Outcome> outcomes(commands.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < commands.size(); ++i) {
        threads.emplace_back([&, i] {
            const Stopwatch watch;
            outcomes[i].result = commands[i].call(*stubs[i]);
            outcomes[i].elapsed = watch.Elapsed();
            outcomes[i].code = stubs[i]->GetErrorCode();
            outcomes[i].message = stubs[i]->GetErrorMessage();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    return outcomes;
}

class CommandTest : public StubTest, public testing::WithParamInterface<Command> {
protected:
    void ExpectAnswered(const std::function<void(const std::string&)>& send) {
        const Command& command = GetParam();
        EXPECT_EQ(command.result, CallWhile([&] { return command.call(m_Stub); },
                                            [&] {
                                                EXPECT_EQ(Frame(command.request),
                                                          m_Peer.Receive(kFrameSize));
                                                send(Frame(command.answer));
                                            }));
        EXPECT_EQ(command.result, m_Stub.GetErrorCode());
    }
};

TEST_P(CommandTest, SendsItsFrameAndNothingElse) {
    Connect();
    EXPECT_EQ(GetParam().result, CallAnswered(GetParam(), Frame(GetParam().answer)));
    EXPECT_EQ("", m_Peer.ReceiveAllWithin(milliseconds(50)));
}

TEST_P(CommandTest, WaitsTenSecondsUnderItsOwnName) {
    Connect();
    CallAnswered(GetParam(), Frame(GetParam().answer));
    EXPECT_EQ(1, m_Log.Count(kLogInfo, GetParam().logged));
}

TEST_P(CommandTest, TakesItsAnswerWhole) {
    Connect();
    ExpectAnswered([this](const std::string& answer) { m_Peer.Send(answer); });
}

TEST_P(CommandTest, TakesItsAnswerSplitAtEveryOffset) {
    Connect();
    for (size_t offset = 1; offset < kFrameSize; ++offset) {
        SCOPED_TRACE(offset);
        ExpectAnswered([&](const std::string& answer) { m_Peer.SendSplitAt(answer, {offset}); });
    }
}

TEST_P(CommandTest, TakesItsAnswerByteByByte) {
    Connect();
    ExpectAnswered([this](const std::string& answer) { m_Peer.SendByteByByte(answer); });
}

TEST_P(CommandTest, LeavesWhatFollowsItsAnswerInTheStream) {
    Connect();
    // The next frame in the same segment is a notification, which the log shows once it was read.
    ExpectAnswered([this](const std::string& answer) {
        m_Peer.Send(answer + Hex("52 65 63 76 49 50 43 24 00 00 00 01 00 00 00 02 00 00 00 03"));
    });
    EXPECT_TRUE(m_Log.WaitForLines(kLogInfo, "<== NetworkThread got event 0x24, len=12 "));
    EXPECT_EQ(0, m_Log.Count(kLogNotice, "NetworkThread unknown prefix data"));
    ExpectAlive();
}

TEST_P(CommandTest, IgnoresReservedBytesOfItsAnswer) {
    Connect();
    const size_t used =
        GetParam().answer == std::string("52 65 63 76 49 50 43 21 00 00 01 00 05") ? 13 : 12;
    std::string answer = Frame(GetParam().answer);
    for (size_t i = used; i < answer.size(); ++i)
        answer[i] = '\xA5';
    EXPECT_EQ(GetParam().result, CallAnswered(GetParam(), answer));
    ExpectAlive();
}

TEST_P(CommandTest, ReceiverClosedInMidAnswerIsThePeersClose) {
    Connect();
    EXPECT_EQ(-6528002, CallWhile([this] { return GetParam().call(m_Stub); },
                                  [this] {
                                      EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
                                      m_Peer.Send(Frame(GetParam().answer).substr(0, 20));
                                      m_Peer.Close();
                                  }));
    EXPECT_EQ(-6528002, m_Stub.GetErrorCode());
    EXPECT_STREQ("The connection has been gracefully closed. [ProtocolBase.cpp:498]",
                 m_Stub.GetErrorMessage());
    EXPECT_TRUE(WaitFor([this] { return !m_Stub.IsConnected(); }));
}

TEST_P(CommandTest, ReceiverClosedBeforeTheAnswerIsThePeersClose) {
    Connect();
    EXPECT_EQ(-6528002, CallWhile([this] { return GetParam().call(m_Stub); },
                                  [this] {
                                      EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
                                      m_Peer.Close();
                                  }));
    EXPECT_EQ(-6528002, m_Stub.GetErrorCode());
}

TEST_P(CommandTest, ConnectionResetIsTheSystemsError) {
    Connect();
    EXPECT_EQ(-ECONNRESET, CallWhile([this] { return GetParam().call(m_Stub); },
                                     [this] {
                                         EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
                                         m_Peer.Reset();
                                     }));
    EXPECT_EQ(-ECONNRESET, m_Stub.GetErrorCode());
}

TEST_P(CommandTest, TeardownWhileItWaitsCancelsIt) {
    Connect();
    EXPECT_EQ(-6528101, CallWhile([this] { return GetParam().call(m_Stub); },
                                  [this] {
                                      EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
                                      m_Stub.CloseConnect();
                                  }));
    EXPECT_EQ(-6528101, m_Stub.GetErrorCode());
    EXPECT_STREQ(
        "Cancel command failed to receive response packet within ? seconds. [ProtocolBase.cpp:273]",
        m_Stub.GetErrorMessage());
}

INSTANTIATE_TEST_SUITE_P(All, CommandTest, testing::ValuesIn(AllCommands()), NameOf);

TEST(CommandTimeoutTest, EveryCommandGivesUpAfterTenSecondsOfSilence) {
    const std::vector<Command> commands = AllCommands();
    std::vector<std::unique_ptr<ScriptedPeer>> peers;
    std::vector<std::unique_ptr<OpenStub>> stubs;
    std::vector<OpenStub*> pointers;
    for (size_t i = 0; i < commands.size(); ++i) {
        peers.emplace_back(new ScriptedPeer);
        stubs.emplace_back(new OpenStub);
        pointers.push_back(stubs.back().get());
        ASSERT_EQ(0, stubs[i]->Init(peers[i]->Host(), false));
        ASSERT_TRUE(peers[i]->Accept());
    }
    const std::vector<Outcome> outcomes = CallSideBySide(commands, pointers);
    for (size_t i = 0; i < commands.size(); ++i) {
        SCOPED_TRACE(commands[i].name);
        EXPECT_EQ(-6528101, outcomes[i].result);
        EXPECT_EQ(-6528101, outcomes[i].code);
        EXPECT_EQ(std::string(commands[i].name) +
                      " command failed to receive response packet within 10 seconds."
                      " [ProtocolBase.cpp:302]",
                  outcomes[i].message);
        EXPECT_GE(outcomes[i].elapsed, milliseconds(9900));
        EXPECT_LT(outcomes[i].elapsed, seconds(15));
        // A silent receiver may still be alive: the connection is kept.
        EXPECT_TRUE(stubs[i]->IsConnected());
    }
}

TEST(CommandTimeoutTest, EveryUnconnectedCommandIsCancelledAfterFiveSeconds) {
    const std::vector<Command> commands = AllCommands();
    std::vector<std::unique_ptr<OpenStub>> stubs;
    std::vector<OpenStub*> pointers;
    for (size_t i = 0; i < commands.size(); ++i) {
        stubs.emplace_back(new OpenStub);
        pointers.push_back(stubs.back().get());
    }
    const std::vector<Outcome> outcomes = CallSideBySide(commands, pointers);
    for (size_t i = 0; i < commands.size(); ++i) {
        SCOPED_TRACE(commands[i].name);
        EXPECT_EQ(-6528101, outcomes[i].result);
        EXPECT_EQ(-6528101, outcomes[i].code);
        EXPECT_EQ(
            "Cancel command failed to receive response packet within ? seconds."
            " [ProtocolBase.cpp:273]",
            outcomes[i].message);
        EXPECT_EQ("Cancel", stubs[i]->m_strErrArg1);
        EXPECT_EQ("?", stubs[i]->m_strErrArg2);
        EXPECT_GE(outcomes[i].elapsed, milliseconds(4900));
        EXPECT_LT(outcomes[i].elapsed, seconds(9));
    }
}

TEST(CommandTimeoutTest, EveryUnconnectedCommandKeepsTheErrorAlreadyRecorded) {
    const std::vector<Command> commands = AllCommands();
    std::vector<std::unique_ptr<OpenStub>> stubs;
    std::vector<OpenStub*> pointers;
    for (size_t i = 0; i < commands.size(); ++i) {
        stubs.emplace_back(new OpenStub);
        stubs.back()->SetErrorAt(-6528002, "", "", "earlier/Place.cpp", 17);
        pointers.push_back(stubs.back().get());
    }
    const std::vector<Outcome> outcomes = CallSideBySide(commands, pointers);
    for (size_t i = 0; i < commands.size(); ++i) {
        SCOPED_TRACE(commands[i].name);
        EXPECT_EQ(-6528002, outcomes[i].result);
        EXPECT_EQ(-6528002, outcomes[i].code);
        EXPECT_EQ("The connection has been gracefully closed. [Place.cpp:17]", outcomes[i].message);
        EXPECT_GE(outcomes[i].elapsed, milliseconds(4900));
        EXPECT_LT(outcomes[i].elapsed, seconds(9));
    }
}

class LateAnswerTest : public StubTest {};

TEST_F(LateAnswerTest, LateAnswerEndsTheNextRequestOfTheSameCommandOnly) {
    Connect();
    EXPECT_EQ(-6528101, m_Stub.StopPlayImage(1));
    EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());

    // Only the command byte ties an answer to its request.
    EXPECT_EQ(7, CallAnswered([this] { return m_Stub.StopPlayImage(2); },
                              Frame("52 65 63 76 49 50 43 15 00 00 00 07")));

    // The second request's own answer is late now: another command is not ended by it.
    EXPECT_EQ(42, CallWhile([this] { return m_Stub.ForceSenderLogout(3); },
                            [this] {
                                EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
                                m_Peer.Send(Frame("52 65 63 76 49 50 43 15 00 00 00 08"));
                                m_Peer.Send(Frame("52 65 63 76 49 50 43 1f 00 00 00 2a"));
                            }));
    EXPECT_EQ(1, m_Log.Count(kLogNotice, "<== NetworkThread got exceptional event 0x15 "));
    EXPECT_EQ(32, m_Log.Count(kLogNotice, "NetworkThread unknown prefix data "));
}

}  // namespace
}  // namespace sr_test
