#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string>

#include "tests/controller/Screenctl.h"

namespace screenctl_test {
namespace {

using simulator::Fault;
using simulator::FaultKind;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

using Arguments = std::vector<std::string>;

constexpr int kList = 16;
constexpr int kNonLocal = 26;
constexpr int kValid = 28;
constexpr int kModerator = 32;
constexpr const char* kAllSteps =
    "address connect first-answer list-all list-nonlocal list-valid moderator ";

/// The host is there, but the system drops who wants to connect.
class SilentPort {
public:
    explicit SilentPort(const std::string& host)
        : m_nListener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(simulator::kReceiverPort);
        EXPECT_EQ(1, inet_pton(AF_INET, host.c_str(), &address.sin_addr));
        EXPECT_EQ(0, bind(m_nListener, reinterpret_cast<sockaddr*>(&address), sizeof address));
        EXPECT_EQ(0, listen(m_nListener, 0));
        for (int& filler : m_Fillers) {
            filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof address);
        }
    }
    ~SilentPort() {
        for (const int filler : m_Fillers)
            close(filler);
        close(m_nListener);
    }
    SilentPort(const SilentPort&) = delete;
    SilentPort& operator=(const SilentPort&) = delete;

private:
    int m_nListener;
    std::array<int, 4> m_Fillers = {};
};

std::string StepNames(const std::vector<ordered_json>& lines) {
    std::string names;
    for (const ordered_json& line : lines)
        names += line["step"].get<std::string>() + " ";
    return names;
}

class DoctorTest : public ReceiverFixture {
protected:
    void ServeWith(const Fault& fault) {
        Serve();
        ASSERT_TRUE(m_pReceiver->AddSender(MakeSender(7, "Ada")));
        ASSERT_TRUE(m_pReceiver->FaultOn(fault));
    }

    static Fault Cut(int command, int64_t bytes = -1) {
        Fault fault;
        fault.kind = FaultKind::Cut;
        fault.command = command;
        fault.bytes = bytes;
        return fault;
    }

    Ended Doctor() const { return Run({"doctor", "--json"}); }

    /// The steps up to the one that failed, the last of `steps`, with this exit code and code.
    static void ExpectFailure(const Ended& ended, const std::string& steps, int exit, int code) {
        EXPECT_EQ(exit, ended.exit);
        const std::vector<ordered_json> lines = ParseLines(ended.out);
        ASSERT_EQ(steps + "result ", StepNames(lines));
        for (size_t i = 0; i + 1 < lines.size(); ++i)
            ExpectStep(lines[i], i + 2 < lines.size());
        const ordered_json& failed = lines[lines.size() - 2];
        EXPECT_EQ(code, failed["code"]);
        EXPECT_NE("", failed["advice"]);
        ExpectResult(lines.back(), exit);
        const ordered_json error = Parse(ended.err)["error"];
        EXPECT_EQ(exit, error["exit"]);
        EXPECT_EQ(code, error["code"]);
        EXPECT_EQ(failed["message"], error["message"]);
        EXPECT_EQ(failed["advice"], error["sentence"]);
    }

    static void ExpectStep(const ordered_json& line, bool ok) {
        EXPECT_EQ("version step ok ms code message advice ", KeysOf(line));
        EXPECT_EQ(1, line["version"]);
        EXPECT_EQ(ok, line["ok"]) << line;
        EXPECT_TRUE(line["ms"].is_number());
        EXPECT_GE(line["ms"].get<double>(), 0.0);
        if (ok) {
            EXPECT_TRUE(line["code"] == 0 && line["message"] == "" && line["advice"] == "") << line;
        }
    }

    static void ExpectResult(const ordered_json& line, int exit) {
        EXPECT_EQ("version step exit ", KeysOf(line));
        EXPECT_EQ(1, line["version"]);
        EXPECT_EQ(exit, line["exit"]);
    }
};

TEST_F(DoctorTest, AllIsWell) {
    Serve();
    const Ended ended = Doctor();
    EXPECT_EQ(0, ended.exit);
    EXPECT_EQ("", ended.err);
    const std::vector<ordered_json> lines = ParseLines(ended.out);
    ASSERT_EQ(std::string(kAllSteps) + "result ", StepNames(lines));
    for (size_t i = 0; i + 1 < lines.size(); ++i)
        ExpectStep(lines[i], true);
    ExpectResult(lines.back(), 0);
}

TEST_F(DoctorTest, AsksForEachListAndChangesNothing) {
    Serve();
    EXPECT_EQ(0, RunScreenctl({"doctor", Host()}).exit);
    for (const int list : {kList, kNonLocal, kValid})
        EXPECT_EQ(1u, m_pReceiver->FramesReceived(static_cast<uint8_t>(list))) << list;
    EXPECT_EQ(2u, m_pReceiver->FramesReceived(kModerator));
    EXPECT_EQ(5u, m_pReceiver->GetStatistics().framesReceived);
    EXPECT_EQ(1u, m_pReceiver->GetStatistics().clients);
}

