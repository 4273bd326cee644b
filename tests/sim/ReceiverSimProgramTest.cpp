#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Program.h"
#include "RawClient.h"

namespace {

using namespace sim_test;
using Json = nlohmann::json;

bool StartsWith(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

class ReceiverSimProgramTest : public ProgramFixture {
protected:
    /// Commands that fit into a pipe, whose answers are far more than that.
    static std::string ManyHelps() {
        std::string lines;
        for (int i = 0; i < 2000; ++i)
            lines += "help\n";
        return lines;
    }
};

TEST_F(ReceiverSimProgramTest, ServesUntilSigtermAndSaysWhatItDid) {
    Program program(With({}));
    const uint16_t port = ListeningPort(program);
    {
        RawClient client(m_strAddress, port);
        ASSERT_TRUE(client.Send(Frame32("10", "01")));
        const std::string list = client.Receive(40 + 4 * 128);
        ASSERT_EQ(40u + 4 * 128, list.size());
        EXPECT_EQ(Frame32("11", "00 04 01"), list.substr(0, 40));
        EXPECT_EQ(Hex("00 00 00 01 C0 A8 0A 14 41 64 61 00"), list.substr(40, 12));
        ASSERT_TRUE(client.Send(Frame32("1A", "01")));
        EXPECT_EQ(Frame32("1B", "00 03 01"), client.Receive(40));
        EXPECT_EQ(3u * 128, client.Receive(3 * 128).size());
        ASSERT_TRUE(client.Send(Frame32("1C", "01")));
        EXPECT_EQ(Frame32("1D", "00 03 01"), client.Receive(40));
    }
    program.Signal(SIGTERM);
    EXPECT_EQ("served 1 clients (0 dropped), 3 frames received, 3 sent, 0 faults done\n",
              program.Rest());
    EXPECT_EQ(0, program.ExitCode());
}

TEST_F(ReceiverSimProgramTest, SigintEndsItWithClientsConnected) {
    Program program(With({}));
    RawClient client(m_strAddress, ListeningPort(program));
    ASSERT_TRUE(client.Send(Frame32("20", "01")));
    EXPECT_EQ(Frame32("21"), client.Receive(40));
    program.Signal(SIGINT);
    EXPECT_TRUE(client.IsClosedByPeer());
    EXPECT_EQ("served 1 clients (0 dropped), 1 frames received, 1 sent, 0 faults done\n",
              program.Rest());
    EXPECT_EQ(0, program.ExitCode());
}

TEST_F(ReceiverSimProgramTest, SecondSignalEndsItWhenItsOutputStandsStill) {
    Program program(With({"-vv", "--senders", "0"}));
    RawClient client(m_strAddress, ListeningPort(program));
    for (int i = 0; i < 3000; ++i)
        client.SendNow(Frame32("20", "01"));
    // Next to all that a pipe holds; far more lines are to come.
    ASSERT_TRUE(WaitFor([&] { return program.Unread() > 60000; }));
    EXPECT_TRUE(WaitFor([&] {
        program.Signal(SIGTERM);
        return program.HasEnded();
    }));
    EXPECT_EQ(-1, program.ExitCode());
}

TEST_F(ReceiverSimProgramTest, SecondSignalEndsItWhenItsAnswersStandStill) {
    Program program(With({}));
    ListeningPort(program);
    ASSERT_TRUE(program.Type(ManyHelps()));
    ASSERT_TRUE(WaitFor([&] { return program.Unread() > 60000; }));
    // Two that come at once may be one. Hundreds would get the answers out of the way.
    for (int i = 0; i < 20 && !program.HasEnded(); ++i) {
        using Clock = std::chrono::steady_clock;
        const auto next = Clock::now() + std::chrono::milliseconds(100);
        program.Signal(SIGINT);
        WaitFor([&] { return program.HasEnded() || Clock::now() > next; });
    }
    EXPECT_NE(-2, program.ExitCode());
}

TEST_F(ReceiverSimProgramTest, OneSignalEndsItInOrderOnceItsAnswersAreRead) {
    Program program(With({}));
    ListeningPort(program);
    ASSERT_TRUE(program.Type(ManyHelps()));
    ASSERT_TRUE(WaitFor([&] { return program.Unread() > 60000; }));
    program.Signal(SIGTERM);
    const std::string summary =
        "\nserved 0 clients (0 dropped), 0 frames received, 0 sent, 0 faults done\n";
    const std::string printed = program.Rest();
    ASSERT_GT(printed.size(), summary.size());
    EXPECT_EQ(summary, printed.substr(printed.size() - summary.size()));
    EXPECT_EQ(0, program.ExitCode());
}

TEST_F(ReceiverSimProgramTest, GoesOnWhenNobodyReadsItsOutputAnyMore) {
    Program program(With({"-v"}));
    const uint16_t port = ListeningPort(program);
    program.CloseOutput();
    for (int i = 0; i < 3; ++i)
        ExpectServing(port);
    program.Signal(SIGTERM);
    EXPECT_EQ(0, program.ExitCode());
}

TEST_F(ReceiverSimProgramTest, SendersAndRecordsAreChosenByOptions) {
    Program program(With({"--senders", "15", "--records", "short"}));
    RawClient client(m_strAddress, ListeningPort(program));
    ASSERT_TRUE(client.Send(Frame32("10", "01")));
    const std::string list = client.Receive(40 + 15 * 64);
    ASSERT_EQ(40u + 15 * 64, list.size());
    EXPECT_EQ(Frame32("11", "00 0F 00"), list.substr(0, 40));
    EXPECT_EQ(Hex("00 00 00 0F"), list.substr(40 + 14 * 64, 4));
}

TEST_F(ReceiverSimProgramTest, NotifiesAtItsInterval) {
    Program program(With({"--senders", "0", "--notify-every", "0.01"}));
    RawClient client(m_strAddress, ListeningPort(program));
    const std::string first = client.Receive(20);
    const std::string second = client.Receive(20);
    ASSERT_EQ(20u, second.size());
    EXPECT_EQ(NotifyFrame("00 00 00 08"), first.substr(0, 12));
    EXPECT_EQ(NotifyFrame("00 00 00 08"), second.substr(0, 12));
    EXPECT_LT(first.substr(12, 4), second.substr(12, 4));
    EXPECT_EQ(Zeros(4), second.substr(16, 4));
}

TEST_F(ReceiverSimProgramTest, ConferenceControlEndsWhenItIsNotRefreshed) {
    using Clock = std::chrono::steady_clock;
    Program program(With({"--conf-timeout", "0.25"}));
    RawClient client(m_strAddress, ListeningPort(program));
    const auto before = Clock::now();
    ASSERT_TRUE(client.Send(Frame32("16")));
    EXPECT_EQ(Frame32("17") + NotifyFrame("00 00 00 07 00 00 00 01 00 00 00 01"),
              client.Receive(60));
    EXPECT_EQ(NotifyFrame("00 00 00 07 00 00 00 02 00 00 00 01"), client.Receive(20));
    EXPECT_GE(Clock::now() - before, std::chrono::milliseconds(250));
}

TEST_F(ReceiverSimProgramTest, ControlIsRequiredWhenItIsAskedFor) {
    Program program(With({"--require-control", "--conf-timeout", "0"}));
    RawClient client(m_strAddress, ListeningPort(program));
    ASSERT_TRUE(client.Send(Frame32("12", "00 00 00 01 05")));
    EXPECT_EQ(Frame32("13", "00 00 00 05"), client.Receive(40));
    ASSERT_TRUE(client.Send(Frame32("16")));
    EXPECT_EQ(60u, client.Receive(60).size());
    ASSERT_TRUE(client.Send(Frame32("12", "00 00 00 01 05")));
    EXPECT_EQ(Frame32("13"), client.Receive(40));
}

TEST_F(ReceiverSimProgramTest, ClientThatDoesNotReadIsDroppedAtTheBacklog) {
    Program program(With({"--max-backlog", "64kb", "--senders", "0"}));
    RawClient client(m_strAddress, ListeningPort(program), 4096);
    ASSERT_TRUE(program.Type("fault on flood rate=1000000\n"));
    EXPECT_EQ("ok", program.Line());
    const std::string line = program.Line();
    ASSERT_GT(line.size(), 13u);
    EXPECT_EQ("#1 -- dropped: it does not read", line.substr(13));
    program.Signal(SIGTERM);
    EXPECT_TRUE(StartsWith(program.Rest(), "served 1 clients (1 dropped), "));
}

// --- Exit codes ---

TEST_F(ReceiverSimProgramTest, TakenAddressIsOneSentenceAndExitCodeOne) {
    Program first(With({}));
    const std::string port = std::to_string(ListeningPort(first));
    Program second({"--address", m_strAddress, "--port", port});
    EXPECT_EQ("receiver-sim: cannot listen on " + m_strAddress + ":" + port +
                  ": Address already in use\n",
              second.Rest());
    EXPECT_EQ(1, second.ExitCode());
}

TEST_F(ReceiverSimProgramTest, WrongUsageIsExitCodeTwo) {
    const std::vector<std::vector<std::string>> wrong = {
        {"--nonsense"},
        {"stray"},
        {"--address", "localhost"},
        {"--port", "65536"},
        {"--port", "-1"},
        {"--port", "x"},
        {"--senders", "-1"},
        {"--senders", "65536"},
        {"--senders", "1", "--scenario", "x.json"},
        {"--scenario"},
        {"--records", "middle"},
        {"--notify-every", "0"},
        {"--notify-every", "-1"},
        {"--notify-every", "nan"},
        {"--notify-every"},
        {"--conf-timeout", "-0.001"},
        {"--conf-timeout", "86401"},
        {"--conf-timeout", "nan"},
        {"--conf-timeout", ""},
        {"--conf-timeout", "1s"},
        {"--require-control", "maybe"},
        {"--seed", "-1"},
        {"--seed", "18446744073709551616"},
        {"--max-backlog", "-1"},
        {"--max-backlog", "1 lightyear"},
        {"--control", ""},
        {"--json", "1"},
    };
    for (const std::vector<std::string>& arguments : wrong) {
        Program program(arguments);
        EXPECT_NE("", program.Rest()) << arguments[0];
        EXPECT_EQ(2, program.ExitCode()) << arguments[0];
    }
}

TEST_F(ReceiverSimProgramTest, HelpNamesEveryOption) {
    Program program({"--help"});
    const std::string help = program.Rest();
    for (const char* option :
         {"--address", "--port", "--senders", "--scenario", "--records", "--conf-timeout",
          "--require-control", "--seed", "--max-backlog", "--notify-every", "--control", "-v",
          "--json", "Exit code", "Examples:"})
        EXPECT_NE(std::string::npos, help.find(option)) << option;
    EXPECT_EQ(0, program.ExitCode());
}

// --- Scenarios ---

class ScenarioProgramTest : public ReceiverSimProgramTest {
protected:
    ScenarioProgramTest() {
        m_strFolder = ::testing::TempDir() + "sim-XXXXXX";
        EXPECT_NE(nullptr, mkdtemp(m_strFolder.data()));
        m_strFile = m_strFolder + "/scenario.json";
    }
    ~ScenarioProgramTest() override { std::filesystem::remove_all(m_strFolder); }

    std::vector<std::string> WithScenario(const std::string& text,
                                          const std::vector<std::string>& more = {}) const {
        std::ofstream(m_strFile) << text;
        std::vector<std::string> all = With({"--scenario", m_strFile});
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }

    void ExpectRefused(const std::vector<std::string>& arguments, const std::string& place) const {
        Program program(arguments);
        const std::string output = program.Rest();
        EXPECT_TRUE(StartsWith(output, "receiver-sim: " + place)) << output;
        EXPECT_EQ(std::string::npos, output.find("listening")) << output;
        EXPECT_EQ(2, program.ExitCode());
    }

    std::string m_strFolder;
    std::string m_strFile;
};

TEST_F(ScenarioProgramTest, WrongFileIsExitCodeTwoAndNothingIsStarted) {
    const std::string control = m_strFolder + "/control";
    ExpectRefused(WithScenario(R"({"description": "", "timeline": [{"at": 0, "do": "vanish"}]})",
                               {"--control", control}),
                  m_strFile + ": /timeline/0/do: ");
    EXPECT_FALSE(std::filesystem::exists(control));
    ExpectRefused(WithScenario(R"({"senders": [)"), m_strFile);
    ExpectRefused(With({"--scenario", m_strFolder + "/nothing.json"}),
                  m_strFolder + "/nothing.json: No such file or directory\n");
    ExpectRefused(With({"--scenario", m_strFolder}), m_strFolder);
}

TEST_F(ScenarioProgramTest, FirstSendersAndTimelineAreTheScenarios) {
    Program program(WithScenario(R"({
        "description": "",
        "clock": "first-client",
        "senders": [{"key": 258, "name": "Ada", "shown": 3}],
        "moderator": {"id": 258, "flag": 1},
        "timeline": [{"at": 0, "do": "leave", "key": 258},
                     {"at": 0, "do": "notify", "first": 1, "second": -1, "third": 256}]})",
                                 {"--records", "short"}));
    RawClient client(m_strAddress, ListeningPort(program));
    EXPECT_EQ(NotifyFrame("00 00 00 05 00 00 01 02 00 00 00 00") +
                  NotifyFrame("00 00 00 02 00 00 01 02 00 00 00 00") +
                  NotifyFrame("00 00 00 01 FF FF FF FF 00 00 01 00"),
              client.Receive(60));
    ASSERT_TRUE(client.Send(Frame32("20", "01")));
    EXPECT_EQ(Frame32("21", "00 00 01 02 01"), client.Receive(40));
}

