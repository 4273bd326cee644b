#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "tests/controller/Screenctl.h"

namespace screenctl_test {
namespace {

using simulator::Fault;
using simulator::FaultKind;
using std::chrono::steady_clock;
using testing::HasSubstr;

using Arguments = std::vector<std::string>;

constexpr int kList = 16;

class WaitTest : public ReceiverFixture {
protected:
    void ServeSender(const std::string& name, uint16_t status = 1) {
        Serve();
        Add(7, name, status);
    }

    void Add(int32_t key, const std::string& name, uint16_t status = 1) {
        simulator::Sender sender = MakeSender(key, name);
        sender.status = status;
        ASSERT_TRUE(m_pReceiver->AddSender(sender));
    }

    Arguments Until(const std::string& condition,
                    const std::string& timeout,
                    const Arguments& more = {}) const {
        Arguments all = {"wait", "--until", condition, "--timeout", timeout};
        all.insert(all.end(), more.begin(), more.end());
        return With(all);
    }

    Ended Wait(const std::string& condition,
               const std::string& timeout,
               const Arguments& more = {}) const {
        return RunScreenctl(Until(condition, timeout, more));
    }

    /// With one look.
    bool HoldsNow(const std::string& condition) const {
        const Ended ended = Wait(condition, "0");
        EXPECT_TRUE(ended.exit == 0 || ended.exit == 4) << ended.exit << " " << ended.err;
        EXPECT_EQ("", ended.out);
        EXPECT_EQ(ended.exit == 0, ended.err.empty()) << ended.err;
        return ended.exit == 0;
    }

    /// Once the program has looked and not found it so, `change` makes it so.
    void ExpectHoldsAfter(const std::string& condition, const std::function<void()>& change) {
        Screenctl program(Until(condition, "600"));
        ASSERT_TRUE(AwaitLooks(2));
        change();
        EXPECT_EQ(0, program.ExitCode());
        EXPECT_EQ("", program.Out() + program.Err());
    }

    /// How often the port was refused, as the trace tells.
    static size_t Refusals(const std::string& trace) {
        size_t refusals = 0;
        for (const std::string& line : Lines(trace))
            refusals += line.find("ErrorCode=-111") == std::string::npos ? 0 : 1;
        return refusals;
    }