TEST_F(DoctorTest, StepIsALineWithItsTime) {
    Serve();
    const Ended ended = Run({"doctor"});
    const std::vector<std::string> lines = Lines(ended.out);
    ASSERT_EQ(7u, lines.size());
    for (const std::string& line : lines)
        EXPECT_THAT(line, testing::MatchesRegex("[a-z-]+ +ok +[0-9]+\\.[0-9] ms"));
    EXPECT_EQ("", ended.err);
}

TEST_F(DoctorTest, FailureIsALineAndOneSentence) {
    const Ended ended = Run({"doctor"});
    EXPECT_EQ(10, ended.exit);
    const std::vector<std::string> lines = Lines(ended.out);
    ASSERT_EQ(2u, lines.size());
    EXPECT_THAT(lines[0], AllOf(StartsWith("address "), HasSubstr(" ok ")));
    EXPECT_THAT(lines[1], AllOf(StartsWith("connect "), HasSubstr(" failed ")));
    EXPECT_EQ(1u, Lines(ended.err).size());
    EXPECT_THAT(ended.err, AllOf(StartsWith("No receiver is listening on " + Host()),
                                 HasSubstr("[-111: Connection refused]")));
}

// The causes

class WrongAddressTest : public DoctorTest, public testing::WithParamInterface<const char*> {};

TEST_P(WrongAddressTest, IsTold) {
    const Ended ended = RunScreenctl({"doctor", "--json", GetParam()});
    ExpectFailure(ended, "address ", 2, 0);
    EXPECT_THAT(ended.err, HasSubstr("is not a dotted IPv4 address"));
}

INSTANTIATE_TEST_SUITE_P(All,
                         WrongAddressTest,
                         testing::Values("room", "127.1", "127.0.0.256", "127.0.0.1:19996", "::1"));

TEST_F(DoctorTest, RefusedPort) {
    ExpectFailure(Doctor(), "address connect ", 10, -111);
}

TEST_F(DoctorTest, RefusedPortIsToldAtOnceWithWaitToo) {
    const auto begin = std::chrono::steady_clock::now();
    ExpectFailure(Run({"doctor", "--json", "--wait", "600"}), "address connect ", 10, -111);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(300));
}

TEST_F(DoctorTest, SilentHost) {
    const SilentPort port(Host());
    const Ended ended = Doctor();
    ExpectFailure(ended, "address connect ", 11, -6528001);
    EXPECT_GE(ParseLines(ended.out).at(1)["ms"].get<double>(), 2900.0);
}

TEST_F(DoctorTest, AddressWithoutRoute) {
    ExpectFailure(RunScreenctl({"doctor", "--json", "255.255.255.255"}), "address connect ", 12,
                  -107);
}

// Both at the same time, for each takes twenty seconds.
TEST_F(DoctorTest, NoAnswerInTime) {
    ServeWith(Fault());
    sr_test::ScriptedPeer peer;
    Screenctl silent(With({"doctor", "--json"}));
    Screenctl garbage({"doctor", "--json", peer.Address()});
    ASSERT_TRUE(peer.Accept());
    peer.Send("HTTP/1.1 400 Bad Request\r\n\r\n");
    for (Screenctl* program : {&silent, &garbage}) {
        const int exit = program->ExitCode();
        ExpectFailure({exit, program->Out(), program->Err()}, "address connect first-answer ", 13,
                      -6528101);
    }
    EXPECT_EQ(2u, m_pReceiver->GetStatistics().clients);
    EXPECT_EQ(1u, m_pReceiver->FramesReceived(kModerator));
    EXPECT_EQ(1u, m_pReceiver->FramesReceived(kList));
}

// Both at the same time, as above.
TEST_F(DoctorTest, RequestThatAloneIsNotAnsweredIsNamedByItsStep) {
    Fault silent;
    silent.command = kModerator;
    ServeWith(silent);
    simulator::Options options;
    options.address = sr_test::UniqueAddress();
    simulator::ReceiverSimulator withoutList(options);
    const std::error_code error = withoutList.Start();
    ASSERT_FALSE(error) << error.message();
    silent.command = kList;
    ASSERT_TRUE(withoutList.FaultOn(silent));
    Screenctl moderator(With({"doctor", "--json"}));
    Screenctl list({"doctor", "--json", options.address});
    int exit = list.ExitCode();
    ExpectFailure({exit, list.Out(), list.Err()}, "address connect first-answer list-all ", 15,
                  -6528101);
    exit = moderator.ExitCode();
    ExpectFailure({exit, moderator.Out(), moderator.Err()}, kAllSteps, 18, -6528101);
}