TEST_F(ScenarioProgramTest, ShippedScenariosAreServed) {
    for (const char* name : {"meeting.json", "lecture-hall.json", "bad-day.json"}) {
        Program program(With({"--scenario", std::string(SCENARIO_FOLDER "/") + name}));
        RawClient client(m_strAddress, ListeningPort(program));
        EXPECT_TRUE(client.IsConnected());
        program.Signal(SIGTERM);
        EXPECT_EQ(0, program.ExitCode()) << name;
    }
}

/// One client that sends all its requests at once to a receiver with faults by chance.
class RepeatTest : public ScenarioProgramTest {
protected:
    static constexpr int kRounds = 40;

    struct Run {
        std::string bytes;    // what the client got
        std::string printed;  // without times and the client's port
    };

    Run RunWith(const std::string& seed) const {
        Program program(WithScenario(R"({
            "description": "",
            "clock": "first-client",
            "crowd": {"key": 1, "count": 20, "present": 10, "every": 3600},
            "timeline": [
                {"at": 0, "do": "fault on", "kind": "garbage", "percent": 50, "bytes": 9},
                {"at": 0, "do": "fault on", "kind": "twice", "percent": 30, "command": "all"},
                {"at": 0, "do": "fault on", "kind": "silent", "percent": 20},
                {"at": 0, "do": "notify", "first": 99, "second": 0, "third": 0}]})",
                                     {"--seed", seed, "-vv"}));
        RawClient client(m_strAddress, ListeningPort(program));
        Run run;
        run.bytes = client.Receive(20);  // the timeline is done
        std::string requests;
        for (int i = 0; i < kRounds; ++i)
            requests += Frame32("20", "01") + Frame32("12", "00 00 00 01 05") + Frame32("10", "01");
        EXPECT_TRUE(client.Send(requests));
        run.printed = PrintedUpToLastAnswer(program);
        EXPECT_TRUE(program.Type("notify 88 88 88\n"));
        const std::string last = NotifyFrame("00 00 00 58 00 00 00 58 00 00 00 58");
        for (std::string byte = "-"; run.bytes.find(last) == std::string::npos && !byte.empty();) {
            byte = client.Receive(1);
            run.bytes += byte;
        }
        return run;
    }

    static std::string PrintedUpToLastAnswer(Program& program) {
        std::string printed;
        for (int answers = 0; answers < 3 * kRounds;) {
            const std::string line = program.Line();
            if (line.size() < 13)
                return printed + "(end)";
            if (line.find("connected from ") == std::string::npos)
                printed += line.substr(13) + "\n";
            answers += line.find(" answer: ") != std::string::npos ? 1 : 0;
        }
        return printed;
    }
};