    bool AwaitLooks(uint64_t count) const {
        return WaitFor([&] { return m_pReceiver->FramesReceived(kList) >= count; },
                       milliseconds(30000));
    }
};

// What holds

TEST_F(WaitTest, PresentWhenASenderHasTheName) {
    ServeSender("Ada");
    EXPECT_TRUE(HoldsNow("sender Ada present"));
    EXPECT_FALSE(HoldsNow("sender Grace present"));
}

TEST_F(WaitTest, GoneWhenNoSenderHasTheName) {
    ServeSender("Ada");
    EXPECT_TRUE(HoldsNow("sender Grace gone"));
    EXPECT_FALSE(HoldsNow("sender Ada gone"));
}

TEST_F(WaitTest, StatusWhenTheSenderHasIt) {
    ServeSender("Ada", 5);
    EXPECT_TRUE(HoldsNow("sender Ada status=5"));
    EXPECT_FALSE(HoldsNow("sender Ada status=0"));
    EXPECT_FALSE(HoldsNow("sender Ada status=55"));
    EXPECT_FALSE(HoldsNow("sender Grace status=5"));
}

TEST_F(WaitTest, StatusReachesToItsLimits) {
    ServeSender("Ada", 65535);
    Add(8, "Grace", 0);
    EXPECT_TRUE(HoldsNow("sender Ada status=65535"));
    EXPECT_TRUE(HoldsNow("sender Grace status=0"));
}

TEST_F(WaitTest, NameMayHaveBlanks) {
    ServeSender("Ada  Lovelace gone");
    EXPECT_TRUE(HoldsNow("sender Ada  Lovelace gone present"));
    EXPECT_FALSE(HoldsNow("sender Ada Lovelace gone present"));
    EXPECT_TRUE(HoldsNow("sender Ada gone"));
}

TEST_F(WaitTest, NameIsComparedByteForByte) {
    ServeSender("Ad\xff\"a\"");
    EXPECT_TRUE(HoldsNow("sender Ad\xff\"a\" present"));
    EXPECT_FALSE(HoldsNow("sender Ad\xfe\"a\" present"));
    EXPECT_FALSE(HoldsNow("sender ad\xff\"a\" present"));
    EXPECT_FALSE(HoldsNow("sender Ad\xff present"));
    EXPECT_FALSE(HoldsNow("sender  Ad\xff\"a\" present"));
}

TEST_F(WaitTest, OneOfSeveralOfTheNameIsEnough) {
    ServeSender("Ada", 1);
    Add(8, "Ada", 5);
    EXPECT_TRUE(HoldsNow("sender Ada present"));
    EXPECT_TRUE(HoldsNow("sender Ada status=1"));
    EXPECT_TRUE(HoldsNow("sender Ada status=5"));
    EXPECT_FALSE(HoldsNow("sender Ada gone"));
}

TEST_F(WaitTest, GoneWantsAllOfTheName) {
    ServeSender("Ada");
    Add(8, "Ada");
    ASSERT_TRUE(m_pReceiver->RemoveSender(7));
    EXPECT_FALSE(HoldsNow("sender Ada gone"));
    ASSERT_TRUE(m_pReceiver->RemoveSender(8));
    EXPECT_TRUE(HoldsNow("sender Ada gone"));
}

// What changes meanwhile

TEST_F(WaitTest, SenderThatJoinsEndsIt) {
    Serve();
    ExpectHoldsAfter("sender Ada present", [this] { Add(7, "Ada"); });
}

TEST_F(WaitTest, SenderThatLeavesEndsIt) {
    ServeSender("Ada");
    ExpectHoldsAfter("sender Ada gone", [this] { EXPECT_TRUE(m_pReceiver->RemoveSender(7)); });
}

TEST_F(WaitTest, StatusThatChangesEndsIt) {
    ServeSender("Ada", 1);
    ExpectHoldsAfter("sender Ada status=300", [this] {
        EXPECT_TRUE(
            m_pReceiver->ChangeSender(7, [](simulator::Sender& sender) { sender.status = 300; }));
    });
}

TEST_F(WaitTest, ChangeThatIsNotNotifiedEndsIt) {
    Serve();
    Fault fault;
    fault.command = simulator::kNotifications;
    ASSERT_TRUE(m_pReceiver->FaultOn(fault));
    ExpectHoldsAfter("sender Ada present", [this] { Add(7, "Ada"); });
}

TEST_F(WaitTest, NotificationIsLookedAfterAtOnce) {
    constexpr uint64_t kLooks = 60;  // half a minute if it looked every 500 ms only
    Serve();
    const Screenctl program(Until("sender Ada present", "600"));
    ASSERT_TRUE(AwaitLooks(1));
    const auto begin = steady_clock::now();
    for (uint64_t looks = m_pReceiver->FramesReceived(kList); looks < kLooks;
         looks = m_pReceiver->FramesReceived(kList)) {
        m_pReceiver->Notify(100, 0, 0);
        ASSERT_TRUE(AwaitLooks(looks + 1));
    }
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(25));
}

TEST_F(WaitTest, NotificationsInARowAreNotAllLookedAfter) {
    Serve();
    Fault flood;
    flood.kind = FaultKind::Flood;
    ASSERT_TRUE(m_pReceiver->FaultOn(flood));
    EXPECT_EQ(4, Wait("sender Ada present", "2").exit);
    // At most every 50 ms, and a last one.
    EXPECT_LE(m_pReceiver->FramesReceived(kList), 42u);
}

TEST_F(WaitTest, NotificationDuringALookIsLookedAfter) {
    constexpr uint64_t kLooks = 40;  // 20 s if it looked every 500 ms only
    Fault delay;
    delay.kind = FaultKind::Delay;
    delay.command = kList;
    delay.time = milliseconds(20);
    simulator::Observer observer;
    observer.frame = [this](const simulator::Frame& frame) {
        if (frame.incoming)
            m_pReceiver->Notify(100, 0, 0);
    };
    m_pReceiver = std::make_unique<simulator::ReceiverSimulator>(m_Options, observer);
    ASSERT_TRUE(m_pReceiver->FaultOn(delay));
    Start();
    const Screenctl program(Until("sender Ada present", "600"));
    ASSERT_TRUE(AwaitLooks(1));
    const auto begin = steady_clock::now();
    ASSERT_TRUE(AwaitLooks(kLooks));
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(18));
}

