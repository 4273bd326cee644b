#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <ostream>

#include "tests/controller/Screenctl.h"
#include "tests/support/Emulation.h"

namespace screenctl_test {
namespace {

using simulator::Fault;
using simulator::FaultKind;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using Arguments = std::vector<std::string>;

std::string Contents(const std::string& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

size_t Count(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

class FailureTest : public ReceiverFixture {
protected:
    void ServeWith(const Fault& fault) {
        Serve();
        ASSERT_TRUE(m_pReceiver->FaultOn(fault));
    }

    static Fault CutTo(simulator::CutEnd end, int64_t bytes = -1) {
        Fault fault;
        fault.kind = FaultKind::Cut;
        fault.end = end;
        fault.bytes = bytes;
        return fault;
    }

    /// One sentence and, in brackets, code and message; nothing on standard output.
    static void ExpectFailure(const Ended& ended, int exit, const std::string& brackets) {
        EXPECT_EQ(exit, ended.exit);
        EXPECT_EQ("", ended.out);
        EXPECT_EQ(1u, Lines(ended.err).size()) << ended.err;
        EXPECT_THAT(ended.err, HasSubstr(brackets));
    }

    static void ExpectJsonFailure(const Ended& ended, int exit, int code) {
        EXPECT_EQ(exit, ended.exit);
        EXPECT_EQ("", ended.out);
        ASSERT_EQ(1u, Lines(ended.err).size()) << ended.err;
        const ordered_json line = Parse(ended.err);
        ASSERT_EQ("version error ", KeysOf(line));
        EXPECT_EQ(1, line["version"]);
        ASSERT_EQ("exit code message sentence ", KeysOf(line["error"]));
        EXPECT_EQ(exit, line["error"]["exit"]);
        EXPECT_EQ(code, line["error"]["code"]);
        EXPECT_TRUE(line["error"]["message"].is_string());
        EXPECT_NE("", line["error"]["sentence"]);
    }

    /// The receiver is a peer that answers one request with this result.
    Ended AnsweredWith(const std::string& resultInHex) {
        sr_test::ScriptedPeer peer(Host());
        Screenctl program(With({"play", "7", "--json"}));
        EXPECT_TRUE(peer.Accept());
        EXPECT_EQ(sr_test::Hex("52 65 63 76 49 50 43 12") +
                      sr_test::Padded(sr_test::Hex("00 00 00 07"), 32),
                  peer.Receive(40));
        peer.Send(sr_test::Hex("52 65 63 76 49 50 43 13") +
                  sr_test::Padded(sr_test::Hex(resultInHex), 32));
        const int exit = program.ExitCode();
        return {exit, program.Out(), program.Err()};
    }
};

/// Every command that makes one request.
class EveryCommandTest : public FailureTest, public testing::WithParamInterface<Arguments> {};

TEST_P(EveryCommandTest, RefusedPortIsToldAtOnce) {
    const auto begin = steady_clock::now();
    const Ended ended = Run(GetParam());
    EXPECT_LT(steady_clock::now() - begin, sr_test::Stretched(milliseconds(3000)));
    ExpectFailure(ended, 3, "[-111: Connection refused]");
    EXPECT_THAT(ended.err, StartsWith("No receiver is listening on " + Host()));
}

TEST_P(EveryCommandTest, AnswerThatBreaksOffIsNoConnection) {
    ServeWith(CutTo(simulator::CutEnd::Close));
    ExpectFailure(Run(GetParam()), 3, "[-6528002: The connection has been gracefully closed.]");
}

TEST_P(EveryCommandTest, ResetIsNoConnection) {
    ServeWith(CutTo(simulator::CutEnd::Reset, 0));
    ExpectFailure(Run(GetParam()), 3, "[-104: Connection reset by peer]");
}

const std::vector<Arguments> kCommands = {
    {"list"},      {"moderator", "get"}, {"moderator", "set", "3", "1"},
    {"play", "1"}, {"stop", "1"},        {"logout", "1"},
    {"keepalive"}, {"quit-control"}};

INSTANTIATE_TEST_SUITE_P(All, EveryCommandTest, testing::ValuesIn(kCommands));

// All at the same time, for each takes ten seconds.
TEST_F(FailureTest, SilenceIsTimeOut) {
    ServeWith(Fault());
    std::vector<std::unique_ptr<Screenctl>> programs;
    for (const Arguments& command : kCommands)
        programs.push_back(std::make_unique<Screenctl>(With(command)));
    for (const std::unique_ptr<Screenctl>& program : programs) {
        const int exit = program->ExitCode();
        ExpectFailure({exit, program->Out(), program->Err()}, 4,
                      " command failed to receive response packet within 10 seconds.]");
    }
}

TEST_F(FailureTest, RefusedPortAsJson) {
    ExpectJsonFailure(Run({"list", "--json"}), 3, -111);
}

TEST_F(FailureTest, FormatJsonMakesErrorsJson) {
    ExpectJsonFailure(Run({"list", "--format", "json"}), 3, -111);
}

TEST_F(FailureTest, BrokenAnswerAsJson) {
    ServeWith(CutTo(simulator::CutEnd::Close));
    ExpectJsonFailure(Run({"list", "--json"}), 3, -6528002);
}

TEST_F(FailureTest, SilenceAsJson) {
    ServeWith(Fault());
    ExpectJsonFailure(Run({"--json", "quit-control"}), 4, -6528101);
}

TEST_F(FailureTest, AnswerThatStopsInItsMiddleIsTimeOut) {
    Fault fault = CutTo(simulator::CutEnd::Later, 8);
    fault.time = std::chrono::minutes(10);
    ServeWith(fault);
    ExpectFailure(Run({"play", "1"}), 4, "[-11: Resource temporarily unavailable]");
}

TEST_F(FailureTest, ListThatBreaksOffPrintsNoSender) {
    Serve();
    for (int key = 1; key <= 5; ++key)
        ASSERT_TRUE(m_pReceiver->AddSender(MakeSender(key, "a")));
    ASSERT_TRUE(m_pReceiver->FaultOn(CutTo(simulator::CutEnd::Close, 40 + 3 * 128 + 1)));
    ExpectFailure(Run({"list"}), 3, "[-6528002");
    EXPECT_EQ(1u, m_pReceiver->GetStatistics().faultsDone);
}

TEST_F(FailureTest, ConnectionThatIsClosedAtOnce) {
    Fault fault;
    fault.kind = FaultKind::CloseOnAccept;
    ServeWith(fault);
    const Ended ended = Run({"list"});
    EXPECT_EQ(3, ended.exit);
    EXPECT_EQ(1u, Lines(ended.err).size()) << ended.err;
}

TEST_F(FailureTest, HostThatDoesNotAnswerTheConnectIsNoConnection) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(simulator::kReceiverPort);
    ASSERT_EQ(1, inet_pton(AF_INET, Host().c_str(), &address.sin_addr));
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, listen(listener, 0));
    // They fill the queue; from then on the system drops who wants to connect.
    std::array<int, 4> fillers = {};
    for (int& filler : fillers) {
        filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    const Ended ended = Run({"list"});
    ExpectFailure(ended, 3, "[-6528001: No TCP connection could be built to IP:" + Host());
    EXPECT_THAT(ended.err, StartsWith("Nothing answers at " + Host()));
    for (const int filler : fillers)
        close(filler);
    close(listener);
}

TEST_F(FailureTest, AddressWithoutRouteIsNoConnection) {
    const Ended ended = RunScreenctl({"list", "--host", "255.255.255.255"});
    ExpectFailure(ended, 3, "[-107: Transport endpoint is not connected]");
    EXPECT_THAT(ended.err, StartsWith("There is no way to 255.255.255.255"));
}

// Results other than 0

TEST_F(FailureTest, ResultIsNamedInTheSentence) {
    Serve();
    const Ended ended = Run({"play", "7"});
    ExpectFailure(ended, 1, "[1]");
    EXPECT_THAT(ended.err, HasSubstr("did not show sender 7"));
    EXPECT_THAT(ended.err, HasSubstr("the result 1,"));
}

TEST_F(FailureTest, ResultAsJson) {
    Serve();
    const Ended ended = Run({"stop", "7", "--json"});
    ExpectJsonFailure(ended, 1, 1);
    EXPECT_EQ("", Parse(ended.err)["error"]["message"]);
}

TEST_F(FailureTest, LargestResultIsTheReceivers) {
    ExpectJsonFailure(AnsweredWith("7f ff ff ff"), 1, 2147483647);
}

TEST_F(FailureTest, NegativeResultIsTheReceivers) {
    ExpectJsonFailure(AnsweredWith("ff ff ff fb"), 1, -5);
}

TEST_F(FailureTest, ResultThatLooksLikeABrokenLinkIsTheReceivers) {
    ExpectJsonFailure(AnsweredWith("ff 9c 63 fe"), 1, -6528002);
    ExpectJsonFailure(AnsweredWith("ff ff ff 91"), 1, -111);
}

TEST_F(FailureTest, SmallestResultIsTheReceivers) {
    ExpectJsonFailure(AnsweredWith("80 00 00 00"), 1, -2147483647 - 1);
}

// Wrong usage

class WrongUsageTest : public FailureTest, public testing::WithParamInterface<Arguments> {};

TEST_P(WrongUsageTest, IsOneSentence) {
    Serve();
    const Ended ended = Run(GetParam());
    ExpectFailure(ended, 2, ".\n");
    EXPECT_EQ(0u, m_pReceiver->GetStatistics().framesReceived);
}

TEST_P(WrongUsageTest, IsAnObjectWithJson) {
    Serve();
    Arguments arguments = GetParam();
    arguments.insert(arguments.begin(), "--json");
    ExpectJsonFailure(Run(arguments), 2, 0);
}

INSTANTIATE_TEST_SUITE_P(All,
                         WrongUsageTest,
                         testing::Values(Arguments{},
                                         Arguments{"unknown"},
                                         Arguments{"moderator"},
                                         Arguments{"moderator", "set", "1"},
                                         Arguments{"moderator", "set", "1", "256"},
                                         Arguments{"moderator", "set", "1", "-1"},
                                         Arguments{"play"},
                                         Arguments{"play", "Ada"},
                                         Arguments{"play", "0x10"},
                                         Arguments{"play", "2147483648"},
                                         Arguments{"play", "-2147483649"},
                                         Arguments{"play", "1", "2"},
                                         Arguments{"play", "1", "--option", "256"},
                                         Arguments{"play", "1", "--option", ""},
                                         Arguments{"keepalive", "--every", "0"},
                                         Arguments{"keepalive", "--every", "nan"},
                                         Arguments{"keepalive", "--count", "0"},
                                         Arguments{"list", "--which", "some"},
                                         Arguments{"list", "--which", "1"},
                                         Arguments{"list", "--sort", "size"},
                                         Arguments{"list", "--format", "xml"},
                                         Arguments{"list", "--format", "2"},
                                         Arguments{"list", "--trace", ""},
                                         Arguments{"list", "--wait", "-1"},
                                         Arguments{"list", "--wait", "inf"},
                                         Arguments{"list", "--trace-level", "701"},
                                         Arguments{"list", "--unknown"},
                                         Arguments{"list", "127.0.0.1"}));

TEST_F(FailureTest, NameThatIsNoneIsToldWithThoseThatAre) {
    ExpectFailure(Run({"list", "--which", "1"}), 2,
                  "--which: expected one of all, nonlocal, valid");
    ExpectFailure(Run({"list", "--format", "2"}), 2, "--format: expected one of table, json, csv");
    ExpectFailure(Run({"list", "--sort", "x"}), 2, "--sort: expected one of receiver, key, name, ");
    ExpectFailure(Run({"completion", "sh"}), 2, "shell: expected one of bash, zsh, fish");
}

TEST_F(FailureTest, JsonInAnotherFormatIsWrongUsage) {
    for (const char* format : {"csv", "table"}) {
        const Ended ended = Run({"list", "--format", format, "--json"});
        ExpectJsonFailure(ended, 2, 0);
        EXPECT_THAT(Parse(ended.err)["error"]["sentence"].get<std::string>(),
                    HasSubstr("--json wants another format"));
    }
}

class JsonUsageTest : public FailureTest, public testing::WithParamInterface<Arguments> {};

TEST_P(JsonUsageTest, IsSeenHoweverItIsWritten) {
    Arguments arguments = {"list", "--sort", "size"};
    arguments.insert(arguments.end(), GetParam().begin(), GetParam().end());
    ExpectJsonFailure(Run(arguments), 2, 0);
}

INSTANTIATE_TEST_SUITE_P(All,
                         JsonUsageTest,
                         testing::Values(Arguments{"--json"},
                                         Arguments{"--json=true"},
                                         Arguments{"--json=1"},
                                         Arguments{"--json=oops"},
                                         Arguments{"--json", "--format"},
                                         Arguments{"--format=json"},
                                         Arguments{"--format", "json"}));

class PlainUsageTest : public FailureTest, public testing::WithParamInterface<Arguments> {};

TEST_P(PlainUsageTest, IsNotTakenForJson) {
    Arguments arguments = {"list", "--sort", "size"};
    arguments.insert(arguments.end(), GetParam().begin(), GetParam().end());
    ExpectFailure(Run(arguments), 2, " tells what is possible.\n");
}

INSTANTIATE_TEST_SUITE_P(All,
                         PlainUsageTest,
                         testing::Values(Arguments{"--json=false"},
                                         Arguments{"--format"},
                                         Arguments{"--format", "csv"},
                                         Arguments{"--format", "csv", "--format", "csv"},
                                         Arguments{"--trace", "json"}));

class HostTest : public FailureTest, public testing::WithParamInterface<const char*> {};

TEST_P(HostTest, IsRefusedAtOnceWhenItIsNotDotted) {
    const auto begin = steady_clock::now();
    const Ended ended = RunScreenctl({"list", "--wait", "600", "--host", GetParam()});
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(300));
    ExpectFailure(ended, 2, "is not a dotted IPv4 address");
}

INSTANTIATE_TEST_SUITE_P(All,
                         HostTest,
                         testing::Values("localhost",
                                         "",
                                         "127.1",
                                         "127.0.0.256",
                                         "127.0.0.01",
                                         "0x7f.0.0.1",
                                         "127.0.0.1 ",
                                         "127.0.0.1:19996",
                                         "::1",
                                         "room\x1b[2J\xff"));

TEST_F(FailureTest, HostIsPrintedSafely) {
    const Ended ended = RunScreenctl({"--json", "list", "--host", "a\x1b\xff"});
    ExpectJsonFailure(ended, 2, 0);
    EXPECT_THAT(Parse(ended.err)["error"]["sentence"].get<std::string>(),
                StartsWith("\"a\\x1B\\xFF\" is not"));
}

TEST_F(FailureTest, HelpTellsTheExitCodes) {
    const Ended ended = RunScreenctl({"--help"});
    EXPECT_EQ(0, ended.exit);
    EXPECT_EQ("", ended.err);
    for (const char* part : {"0 done", "1 the receiver", "2 wrong usage", "3 no", "4 time-out"})
        EXPECT_THAT(ended.out, HasSubstr(part));
    EXPECT_THAT(RunScreenctl({"play", "--help"}).out, HasSubstr("4 time-out"));
}

class LostOutputTest : public FailureTest, public testing::WithParamInterface<const char*> {
protected:
    /// Nobody reads the output when the program has got its list, of so many senders.
    Ended ListOf(int senders) {
        Screenctl program(With({"list", "--format", GetParam(), "--wait", "60"}));
        program.CloseOutput();
        m_pReceiver = std::make_unique<simulator::ReceiverSimulator>(m_Options);
        for (int key = 1; key <= senders; ++key)
            EXPECT_TRUE(m_pReceiver->AddSender(MakeSender(key, "Ada")));
        Start();
        const int exit = program.ExitCode();
        return {exit, "", program.Err()};
    }