TEST_F(RepeatTest, SameSeedAndScenarioIsTheSameRunByteForByte) {
    const Run first = RunWith("42");
    const Run second = RunWith("42");
    EXPECT_EQ(std::string::npos, first.printed.find("(end)"));
    EXPECT_NE(std::string::npos, first.printed.find("[garbage]"));
    EXPECT_NE(std::string::npos, first.printed.find("[silent]"));
    EXPECT_EQ(first.printed, second.printed);
    EXPECT_EQ(first.bytes, second.bytes);
    EXPECT_NE(first.bytes, RunWith("43").bytes);
}

// --- What -v prints ---

class VerboseTest : public ScenarioProgramTest {
protected:
    /// "HH:MM:SS.mmm " stands in front of each.
    static std::string TextOf(Program& program) {
        const std::string line = program.Line();
        EXPECT_THAT(line.substr(0, 13), ::testing::MatchesRegex("..:..:..[.]... "));
        return line.size() > 13 ? line.substr(13) : "";
    }

    static constexpr const char* kScenario = R"({"description": "",
        "clock": "first-client",
        "timeline": [{"at": 0, "do": "join", "key": 7, "name": "A\"da"},
                     {"at": 0, "do": "hide", "key": 7}]})";
};

TEST_F(VerboseTest, FramesBothWaysAndClients) {
    Program program(With({"-v"}));
    {
        RawClient client(m_strAddress, ListeningPort(program));
        ASSERT_TRUE(client.Send("stray" + Frame32("12", "00 00 00 01 05")));
        EXPECT_EQ(60u, client.Receive(60).size());
    }
    EXPECT_TRUE(StartsWith(TextOf(program), "#1 -- connected from 127.0.0.1:"));
    EXPECT_EQ("#1 <- StartPlayImage: sender 1, option 5", TextOf(program));
    EXPECT_EQ("#1 -> StartPlayImage answer: 0 ok", TextOf(program));
    EXPECT_EQ("#1 -> notify: 4 show started, 1, 5", TextOf(program));
    EXPECT_EQ("#1 -- left", TextOf(program));
}