// The end of the time

TEST_F(WaitTest, TimeThatIsOverIsTimeOut) {
    ServeSender("Ada", 5);
    const auto begin = steady_clock::now();
    const Ended ended = Wait("sender Ada status=6", "1.2");
    EXPECT_GE(steady_clock::now() - begin, milliseconds(1200));
    EXPECT_EQ(4, ended.exit);
    EXPECT_EQ("", ended.out);
    EXPECT_EQ(1u, Lines(ended.err).size());
    EXPECT_THAT(ended.err, HasSubstr("After 1.2 s sender \"Ada\" is there with status 5,"));
    EXPECT_GE(m_pReceiver->FramesReceived(kList), 2u);
}

TEST_F(WaitTest, LastStateIsTold) {
    ServeSender("Ada", 5);
    Add(8, "Ada", 1);
    EXPECT_THAT(Wait("sender Ada gone", "0").err, HasSubstr("is there with status 5 and 1,"));
    EXPECT_THAT(Wait("sender a\x1b present", "0").err, HasSubstr("no sender \"a\\x1B\""));
}

TEST_F(WaitTest, TimeOfZeroLooksOnce) {
    Serve();
    EXPECT_EQ(4, Wait("sender Ada present", "0").exit);
    EXPECT_EQ(1u, m_pReceiver->FramesReceived(kList));
}

TEST_F(WaitTest, TimeThatIsOverHasALastLook) {
    Serve();
    EXPECT_EQ(4, Wait("sender Ada present", "0.4").exit);
    EXPECT_EQ(2u, m_pReceiver->FramesReceived(kList));
}

// Both at the same time, for a look takes ten seconds.
TEST_F(WaitTest, ReceiverThatDoesNotAnswerIsTimeOutWithoutAnotherLook) {
    Serve();
    ASSERT_TRUE(m_pReceiver->FaultOn(Fault()));
    Screenctl once(Until("sender Ada present", "0"));
    Screenctl longer(Until("sender Ada present", "1"));
    for (Screenctl* program : {&once, &longer}) {
        EXPECT_EQ(4, program->ExitCode());
        EXPECT_THAT(program->Err(), HasSubstr("[-6528101: "));
    }
    EXPECT_EQ(2u, m_pReceiver->GetStatistics().clients);
    EXPECT_EQ(2u, m_pReceiver->FramesReceived(kList));
}

// The link

TEST_F(WaitTest, RefusedPortIsToldAtOnce) {
    const auto begin = steady_clock::now();
    const Ended ended = Wait("sender Ada gone", "600");
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(60));
    EXPECT_EQ(3, ended.exit);
    EXPECT_THAT(ended.err, HasSubstr("[-111: Connection refused]"));
}

TEST_F(WaitTest, ReceiverThatStartsLaterIsWaitedForByOption) {
    Screenctl program(Until("sender Ada gone", "0", {"--wait", "100"}));
    Serve();
    EXPECT_EQ(0, program.ExitCode());
}

