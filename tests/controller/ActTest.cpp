#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>

#include "tests/controller/Screenctl.h"

namespace screenctl_test {
namespace {

constexpr int kRefresh = 22;
constexpr int kQuit = 24;

class ActTest : public ReceiverFixture {
protected:
    void ServeOne() {
        Serve();
        ASSERT_TRUE(m_pReceiver->AddSender(MakeSender(7, "Ada")));
    }

    void ExpectDone(const std::vector<std::string>& arguments, const std::string& printed = "") {
        const Ended ended = Run(arguments);
        EXPECT_EQ(0, ended.exit);
        EXPECT_EQ(printed, ended.out);
        EXPECT_EQ("", ended.err);
    }

    void ExpectModerator(int32_t id, int flag) const {
        EXPECT_EQ(id, m_pReceiver->GetModerator().id);
        EXPECT_EQ(flag, m_pReceiver->GetModerator().flag);
    }
};

TEST_F(ActTest, PlayShowsTheSender) {
    ServeOne();
    ExpectDone({"play", "7"});
    EXPECT_EQ(0, m_pReceiver->ShownOption(7));
}

TEST_F(ActTest, PlayTakesTheOption) {
    ServeOne();
    ExpectDone({"play", "7", "--option", "255"});
    EXPECT_EQ(255, m_pReceiver->ShownOption(7));
}

TEST_F(ActTest, StopEndsTheShow) {
    ServeOne();
    ASSERT_EQ(simulator::kResultOk, m_pReceiver->StartPlay(7, 1));
    ExpectDone({"stop", "7"});
    EXPECT_FALSE(m_pReceiver->IsShown(7));
}

TEST_F(ActTest, LogoutRemovesTheSender) {
    ServeOne();
    ExpectDone({"logout", "7"});
    EXPECT_TRUE(m_pReceiver->Senders().empty());
}

TEST_F(ActTest, ActsTellTheirResultAsJson) {
    ServeOne();
    const std::string done = "{\"version\":1,\"result\":0}\n";
    ExpectDone({"--json", "play", "7"}, done);
    ExpectDone({"stop", "7", "--json"}, done);
    ExpectDone({"moderator", "set", "1", "2", "--json"}, done);
    ExpectDone({"logout", "--json", "7"}, done);
    ExpectDone({"quit-control", "--json"}, done);
}

TEST_F(ActTest, ResultOfTheReceiverIsExitCodeOne) {
    ServeOne();
    for (const char* command : {"play", "stop", "logout"})
        EXPECT_EQ(1, Run({command, "8"}).exit) << command;
    EXPECT_EQ(1, Run({"stop", "7"}).exit);
}

TEST_F(ActTest, ModeratorIsRead) {
    Serve();
    m_pReceiver->SetModerator({-5, 200});
    ExpectDone({"moderator", "get"}, "id -5 flag 200\n");
}

TEST_F(ActTest, ModeratorIsReadAsJson) {
    Serve();
    m_pReceiver->SetModerator({7, 1});
    const Ended ended = Run({"moderator", "get", "--json"});
    EXPECT_EQ(0, ended.exit);
    const ordered_json line = Parse(ended.out);
    EXPECT_EQ("version id flag ", KeysOf(line));
    EXPECT_EQ(Parse(R"({"version":1,"id":7,"flag":1})"), line);
}

TEST_F(ActTest, ModeratorIsSet) {
    Serve();
    ExpectDone({"moderator", "set", "2147483647", "255"});
    ExpectModerator(2147483647, 255);
    ExpectDone({"moderator", "set", "-2147483648", "0"});
    ExpectModerator(-2147483647 - 1, 0);
}

TEST_F(ActTest, NumbersAreDecimal) {
    Serve();
    ExpectDone({"moderator", "set", "010", "012"});
    ExpectModerator(10, 12);
}

TEST_F(ActTest, QuitControlLeavesIt) {
    Serve();
    EXPECT_EQ(0, RunScreenctl({"quit-control", Host()}).exit);
    EXPECT_EQ(1u, m_pReceiver->FramesReceived(kQuit));
}

TEST_F(ActTest, KeepAliveRefreshesSoManyTimesInPauses) {
    Serve();
    const auto begin = std::chrono::steady_clock::now();
    ExpectDone({"keepalive", "--every", "0.2", "--count", "3"});
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(400));
    EXPECT_EQ(3u, m_pReceiver->FramesReceived(kRefresh));
}

TEST_F(ActTest, KeepAliveTellsEachRefreshAsJson) {
    Serve();
    const std::string done = "{\"version\":1,\"result\":0}\n";
    ExpectDone({"keepalive", "--json", "--every", "0.01", "--count", "2"}, done + done);
}

TEST_F(ActTest, KeepAliveHoldsControlUntilItIsEnded) {
    for (const int signal : {SIGINT, SIGTERM}) {
        Serve();
        Screenctl program(With({"keepalive", "--every", "0.01"}));
        EXPECT_TRUE(WaitFor([&] { return m_pReceiver->FramesReceived(kRefresh) >= 3; }));
        EXPECT_TRUE(m_pReceiver->ConfControlHeld());
        program.Signal(signal);
        EXPECT_EQ(0, program.ExitCode());
        EXPECT_EQ("", program.Out() + program.Err());
        m_pReceiver.reset();
    }
}

TEST_F(ActTest, KeepAliveDoesNotWaitToBeEnded) {
    Serve();
    Screenctl program(With({"keepalive", "--json", "--every", "86400"}));
    EXPECT_NE("", program.Line());
    program.Signal(SIGINT);
    EXPECT_EQ(0, program.ExitCode());
}

TEST_F(ActTest, KeepAliveLeavesAnIgnoredSignalIgnored) {
    Serve();
    Screenctl program(With({"keepalive", "--every", "0.01"}), {}, {SIGINT});
    EXPECT_TRUE(WaitFor([&] { return m_pReceiver->FramesReceived(kRefresh) >= 3; }));
    program.Signal(SIGINT);
    const uint64_t before = m_pReceiver->FramesReceived(kRefresh);
    EXPECT_TRUE(WaitFor([&] { return m_pReceiver->FramesReceived(kRefresh) >= before + 3; }));
    program.Signal(SIGTERM);
    EXPECT_EQ(0, program.ExitCode());
}

TEST_F(ActTest, KeepAliveIsNotDoneBeforeTheFirstRefresh) {
    Serve();
    ASSERT_TRUE(m_pReceiver->FaultOn(simulator::Fault()));
    Screenctl program(With({"keepalive"}));
    EXPECT_TRUE(WaitFor([&] { return m_pReceiver->FramesReceived(kRefresh) == 1; }));
    program.Signal(SIGTERM);
    EXPECT_EQ(-1, program.ExitCode());
}

TEST_F(ActTest, KeepAliveEndsWithItsOutput) {
    Serve();
    Screenctl program(With({"keepalive", "--json", "--every", "0.05"}));
    EXPECT_NE("", program.Line());
    program.CloseOutput();
    EXPECT_EQ(2, program.ExitCode());
    EXPECT_EQ(2, Parse(program.Err())["error"]["exit"]);
}

TEST_F(ActTest, KeepAliveTellsALostLinkAtOnce) {
    Serve();
    Screenctl program(With({"keepalive", "--json", "--every", "86400"}));
    EXPECT_NE("", program.Line());
    m_pReceiver->DropClients();
    EXPECT_EQ(3, program.ExitCode());
    EXPECT_EQ(-6528002, Parse(program.Err())["error"]["code"]);
}

TEST_F(ActTest, KeepAliveEndsWithTheConnection) {
    Serve();
    Screenctl program(With({"keepalive", "--json", "--every", "0.05"}));
    EXPECT_EQ("{\"version\":1,\"result\":0}", program.Line());
    m_pReceiver->Stop();
    EXPECT_EQ(3, program.ExitCode());
    EXPECT_EQ(3, Parse(program.Err())["error"]["exit"]);
}

}  // namespace
}  // namespace screenctl_test