TEST_F(VerboseTest, FaultsStandBehindTheFrameAndAnswersToCommandsAlone) {
    Program program(With({"-v"}));
    const uint16_t port = ListeningPort(program);
    ASSERT_TRUE(program.Type("fault on twice count=1\nfault on cut bytes=3 end=close count=1\n"));
    EXPECT_EQ("ok", program.Line());
    EXPECT_EQ("ok", program.Line());
    RawClient client(m_strAddress, port);
    ASSERT_TRUE(client.Send(Frame32("20", "01")));
    EXPECT_EQ("Rec", client.Receive(40));
    TextOf(program);
    EXPECT_EQ("#1 <- GetModeratorInfo", TextOf(program));
    EXPECT_EQ("#1 -> GetModeratorInfo answer: id 0, flag 0 [twice, cut]", TextOf(program));
    EXPECT_EQ("#1 -- closed by a fault", TextOf(program));
    program.Signal(SIGTERM);
    EXPECT_EQ("served 1 clients (0 dropped), 1 frames received, 1 sent, 2 faults done\n",
              program.Rest());
}

TEST_F(VerboseTest, TimelineWithItsAnswers) {
    Program program(WithScenario(kScenario, {"-v"}));
    RawClient client(m_strAddress, ListeningPort(program));
    std::vector<std::string> actions;
    while (actions.size() < 2) {
        const std::string text = TextOf(program);
        ASSERT_NE("", text);
        if (StartsWith(text, "== "))
            actions.push_back(text);
    }
    EXPECT_EQ(R"(== join 7 name="A\"da": ok)", actions[0]);
    EXPECT_EQ("== hide 7: error 3 not shown", actions[1]);
}