TEST_F(WaitTest, TimeCountsFromTheConnection) {
    m_pReceiver = std::make_unique<simulator::ReceiverSimulator>(m_Options);
    Add(7, "Ada");
    Screenctl program(Until("sender Ada present", "600",
                            {"--json", "--wait", "600", "--trace", "-", "--trace-level", "300"}));
    // The sixth try comes after 3.1 s, or later.
    ASSERT_TRUE(WaitFor([&] { return Refusals(program.Err()) >= 6; }, milliseconds(30000)));
    const auto begin = steady_clock::now();
    Start();
    EXPECT_EQ(0, program.ExitCode());
    const std::chrono::duration<double> sinceStart = steady_clock::now() - begin;
    // It is printed in whole milliseconds.
    EXPECT_LE(Parse(program.Out())["waited_s"].get<double>(), sinceStart.count() + 0.001);
}

TEST_F(WaitTest, LateAnswerIsNotTakenForTheNextOne) {
    const std::string request =
        sr_test::Hex("52 65 63 76 49 50 43 10") + sr_test::Padded(sr_test::Hex("01"), 32);
    sr_test::ScriptedPeer peer(Host());
    Screenctl program(Until("sender Ada gone", "600"));
    ASSERT_TRUE(peer.Accept());
    EXPECT_EQ(request, peer.Receive(40));
    ASSERT_TRUE(peer.ClientClosed(milliseconds(60000)));
    ASSERT_TRUE(peer.Accept());
    EXPECT_EQ(request, peer.Receive(40));
    peer.Send(sr_test::Hex("52 65 63 76 49 50 43 11") + sr_test::Padded("", 32));
    EXPECT_EQ(0, program.ExitCode());
}

TEST_F(WaitTest, ReceiverMayRestart) {
    Serve();
    ExpectHoldsAfter("sender Ada present", [this] {
        m_pReceiver->Stop();
        Add(7, "Ada");
        const std::error_code error = m_pReceiver->Start();
        ASSERT_FALSE(error) << error.message();
    });
    EXPECT_EQ(2u, m_pReceiver->GetStatistics().clients);
}

TEST_F(WaitTest, LinkThatBreaksIsMadeAgain) {
    Serve();
    ExpectHoldsAfter("sender Ada present", [this] {
        m_pReceiver->DropClients();
        EXPECT_TRUE(WaitFor([this] { return m_pReceiver->GetStatistics().clients == 2; },
                            milliseconds(30000)));
        Add(7, "Ada");
    });
}

TEST_F(WaitTest, ReceiverThatStaysAwayIsNoConnectionWhenTheTimeIsOver) {
    Serve();
    const auto begin = steady_clock::now();
    Screenctl program(Until("sender Ada present", "4"));
    ASSERT_TRUE(AwaitLooks(1));
    m_pReceiver->Stop();
    EXPECT_EQ(3, program.ExitCode());
    EXPECT_GE(steady_clock::now() - begin, std::chrono::seconds(4));
    EXPECT_EQ("", program.Out());
    EXPECT_THAT(program.Err(), HasSubstr("[-111: Connection refused]"));
}

TEST_F(WaitTest, ReceiverThatIsAwayIsNotAskedWithoutPause) {
    Serve();
    Screenctl program(Until("sender Ada present", "3", {"--trace", "-", "--trace-level", "300"}));
    ASSERT_TRUE(AwaitLooks(1));
    m_pReceiver->Stop();
    EXPECT_EQ(3, program.ExitCode());
    EXPECT_GE(Refusals(program.Err()), 1u);
    EXPECT_LE(Refusals(program.Err()), 8u);  // at most every 500 ms, and a last one
}

TEST_F(WaitTest, ReceiverThatClosesEveryConnectionIsNotAskedWithoutPause) {
    Serve();
    Screenctl program(Until("sender Ada present", "3"));
    ASSERT_TRUE(AwaitLooks(1));
    Fault fault;
    fault.kind = FaultKind::CloseOnAccept;
    ASSERT_TRUE(m_pReceiver->FaultOn(fault));
    m_pReceiver->DropClients();
    EXPECT_EQ(3, program.ExitCode());
    EXPECT_GE(m_pReceiver->GetStatistics().clients, 2u);
    EXPECT_LE(m_pReceiver->GetStatistics().clients, 9u);  // the first, and at most 8 as above
}