TEST_F(DoctorTest, LinkThatIsClosedForTheModeratorOnly) {
    ServeWith(Cut(kModerator, 20));
    ExpectFailure(Doctor(), kAllSteps, 18, -6528002);
}

TEST_F(DoctorTest, LinkThatIsClosedAtOnce) {
    Fault fault;
    fault.kind = FaultKind::CloseOnAccept;
    ServeWith(fault);
    const Ended ended = Doctor();
    EXPECT_EQ(14, ended.exit);
    EXPECT_EQ("address connect first-answer result ", StepNames(ParseLines(ended.out)));
}

TEST_F(DoctorTest, LinkThatIsClosedInTheFirstAnswer) {
    ServeWith(Cut(simulator::kEveryAnswer, 20));
    ExpectFailure(Doctor(), "address connect first-answer ", 14, -6528002);
}

TEST_F(DoctorTest, LinkThatIsResetInTheFirstAnswer) {
    Fault fault = Cut(simulator::kEveryAnswer, 0);
    fault.end = simulator::CutEnd::Reset;
    ServeWith(fault);
    ExpectFailure(Doctor(), "address connect first-answer ", 14, -104);
}

TEST_F(DoctorTest, OtherServiceThatAnswersAndCloses) {
    sr_test::ScriptedPeer peer(Host());
    Screenctl program(With({"doctor", "--json"}));
    ASSERT_TRUE(peer.Accept());
    EXPECT_EQ(sr_test::Hex("52 65 63 76 49 50 43 20") + sr_test::Padded(sr_test::Hex("01"), 32),
              peer.Receive(40));
    peer.Send("HTTP/1.1 400 Bad Request\r\n\r\n");
    peer.Close();
    ASSERT_TRUE(peer.Accept());
    EXPECT_EQ(sr_test::Hex("52 65 63 76 49 50 43 10") + sr_test::Padded(sr_test::Hex("01"), 32),
              peer.Receive(40));
    peer.Close();
    const int exit = program.ExitCode();
    ExpectFailure({exit, program.Out(), program.Err()}, "address connect first-answer ", 14,
                  -6528002);
    EXPECT_THAT(program.Err(), HasSubstr("a receiver, and nothing else"));
}

struct BadList {
    int command;
    const char* steps;
    int exit;
};

class BadListTest : public DoctorTest, public testing::WithParamInterface<BadList> {};

TEST_P(BadListTest, IsNamedByItsStep) {
    ServeWith(Cut(GetParam().command, 60));
    ExpectFailure(Doctor(), std::string("address connect first-answer ") + GetParam().steps,
                  GetParam().exit, -6528002);
}

INSTANTIATE_TEST_SUITE_P(All,
                         BadListTest,
                         testing::Values(BadList{kList, "list-all ", 15},
                                         BadList{kNonLocal, "list-all list-nonlocal ", 16},
                                         BadList{kValid, "list-all list-nonlocal list-valid ",
                                                 17}));

TEST_F(DoctorTest, ListThatAnnouncesTooMany) {
    Fault fault;
    fault.kind = FaultKind::FalseCount;
    fault.command = kList;
    ServeWith(fault);
    ExpectFailure(Doctor(), "address connect first-answer list-all ", 15, -11);
}

TEST_F(DoctorTest, ModeratorThatFails) {
    simulator::Observer observer;
    observer.frame = [this](const simulator::Frame& frame) {
        if (frame.incoming && frame.code == kValid) {
            EXPECT_TRUE(m_pReceiver->FaultOn(Cut(kModerator)));
        }
    };
    m_pReceiver = std::make_unique<simulator::ReceiverSimulator>(m_Options, observer);
    const std::error_code error = m_pReceiver->Start();
    ASSERT_FALSE(error) << error.message();
    ExpectFailure(Doctor(), kAllSteps, 18, -6528002);
}

TEST_F(DoctorTest, TraceThatCannotBeWrittenIsWrongUsage) {
    Serve();
    EXPECT_EQ(2, Run({"doctor", "--trace", testing::TempDir()}).exit);
}

TEST_F(DoctorTest, HelpTellsTheExitCodes) {
    const std::string help = RunScreenctl({"doctor", "--help"}).out;
    for (const char* part : {"0 all is well", "2 the address", "10 the\nport", "11 the host",
                             "12 another", "13 connected", "14 the link", "15 list-all",
                             "16 list-nonlocal", "17 list-valid", "18 the moderator"})
        EXPECT_THAT(help, HasSubstr(part));
}

}  // namespace
}  // namespace screenctl_test