TEST_F(VerboseTest, TwiceGivesBytesAndGarbage) {
    Program program(With({"-vv"}));
    RawClient client(m_strAddress, ListeningPort(program));
    ASSERT_TRUE(client.Send("stray" + Frame32("10", "01")));
    EXPECT_EQ(40u + 4 * 128, client.Receive(40 + 4 * 128).size());
    std::string zeros;
    for (int i = 0; i < 31; ++i)
        zeros += " 00";
    TextOf(program);
    EXPECT_EQ("#1 <- 5 bytes of garbage", TextOf(program));
    EXPECT_EQ("#1 <- GetSenderList | 01" + zeros, TextOf(program));
    EXPECT_EQ("#1 -> GetSenderList answer: 4 long records | 00 04 01" + zeros.substr(0, 29 * 3) +
                  " 00 00 00 01 C0 A8 0A 14 41 64 61" + zeros.substr(0, 21 * 3) + " ... 544 bytes",
              TextOf(program));
}

TEST_F(VerboseTest, NothingIsPrintedOfTrafficWithoutIt) {
    Program program(WithScenario(kScenario));
    {
        RawClient client(m_strAddress, ListeningPort(program));
        ASSERT_TRUE(client.Send(Frame32("20", "01")));
        // The answer and the timeline's notification, in either order.
        EXPECT_EQ(60u, client.Receive(60).size());
    }
    program.Signal(SIGTERM);
    EXPECT_TRUE(StartsWith(program.Rest(), "served 1 clients "));
}