// Usage

TEST_F(WaitTest, OutcomeAsJson) {
    ServeSender("Ada");
    const Ended ended = Wait("sender Ada present", "0", {"--json"});
    EXPECT_EQ(0, ended.exit);
    const ordered_json line = Parse(ended.out);
    EXPECT_EQ("version until held waited_s ", KeysOf(line));
    EXPECT_EQ(1, line["version"]);
    EXPECT_EQ("sender Ada present", line["until"]);
    EXPECT_EQ(true, line["held"]);
    EXPECT_GE(line["waited_s"].get<double>(), 0.0);
    EXPECT_LT(line["waited_s"].get<double>(), 60.0);
}

TEST_F(WaitTest, TimeThatIsOverAsJson) {
    Serve();
    const Ended ended = Wait("sender Ada present", "0.7", {"--json"});
    EXPECT_EQ(4, ended.exit);
    const ordered_json line = Parse(ended.out);
    EXPECT_EQ("version until held waited_s ", KeysOf(line));
    EXPECT_EQ(false, line["held"]);
    EXPECT_GE(line["waited_s"].get<double>(), 0.7);
    const ordered_json error = Parse(ended.err)["error"];
    EXPECT_EQ(4, error["exit"]);
    EXPECT_THAT(error["sentence"].get<std::string>(), HasSubstr("no sender \"Ada\""));
}

class WrongConditionTest : public WaitTest, public testing::WithParamInterface<const char*> {};

TEST_P(WrongConditionTest, IsToldWithWhatWasExpected) {
    const Ended ended = Wait(GetParam(), "0");
    EXPECT_EQ(2, ended.exit);
    EXPECT_EQ("", ended.out);
    EXPECT_EQ(1u, Lines(ended.err).size()) << ended.err;
    EXPECT_THAT(ended.err, HasSubstr("expected 'sender NAME present', 'sender NAME gone' or "
                                     "'sender NAME status=N' with N from 0 to 65535"));
}

INSTANTIATE_TEST_SUITE_P(All,
                         WrongConditionTest,
                         testing::Values("",
                                         "sender",
                                         "sender ",
                                         "sender present",
                                         "sender  present",
                                         "sender Ada",
                                         "sender Ada ",
                                         "sender Ada present ",
                                         "sender Ada Present",
                                         "sender Ada here",
                                         "sender Ada status",
                                         "sender Ada status=",
                                         "sender Ada status=x",
                                         "sender Ada status=-1",
                                         "sender Ada status=1.5",
                                         "sender Ada status=65536",
                                         "sender Ada status= 1",
                                         "sender Ada status=1x",
                                         "Sender Ada present",
                                         " sender Ada present",
                                         "senders Ada present",
                                         "moderator 7"));

class WrongWaitTest : public WaitTest, public testing::WithParamInterface<Arguments> {};

TEST_P(WrongWaitTest, IsWrongUsage) {
    const Ended ended = Run(GetParam());
    EXPECT_EQ(2, ended.exit);
    EXPECT_EQ(1u, Lines(ended.err).size()) << ended.err;
}

INSTANTIATE_TEST_SUITE_P(
    All,
    WrongWaitTest,
    testing::Values(Arguments{"wait"},
                    Arguments{"wait", "--until"},
                    Arguments{"wait", "sender Ada present"},
                    Arguments{"wait", "--until", "sender Ada gone", "--timeout", "-1"},
                    Arguments{"wait", "--until", "sender Ada gone", "--timeout", "nan"},
                    Arguments{"wait", "--until", "sender Ada gone", "--timeout", "soon"}));

TEST_F(WaitTest, HelpTellsTheExitCodes) {
    const std::string help = RunScreenctl({"wait", "--help"}).out;
    for (const char* part : {"0 the condition", "2 it is no", "3 there is no", "4 the time is"})
        EXPECT_THAT(help, HasSubstr(part));
}

}  // namespace
}  // namespace screenctl_test