    static void ExpectTold(const Ended& ended) {
        constexpr const char* kSentence = "Standard output cannot be written";
        EXPECT_EQ(2, ended.exit);
        EXPECT_EQ(1u, Lines(ended.err).size()) << ended.err;
        if (GetParam() == std::string("json"))
            EXPECT_THAT(Parse(ended.err)["error"]["sentence"].get<std::string>(),
                        StartsWith(kSentence));
        else
            EXPECT_THAT(ended.err, StartsWith(kSentence));
    }
};

TEST_P(LostOutputTest, IsAnError) {
    ExpectTold(ListOf(1));
}

// More than is kept in memory before it is written.
TEST_P(LostOutputTest, IsAnErrorWhenItIsLong) {
    ExpectTold(ListOf(5000));
}

INSTANTIATE_TEST_SUITE_P(All,
                         LostOutputTest,
                         testing::Values("table", "csv", "json"),
                         [](const auto& tested) { return std::string(tested.param); });

const std::string kProgram = "'" SCREENCTL_PROGRAM "' ";

TEST_F(FailureTest, ErrorThatCannotBePrintedKeepsItsExitCode) {
    const std::string list = kProgram + "list --host " + Host();
    EXPECT_EQ(3, RunShell(list + " 2>&-").exit);
    EXPECT_EQ(3, RunShell(list + " --json 2>/dev/full").exit);
    EXPECT_EQ(2, RunShell(kProgram + "explain -111 >/dev/full 2>&1").exit);
}

TEST_F(FailureTest, HelpThatCannotBePrintedIsAnError) {
    EXPECT_EQ(2, RunShell(kProgram + "--help >/dev/full").exit);
    EXPECT_EQ(2, RunShell(kProgram + "play --help >&-").exit);
}

class ClosedStreamTest : public FailureTest {
protected:
    /// With a sender and conference control to have, and a shell's redirection. The receiver gets
    /// one whole request and nothing else.
    ShellRun RunWith(const std::string& redirection, const std::string& command) {
        Serve();
        EXPECT_TRUE(m_pReceiver->AddSender(MakeSender(1, "Ada")));
        ShellRun run = RunShell(kProgram + command + " --host " + Host() + " " + redirection);
        EXPECT_TRUE(WaitFor([this] { return m_pReceiver->ClientCount() == 0; }));
        EXPECT_EQ(40u, m_pReceiver->GetStatistics().bytesReceived);
        m_pReceiver.reset();
        return run;
    }
};

TEST_F(ClosedStreamTest, OutputIsAnErrorWhenThereIsSomethingToPrint) {
    for (const char* command : {"list", "list --json", "play 1 --json"}) {
        const ShellRun run = RunWith(">&-", command);
        EXPECT_EQ(2, run.exit) << command;
        EXPECT_THAT(run.output, HasSubstr("Standard output cannot be written")) << command;
    }
    EXPECT_EQ(0, RunWith(">&-", "play 1").exit);
}

TEST_F(ClosedStreamTest, ErrorOutputIsNotMissed) {
    const ShellRun run = RunWith("2>&-", "list --json --trace -");
    EXPECT_EQ(0, run.exit);
    EXPECT_EQ("Ada", Parse(run.output)["name"]);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they need descriptors, too
// The program's first descriptor of its own is one too many.
TEST_F(FailureTest, LimitOfTheSystemIsToldAsJson) {
    if (sr_test::kEmulated)
        GTEST_SKIP() << "the emulator needs descriptors, too";
    const ShellRun run =
        RunShell("exec <&-; ulimit -n 3; exec " + kProgram + "watch --json " + Host());
    EXPECT_EQ(2, run.exit);
    EXPECT_THAT(Parse(run.output)["error"]["sentence"].get<std::string>(),
                HasSubstr("Too many open files"));
}
#endif

TEST_F(FailureTest, WordThatIsNoCommandIsNamed) {
    ExpectFailure(Run({"frob\x1b"}), 2, "\"frob\\x1B\" is not a command");
    ExpectFailure(Run({"moderator", "delete"}), 2, "\"delete\" is not a command");
    ExpectFailure(Run({"moderator"}), 2, "A subcommand is required");
}

// --wait

TEST_F(FailureTest, WaitsForAReceiverThatStartsLater) {
    Screenctl program(With({"list", "--wait", "100", "--trace", "-", "--trace-level", "300"}));
    ASSERT_TRUE(WaitFor([&] { return Count(program.Err(), "ErrorCode=-111") >= 2; }));
    Serve();
    EXPECT_EQ(0, program.ExitCode());
    EXPECT_THAT(program.Out(), StartsWith("KEY"));
}

TEST_F(FailureTest, WaitsAsLongAsItIsToldAndInPauses) {
    const auto begin = steady_clock::now();
    const Ended ended = Run({"list", "--wait", "1", "--trace", "-", "--trace-level", "300"});
    EXPECT_GE(steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_EQ(3, ended.exit);
    // After 0, 100, 300, 700 and 1000 ms, or later.
    EXPECT_GE(Count(ended.err, "ErrorCode=-111"), 2u);
    EXPECT_LE(Count(ended.err, "ErrorCode=-111"), 5u);
}

// Without a longest pause there were 8 tries at most: after 0, 0.1, 0.3, 0.7, 1.5, 3.1, 6.3 and 12 s.
TEST_F(FailureTest, PausesBetweenTriesDoNotGrowForEver) {
    const Ended ended = Run({"list", "--wait", "12", "--trace", "-", "--trace-level", "300"});
    EXPECT_EQ(3, ended.exit);
    EXPECT_GE(Count(ended.err, "ErrorCode=-111"), 9u);
}

TEST_F(FailureTest, WaitsForARoute) {
    const auto begin = steady_clock::now();
    const Ended ended = RunScreenctl({"list", "--host", "255.255.255.255", "--wait", "0.5"});
    EXPECT_GE(steady_clock::now() - begin, milliseconds(500));
    ExpectFailure(ended, 3, "[-107: ");
}

// --trace

class TraceTest : public FailureTest {
protected:
    TraceTest() : m_strFile(testing::TempDir() + "screenctl-trace-" + Host()) {}
    ~TraceTest() override { unlink(m_strFile.c_str()); }

    const std::string m_strFile;
};

TEST_F(TraceTest, HasTheLibrarysLinesAndIsAppendedTo) {
    Serve();
    EXPECT_EQ(0, Run({"list", "--trace", m_strFile}).exit);
    EXPECT_EQ(1u, Count(Contents(m_strFile), "==> RequestCommand Req:0x10 "));
    EXPECT_THAT(Contents(m_strFile), HasSubstr("NetworkThread begin"));
    EXPECT_EQ(0, Run({"--trace", m_strFile, "moderator", "get"}).exit);
    EXPECT_EQ(1u, Count(Contents(m_strFile), "==> RequestCommand Req:0x10 "));
    EXPECT_EQ(1u, Count(Contents(m_strFile), "==> RequestCommand Req:0x20 "));
}

TEST_F(TraceTest, LevelLeavesLinesOut) {
    Serve();
    EXPECT_EQ(0, Run({"list", "--trace", m_strFile, "--trace-level", "600"}).exit);
    EXPECT_THAT(Contents(m_strFile), HasSubstr("==> RequestCommand"));
    EXPECT_THAT(Contents(m_strFile), Not(HasSubstr("NetworkThread begin")));
}

TEST_F(TraceTest, DashIsStandardError) {
    Serve();
    const Ended ended = Run({"list", "--trace", "-"});
    EXPECT_EQ(0, ended.exit);
    EXPECT_THAT(ended.err, HasSubstr("==> RequestCommand"));
    EXPECT_THAT(ended.out, Not(HasSubstr("RequestCommand")));
}

TEST_F(TraceTest, FileThatCannotBeOpenedIsWrongUsage) {
    Serve();
    const std::string folder = testing::TempDir();
    const Ended ended = Run({"list", "--trace", folder});
    ExpectFailure(ended, 2, "[-21: Is a directory]");
    EXPECT_THAT(ended.err, HasSubstr(folder));
}

}  // namespace
}  // namespace screenctl_test