// --- JSON lines ---

class JsonTest : public VerboseTest {
protected:
    static Json Object(Program& program) {
        const std::string line = program.Line();
        const Json object = Json::parse(line, nullptr, false);
        EXPECT_TRUE(object.is_object()) << line;
        return object.is_object() ? object : Json::object();
    }

    uint16_t ListeningPort(Program& program) const {
        const Json object = Object(program);
        EXPECT_EQ("listening", object.value("type", ""));
        EXPECT_EQ(m_strAddress, object.value("address", ""));
        return object.value("port", uint16_t{0});
    }

    /// Without its time, which is looked at.
    static Json Timeless(Program& program) {
        Json object = Object(program);
        EXPECT_THAT(object.value("time", ""),
                    ::testing::MatchesRegex("....-..-..T..:..:..[.]...[-+]..:.."));
        object.erase("time");
        return object;
    }

    /// Two answers with their requests.
    static void Converse(RawClient& client) {
        EXPECT_TRUE(client.Send("stray" + Frame32("12", "00 00 00 01 05")));
        EXPECT_EQ(60u, client.Receive(60).size());
        EXPECT_TRUE(client.Send(Frame32("22", "FF FF FF FF 02")));
        EXPECT_EQ(60u, client.Receive(60).size());
        EXPECT_TRUE(client.Send(Frame32("10", "01")));
        EXPECT_EQ(40u + 4 * 128, client.Receive(40 + 4 * 128).size());
    }
};

TEST_F(JsonTest, EveryLineIsAnObjectWithDecodedFrames) {
    Program program(With({"--json", "-v"}));
    {
        RawClient client(m_strAddress, ListeningPort(program));
        Converse(client);
    }
    Json connected = Timeless(program);
    EXPECT_TRUE(StartsWith(connected.value("peer", ""), "127.0.0.1:"));
    const Json peer = connected["peer"];
    EXPECT_EQ(Json({{"type", "client"}, {"client", 1}, {"change", "connected"}, {"peer", peer}}),
              connected);
    for (const char* frame :
         {R"({"direction": "in", "code": 18, "command": "StartPlayImage", "sender": 1, "option": 5,
              "text": "StartPlayImage: sender 1, option 5"})",
          R"({"direction": "out", "code": 19, "command": "StartPlayImage", "result": 0,
              "text": "StartPlayImage answer: 0 ok"})",
          R"({"direction": "out", "code": 36, "command": "Notify", "values": [4, 1, 5],
              "text": "notify: 4 show started, 1, 5"})",
          R"({"direction": "in", "code": 34, "command": "SetModeratorInfo", "id": -1, "flag": 2,
              "text": "SetModeratorInfo: id -1, flag 2"})",
          R"({"direction": "out", "code": 35, "command": "SetModeratorInfo", "result": 0,
              "text": "SetModeratorInfo answer: 0 ok"})",
          R"({"direction": "out", "code": 36, "command": "Notify", "values": [6, -1, 2],
              "text": "notify: 6 moderator changed, -1, 2"})",
          R"({"direction": "in", "code": 16, "command": "GetSenderList",
              "text": "GetSenderList"})",
          R"({"direction": "out", "code": 17, "command": "GetSenderList", "records": 4,
              "long": true, "text": "GetSenderList answer: 4 long records"})"}) {
        Json expected = Json::parse(frame);
        expected.update({{"type", "frame"}, {"client", 1}, {"faults", Json::array()}});
        EXPECT_EQ(expected, Timeless(program));
    }
    EXPECT_EQ(Json({{"type", "client"}, {"client", 1}, {"change", "left"}, {"peer", peer}}),
              Timeless(program));
    program.Signal(SIGTERM);
    EXPECT_EQ(Json::parse(R"({"type": "summary", "clients": 1, "clients_dropped": 0,
        "bytes_received": 125, "frames_received": 3, "frames_sent": 5, "garbage_bytes": 5,
        "unknown_commands": 0, "faults_done": 0})"),
              Object(program));
    EXPECT_EQ("", program.Rest());
}

TEST_F(JsonTest, TwiceGivesThePayloadWholeAndGarbage) {
    Program program(With({"--json", "-v", "-v"}));
    RawClient client(m_strAddress, ListeningPort(program));
    ASSERT_TRUE(client.Send("stray" + Frame32("10", "01")));
    EXPECT_EQ(40u + 4 * 128, client.Receive(40 + 4 * 128).size());
    Timeless(program);
    EXPECT_EQ(Json({{"type", "garbage"}, {"client", 1}, {"bytes", 5}}), Timeless(program));
    EXPECT_EQ("01" + std::string(62, '0'), Timeless(program).value("payload", ""));
    const std::string list = Timeless(program).value("payload", "");
    EXPECT_EQ(2u * (32 + 4 * 128), list.size());
    EXPECT_EQ("000401", list.substr(0, 6));
    EXPECT_EQ("00000001C0A80A14416461", list.substr(64, 22));
}

TEST_F(JsonTest, FaultsAreAnArrayAndUnknownCommandsHaveNoName) {
    Program program(With({"--json", "-v"}));
    RawClient client(m_strAddress, ListeningPort(program));
    Timeless(program);
    ASSERT_TRUE(program.Type("fault on wrong-code code=99\nfault on twice\n"));
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(Json({{"type", "answer"}, {"ok", true}, {"text", ""}}), Object(program));
    ASSERT_TRUE(client.Send(Frame32("20", "01")));
    EXPECT_EQ(Frame32("63") + Frame32("63"), client.Receive(80));
    Timeless(program);
    const Json answer = Timeless(program);
    EXPECT_EQ(Json({"wrong-code", "twice"}), answer.value("faults", Json()));
    ASSERT_TRUE(client.Send(Hex("52 65 63 76 49 50 43 FF")));
    EXPECT_EQ(Json::parse(R"({"type": "frame", "client": 1, "direction": "in", "code": 255,
        "command": null, "text": "unknown command 0xFF, 0 bytes", "faults": []})"),
              Timeless(program));
}

TEST_F(JsonTest, AnswersSayWhetherTheyAreOk) {
    Program program(With({"--json"}));
    ListeningPort(program);
    ASSERT_TRUE(program.Type("received 16\nleave 99\nquit\n"));
    EXPECT_EQ(Json({{"type", "answer"}, {"ok", true}, {"text", "0"}}), Object(program));
    EXPECT_EQ(Json({{"type", "answer"}, {"ok", false}, {"text", "no sender has the key 99"}}),
              Object(program));
    EXPECT_EQ(Json({{"type", "answer"}, {"ok", true}, {"text", ""}}), Object(program));
    EXPECT_EQ("summary", Object(program).value("type", ""));
}

TEST_F(JsonTest, TimelineHasCommandAndAnswer) {
    Program program(WithScenario(kScenario, {"--json", "-v"}));
    RawClient client(m_strAddress, ListeningPort(program));
    std::vector<Json> actions;
    while (actions.size() < 2) {
        const Json object = Timeless(program);
        ASSERT_TRUE(object.is_object());
        if (object.value("type", "") == "timeline")
            actions.push_back(object);
    }
    EXPECT_EQ(Json({{"type", "timeline"},
                    {"command", "join 7 name=\"A\\\"da\""},
                    {"ok", true},
                    {"text", ""}}),
              actions[0]);
    EXPECT_EQ(
        Json({{"type", "timeline"}, {"command", "hide 7"}, {"ok", false}, {"text", "3 not shown"}}),
        actions[1]);
}

TEST_F(JsonTest, DroppedClientIsTroubleWithoutVerboseToo) {
    Program program(With({"--json", "--max-backlog", "64kb", "--senders", "0"}));
    RawClient client(m_strAddress, ListeningPort(program), 4096);
    ASSERT_TRUE(program.Type("fault on flood rate=1000000\n"));
    EXPECT_EQ("answer", Object(program).value("type", ""));
    EXPECT_EQ("dropped", Timeless(program).value("change", ""));
}

}  // namespace
