#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "ScreenReceiver/ScreenReceiverStub.h"
#include "controller/WatchModel.h"
#include "tests/controller/Screenctl.h"

namespace screenctl_test {
namespace {

using screenctl::Change;
using screenctl::LinkState;
using screenctl::RetryPause;
using screenctl::WallTime;
using screenctl::WatchModel;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr int kGetSenderList = 16;
constexpr int kStartPlay = 18;
constexpr int kStopPlay = 20;
constexpr int kForceLogout = 30;

// ---------------------------------------------------------------------------------------- model

class WatchModelTest : public ::testing::Test {
protected:
    /// A long record: key, address, name, status, position, types.
    static std::string Record(int key, const std::string& name) {
        const std::string head = {0, 0, 0, static_cast<char>(key)};
        return sr_test::Padded(sr_test::Padded(head + sr_test::Hex("C0 00 02 07") + name, 56) +
                                   sr_test::Hex("00 01 80 00 00 00 00 00 00"),
                               128);
    }

    static ScreenSenderInfo Decode(const std::string& record) {
        ScreenSenderInfo sender;
        ScreenReceiverStub::DecodeSender(record.data(), true, sender);
        return sender;
    }

    static ScreenSenderInfo Sender(int key, const std::string& name = "Ada") {
        return Decode(Record(key, name));
    }

    static std::vector<ScreenSenderInfo> Senders(const std::vector<int>& keys) {
        std::vector<ScreenSenderInfo> senders;
        for (const int key : keys)
            senders.push_back(Sender(key));
        return senders;
    }

    /// As "+1" joined, "-1" left, "~1" changed.
    std::vector<std::string> Update(const std::vector<ScreenSenderInfo>& senders) {
        std::vector<std::string> texts;
        for (const Change& change : m_Model.Update(senders, WallTime())) {
            const char sign = change.kind == Change::Kind::Joined ? '+'
                              : change.kind == Change::Kind::Left ? '-'
                                                                  : '~';
            texts.push_back(sign + std::to_string(change.sender.GetPrimaryKey()));
        }
        return texts;
    }
    std::vector<std::string> UpdateKeys(const std::vector<int>& keys) {
        return Update(Senders(keys));
    }

    void ExpectChosen(int key) {
        const auto row = m_Model.Chosen();
        ASSERT_TRUE(row);
        EXPECT_EQ(key, m_Model.Senders()[*row].GetPrimaryKey());
    }

    void ExpectAsked(int key) {
        ASSERT_TRUE(m_Model.Asked());
        EXPECT_EQ(key, m_Model.Asked()->GetPrimaryKey());
    }

    WatchModel m_Model;
};

TEST_F(WatchModelTest, FirstListIsNoChange) {
    EXPECT_FALSE(m_Model.HasList());
    EXPECT_THAT(UpdateKeys({1, 2}), IsEmpty());
    EXPECT_TRUE(m_Model.HasList());
    EXPECT_EQ(2u, m_Model.Senders().size());
}

TEST_F(WatchModelTest, EmptyFirstListIsAListToo) {
    EXPECT_THAT(UpdateKeys({}), IsEmpty());
    EXPECT_THAT(UpdateKeys({1}), ElementsAre("+1"));
}

TEST_F(WatchModelTest, JoinedAndLeftAreToldByKey) {
    UpdateKeys({4, 2, 3});
    EXPECT_THAT(UpdateKeys({3, 5, 1}), ElementsAre("+1", "-2", "-4", "+5"));
    EXPECT_THAT(UpdateKeys({}), ElementsAre("-1", "-3", "-5"));
}

TEST_F(WatchModelTest, AnotherOrderIsNoChange) {
    UpdateKeys({1, 2, 3});
    EXPECT_THAT(UpdateKeys({3, 1, 2}), IsEmpty());
}

TEST_F(WatchModelTest, EveryMemberCounts) {
    const std::string before = Record(1, "Ada");
    // Address, name, status, position and the three types.
    for (const size_t place : {7, 9, 57, 58, 60, 62, 64}) {
        std::string after = before;
        after[place] = static_cast<char>(after[place] + 1);
        m_Model = WatchModel();
        Update({Decode(before)});
        EXPECT_THAT(Update({Decode(after)}), ElementsAre("~1")) << place;
        EXPECT_THAT(Update({Decode(after)}), IsEmpty()) << place;
    }
}

TEST_F(WatchModelTest, ChangeHasTheNewValuesAndLeavingTheOld) {
    Update({Sender(1, "Ada")});
    EXPECT_STREQ("Grace", m_Model.Update({Sender(1, "Grace")}, {})[0].sender.GetUserName());
    EXPECT_STREQ("Grace", m_Model.Update({}, {})[0].sender.GetUserName());
}

TEST_F(WatchModelTest, KeyThatComesTwiceIsComparedInOrder) {
    Update({Sender(1, "Ada"), Sender(1, "Grace")});
    EXPECT_THAT(Update({Sender(1, "Ada"), Sender(1, "Grace")}), IsEmpty());
    EXPECT_THAT(Update({Sender(1, "Ada")}), ElementsAre("-1"));
}

TEST_F(WatchModelTest, FirstSenderIsChosen) {
    EXPECT_FALSE(m_Model.Chosen());
    UpdateKeys({});
    EXPECT_FALSE(m_Model.Chosen());
    UpdateKeys({7, 8});
    ExpectChosen(7);
}

TEST_F(WatchModelTest, ChoiceMovesBetweenTheEnds) {
    UpdateKeys({7, 8, 9});
    m_Model.Move(-1);
    ExpectChosen(7);
    m_Model.Move(2);
    ExpectChosen(9);
    m_Model.Move(1);
    ExpectChosen(9);
    m_Model.Move(-1);
    ExpectChosen(8);
}

TEST_F(WatchModelTest, ChoiceFollowsItsKey) {
    UpdateKeys({7, 8, 9});
    m_Model.Move(1);
    UpdateKeys({1, 2, 9, 8});
    ExpectChosen(8);
    m_Model.Move(-1);
    ExpectChosen(9);
}

TEST_F(WatchModelTest, NoneIsChosenWhileTheChosenIsAway) {
    UpdateKeys({7, 8, 9});
    m_Model.Move(1);
    UpdateKeys({7, 9});
    EXPECT_FALSE(m_Model.Chosen());
    UpdateKeys({7, 8, 9});
    ExpectChosen(8);
}

TEST_F(WatchModelTest, MoveChoosesTheOneInThePlaceOfTheLost) {
    UpdateKeys({7, 8, 9});
    m_Model.Move(1);
    UpdateKeys({7, 9});
    m_Model.Move(1);
    ExpectChosen(9);
    UpdateKeys({7});
    m_Model.Move(-1);
    ExpectChosen(7);
    UpdateKeys({});
    m_Model.Move(1);
    EXPECT_FALSE(m_Model.Chosen());
}

TEST_F(WatchModelTest, LogKeepsTheLast) {
    for (size_t i = 0; i <= WatchModel::kMaxLog; ++i)
        m_Model.Log({}, std::to_string(i));
    EXPECT_EQ(WatchModel::kMaxLog, m_Model.Entries().size());
    EXPECT_EQ("1", m_Model.Entries().front().text);
    EXPECT_EQ(std::to_string(WatchModel::kMaxLog), m_Model.Entries().back().text);
}

TEST_F(WatchModelTest, LinkIsNewsOnceAReason) {
    LinkState link;
    link.code = -111;
    EXPECT_TRUE(m_Model.SetLink(link));
    link.retry = milliseconds(1000);
    EXPECT_FALSE(m_Model.SetLink(link));
    EXPECT_EQ(milliseconds(1000), m_Model.Link()->retry);
    link.code = -110;
    EXPECT_TRUE(m_Model.SetLink(link));
    LinkState connected;
    connected.connected = true;
    EXPECT_TRUE(m_Model.SetLink(connected));
    EXPECT_FALSE(m_Model.SetLink(connected));
    EXPECT_TRUE(m_Model.SetLink(link));
}

TEST_F(WatchModelTest, AsksAboutTheChosen) {
    EXPECT_FALSE(m_Model.Asked());
    m_Model.AskLogout();
    EXPECT_FALSE(m_Model.Asked());
    UpdateKeys({7, 8});
    m_Model.Move(1);
    m_Model.AskLogout();
    ExpectAsked(8);
    m_Model.EndQuestion();
    EXPECT_FALSE(m_Model.Asked());
}

TEST_F(WatchModelTest, QuestionStaysWhileTheSenderIsTheSame) {
    const std::string before = Record(7, "Ada");
    Update({Sender(6), Decode(before)});
    m_Model.Move(1);
    m_Model.AskLogout();
    // Status, position and the three types.
    for (const size_t place : {57, 58, 60, 62, 64}) {
        std::string after = before;
        after[place] = static_cast<char>(after[place] + 1);
        Update({Decode(after), Sender(9)});
        ExpectAsked(7);
    }
    LinkState link;
    link.connected = true;
    m_Model.SetLink(link);
    ExpectAsked(7);
}

TEST_F(WatchModelTest, QuestionEndsWhenTheSenderLeaves) {
    UpdateKeys({7, 8});
    m_Model.AskLogout();
    UpdateKeys({8});
    EXPECT_FALSE(m_Model.Asked());
    UpdateKeys({7, 8});
    EXPECT_FALSE(m_Model.Asked());
}

TEST_F(WatchModelTest, QuestionEndsWhenTheKeyIsSomeoneElses) {
    const std::string before = Record(7, "Ada");
    // Address and name.
    for (const size_t place : {7, 9}) {
        std::string after = before;
        after[place] = static_cast<char>(after[place] + 1);
        Update({Decode(before)});
        m_Model.AskLogout();
        ExpectAsked(7);
        Update({Decode(after)});
        EXPECT_FALSE(m_Model.Asked()) << place;
    }
}

TEST_F(WatchModelTest, QuestionEndsWithTheLink) {
    LinkState link;
    UpdateKeys({7});
    // The second loss is no news.
    for (int i = 0; i < 2; ++i) {
        m_Model.AskLogout();
        ExpectAsked(7);
        m_Model.SetLink(link);
        EXPECT_FALSE(m_Model.Asked());
    }
}

TEST_F(WatchModelTest, ListIsNotCurrentFromALostLinkToTheNextList) {
    EXPECT_FALSE(m_Model.IsListCurrent());
    UpdateKeys({});
    EXPECT_TRUE(m_Model.IsListCurrent());
    LinkState link;
    m_Model.SetLink(link);
    EXPECT_FALSE(m_Model.IsListCurrent());
    link.connected = true;
    m_Model.SetLink(link);
    EXPECT_FALSE(m_Model.IsListCurrent());
    UpdateKeys({});
    EXPECT_TRUE(m_Model.IsListCurrent());
}

TEST(RetryPauseTest, GrowsToTenSecondsUntilItIsReset) {
    RetryPause pause;
    for (int round = 0; round < 2; ++round) {
        for (const int expected : {500, 1000, 2000, 4000, 8000, 10000, 10000, 10000})
            EXPECT_EQ(milliseconds(expected), pause.Next());
        pause.Reset();
    }
}

// ----------------------------------------------------------------------------------------- pipe

class WatchPipeTest : public ReceiverFixture {
protected:
    void Watch(std::vector<std::string> arguments = {}) {
        arguments.insert(arguments.begin(), "watch");
        m_pProgram = std::make_unique<Screenctl>(With(arguments));
    }

    /// The program, connected, its first two lines taken.
    void WatchServed(const std::vector<std::string>& arguments = {"--every", "3600"}) {
        Serve();
        Watch(arguments);
        ExpectLink("connected");
        Next("list");
    }

    /// The next line, which must be of this type.
    ordered_json Next(const std::string& type) {
        const ordered_json line = Parse(m_pProgram->Line());
        EXPECT_EQ(1, line["version"]);
        EXPECT_EQ(type, line["type"]) << line;
        EXPECT_THAT(line["time"].get<std::string>(),
                    MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}"
                                 "[+-][0-9]{2}:[0-9]{2}"));
        return line;
    }

    ordered_json ExpectLink(const std::string& state) {
        const ordered_json line = Next("link");
        EXPECT_EQ(state, line["state"]) << line;
        return line;
    }

    void ExpectNotification(int first, int second, int third) {
        EXPECT_EQ(ordered_json({first, second, third}), Next("notification")["values"]);
    }

    void ExpectEnd(int signal) {
        m_pProgram->Signal(signal);
        EXPECT_EQ(0, m_pProgram->ExitCode());
        EXPECT_EQ("", m_pProgram->Err());
    }

    std::unique_ptr<Screenctl> m_pProgram;
};

constexpr const char* kChangeKeys =
    "version type time key name address status position os app pointer ";

TEST_F(WatchPipeTest, BeginsWithTheLinkAndTheList) {
    Serve();
    m_pReceiver->AddSender(MakeSender(7, "Ada"));
    m_pReceiver->AddSender(MakeSender(8, "a\x1B[31m\nb"));
    Watch();
    EXPECT_EQ("version type time state ", KeysOf(ExpectLink("connected")));
    const ordered_json list = Next("list");
    EXPECT_EQ("version type time senders ", KeysOf(list));
    ASSERT_EQ(2u, list["senders"].size());
    EXPECT_EQ(Parse(R"({"key":7,"name":"Ada","address":"192.0.2.7","status":1,"position":128,)"
                    R"("os":0,"app":0,"pointer":0})"),
              list["senders"][0]);
    EXPECT_EQ("a\\x1B[31m\\x0Ab", list["senders"][1]["name"]);
}

TEST_F(WatchPipeTest, EmptyListIsAnEmptyArray) {
    Serve();
    Watch();
    ExpectLink("connected");
    EXPECT_EQ(ordered_json::array(), Next("list")["senders"]);
}

TEST_F(WatchPipeTest, NotificationsAndChangesComeAsTheyHappen) {
    WatchServed();
    m_pReceiver->AddSender(MakeSender(7, "Ada"));
    ExpectNotification(1, 7, 1);
    const ordered_json joined = Next("joined");
    EXPECT_EQ(kChangeKeys, KeysOf(joined));
    EXPECT_EQ("Ada", joined["name"]);
    m_pReceiver->ChangeSender(7, [](simulator::Sender& sender) { sender.userName = "Grace"; });
    ExpectNotification(3, 7, 1);
    const ordered_json changed = Next("changed");
    EXPECT_EQ(kChangeKeys, KeysOf(changed));
    EXPECT_EQ("Grace", changed["name"]);
    m_pReceiver->RemoveSender(7);
    ExpectNotification(2, 7, 0);
    const ordered_json left = Next("left");
    EXPECT_EQ(kChangeKeys, KeysOf(left));
    EXPECT_EQ(7, left["key"]);
}

TEST_F(WatchPipeTest, NotificationKeepsItsThreeValues) {
    WatchServed();
    m_pReceiver->Notify(-2147483647 - 1, 2147483647, -1);
    EXPECT_EQ("version type time values ", KeysOf(Next("notification")));
    m_pReceiver->Notify(100, 0, 200);
    ExpectNotification(100, 0, 200);
}

TEST_F(WatchPipeTest, ListIsReadAtTheInterval) {
    WatchServed({"--every", "0.1"});
    EXPECT_TRUE(WaitFor([&] { return m_pReceiver->FramesReceived(kGetSenderList) >= 4; }));
    ExpectEnd(SIGTERM);
    EXPECT_EQ("", m_pProgram->Out());
}

TEST_F(WatchPipeTest, ChangeDuringAListIsInTheNextOne) {
    WatchServed();
    simulator::Fault fault;
    fault.kind = simulator::FaultKind::Delay;
    fault.command = kGetSenderList;
    fault.count = 1;
    ASSERT_TRUE(m_pReceiver->FaultOn(fault));
    const uint64_t before = m_pReceiver->FramesReceived(kGetSenderList);
    m_pReceiver->AddSender(MakeSender(7, "Ada"));
    ASSERT_TRUE(WaitFor([&] { return m_pReceiver->FramesReceived(kGetSenderList) > before; }));
    m_pReceiver->AddSender(MakeSender(8, "Grace"));
    ExpectNotification(1, 7, 1);
    ExpectNotification(1, 8, 1);
    EXPECT_EQ(7, Next("joined")["key"]);
    EXPECT_EQ(8, Next("joined")["key"]);
}

TEST_F(WatchPipeTest, ManyNotificationsAreFewLists) {
    WatchServed();
    simulator::Fault fault;
    fault.kind = simulator::FaultKind::Flood;
    fault.rate = 2000;
    ASSERT_TRUE(m_pReceiver->FaultOn(fault));
    const auto begin = std::chrono::steady_clock::now();
    const uint64_t before = m_pReceiver->FramesReceived(kGetSenderList);
    ASSERT_TRUE(WaitFor([&] {
        m_pProgram->Out();
        return m_pReceiver->FramesReceived(kGetSenderList) >= before + 20;
    }));
    // 20 lists have 19 gaps; the first may have been asked for before the beginning.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 18 * milliseconds(50));
}

/// Until its output is read, the program takes what comes, up to a bound, and asks for nothing.
class WatchUnreadTest : public WatchPipeTest {
protected:
    static constexpr int kMaxWaiting = 100000;
    // More lines than a pipe holds.
    static constexpr int kFull = 3000;

    void Notify(int count) {
        for (int i = 0; i < count; ++i)
            m_pReceiver->Notify(1, i, 0);
    }

    uint64_t Lists() const { return m_pReceiver->FramesReceived(kGetSenderList); }

    /// No list is asked for any more, though it is time again and again.
    bool StandsStill() const {
        uint64_t lists = 0;
        auto since = std::chrono::steady_clock::now();
        return WaitFor([&] {
            const auto now = std::chrono::steady_clock::now();
            if (lists != Lists()) {
                lists = Lists();
                since = now;
            }
            return now - since >= sr_test::Stretched(milliseconds(1000));
        });
    }

    /// Nothing is under way from the receiver to its clients.
    bool AllHasArrived() const {
        in_addr address = {};
        inet_pton(AF_INET, Host().c_str(), &address);
        std::array<char, 16> receiver = {};
        std::snprintf(receiver.data(), receiver.size(), "%08X:4E1C", address.s_addr);
        std::ifstream file("/proc/net/tcp");
        for (std::string line; std::getline(file, line);) {
            if (line.find(receiver.data()) != std::string::npos &&
                line.find(" 01 00000000:00000000 ") == std::string::npos &&
                line.find(" 0A ") == std::string::npos)
                return false;
        }
        return true;
    }
};

TEST_F(WatchUnreadTest, NoListIsReadMeanwhile) {
    WatchServed({"--every", "0.1"});
    Notify(kFull);
    ASSERT_TRUE(StandsStill());
    const uint64_t before = Lists();
    EXPECT_TRUE(WaitFor([&] {
        m_pProgram->Out();
        return Lists() > before;
    }));
}

TEST_F(WatchUnreadTest, NotificationsPastABoundAreCounted) {
    constexpr int kSent = kFull + kMaxWaiting + 1000;
    WatchServed({"--every", "0.1"});
    Notify(kFull);
    ASSERT_TRUE(StandsStill());
    Notify(kSent - kFull);
    ASSERT_TRUE(WaitFor([&] { return AllHasArrived(); }, milliseconds(60000)));
    m_pReceiver->AddSender(MakeSender(7, "Ada"));
    ASSERT_TRUE(WaitFor([&] { return m_pProgram->Out().find("\"joined\"") != std::string::npos; },
                        milliseconds(60000)));
    size_t kept = 0;
    ordered_json lost;
    for (const std::string& line : Lines(m_pProgram->Out())) {
        if (line.find("\"notification\"") != std::string::npos)
            ++kept;
        if (line.find("\"lost\"") != std::string::npos)
            lost = Parse(line);
    }
    EXPECT_EQ("version type time count ", KeysOf(lost));
    EXPECT_GT(lost["count"], 0u);
    EXPECT_EQ(kSent + 1u, kept + lost["count"].get<size_t>());
}

TEST_F(WatchPipeTest, SurvivesARestartOfTheReceiver) {
    Serve();
    m_pReceiver->AddSender(MakeSender(1, "Ada"));
    m_pReceiver->AddSender(MakeSender(2, "Grace"));
    Watch({"--every", "3600"});
    ExpectLink("connected");
    Next("list");
    m_pReceiver->Stop();
    const ordered_json lost = ExpectLink("lost");
    EXPECT_EQ("version type time state code message retry_s ", KeysOf(lost));
    EXPECT_LT(lost["code"], 0);
    EXPECT_NE("", lost["message"]);
    EXPECT_EQ(0.5, lost["retry_s"]);
    EXPECT_EQ(-111, ExpectLink("lost")["code"]);
    m_pReceiver->RemoveSender(1);
    m_pReceiver->AddSender(MakeSender(3, "Barbara"));
    ASSERT_FALSE(m_pReceiver->Start());
    ExpectLink("connected");
    EXPECT_EQ(1, Next("left")["key"]);
    EXPECT_EQ(3, Next("joined")["key"]);
    m_pReceiver->Notify(4, 5, 6);
    ExpectNotification(4, 5, 6);
}

TEST_F(WatchPipeTest, StartsBeforeItsReceiver) {
    Watch();
    const ordered_json lost = ExpectLink("lost");
    EXPECT_EQ(-111, lost["code"]);
    EXPECT_EQ(0.5, lost["retry_s"]);
    Serve();
    ExpectLink("connected");
    Next("list");
}

TEST_F(WatchPipeTest, PausesGrowUntilAnAnswer) {
    Serve();
    simulator::Fault fault;
    fault.kind = simulator::FaultKind::CloseOnAccept;
    ASSERT_TRUE(m_pReceiver->FaultOn(fault));
    Watch();
    for (const double pause : {0.5, 1.0, 2.0}) {
        const auto before = std::chrono::steady_clock::now();
        ExpectLink("connected");
        EXPECT_EQ(pause, ExpectLink("lost")["retry_s"]);
        if (pause > 0.5) {
            EXPECT_GE(std::chrono::steady_clock::now() - before, milliseconds(100));
        }
    }
    m_pReceiver->FaultsOff();
    ExpectLink("connected");
    Next("list");
    m_pReceiver->DropClients();
    EXPECT_EQ(0.5, ExpectLink("lost")["retry_s"]);
}

TEST_F(WatchPipeTest, SilentReceiverIsALostLink) {
    simulator::Fault fault;
    fault.kind = simulator::FaultKind::Silent;
    fault.command = kGetSenderList;
    fault.count = 1;
    Serve();
    ASSERT_TRUE(m_pReceiver->FaultOn(fault));
    Watch();
    ExpectLink("connected");
    EXPECT_EQ(-6528101, ExpectLink("lost")["code"]);
    ExpectLink("connected");
    Next("list");
}

TEST_F(WatchPipeTest, EndsByASignalWithSuccess) {
    for (const int signal : {SIGINT, SIGTERM}) {
        WatchServed();
        ExpectEnd(signal);
        m_pReceiver.reset();
    }
}

TEST_F(WatchPipeTest, EndsByASignalWithoutAReceiver) {
    Watch();
    ExpectLink("lost");
    ExpectEnd(SIGINT);
}

TEST_F(WatchPipeTest, EndsWhenNobodyReadsItAnyMore) {
    WatchServed();
    m_pProgram->CloseOutput();
    EXPECT_EQ(0, m_pProgram->ExitCode());
    EXPECT_EQ("", m_pProgram->Err());
}

TEST_F(WatchPipeTest, AddressMayBeAnArgument) {
    Serve();
    m_pProgram = std::make_unique<Screenctl>(std::vector<std::string>{"watch", Host()});
    ExpectLink("connected");
}

TEST_F(WatchPipeTest, NameForAnAddressIsRefused) {
    const Ended ended = RunScreenctl({"watch", "localhost"});
    EXPECT_EQ(2, ended.exit);
    EXPECT_EQ("", ended.out);
    EXPECT_THAT(ended.err, HasSubstr("not a dotted IPv4 address"));
}

TEST_F(WatchPipeTest, TraceThatCannotBeWrittenIsRefused) {
    const Ended ended = Run({"watch", "--trace", "/nowhere/at/all"});
    EXPECT_EQ(2, ended.exit);
    EXPECT_THAT(ended.err, HasSubstr("cannot be opened"));
}

TEST_F(WatchPipeTest, IntervalMustBeATime) {
    for (const char* every : {"0", "-1", "x", "nan"})
        EXPECT_EQ(2, Run({"watch", "--every", every}).exit) << every;
}

TEST_F(WatchPipeTest, FullDiskIsWrongUsage) {
    Serve();
    const std::string command =
        std::string("'") + SCREENCTL_PROGRAM + "' watch " + Host() + " >/dev/full 2>/dev/null";
    const int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(2, WEXITSTATUS(status));
}

// ------------------------------------------------------------------------------------- terminal

/// What a command prints. `status`: how it ended.
std::string Capture(const std::string& command, int* status = nullptr) {
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "re");
    if (pipe == nullptr)
        return output;
    std::array<char, 4096> chunk;
    while (const size_t size = fread(chunk.data(), 1, chunk.size(), pipe))
        output.append(chunk.data(), size);
    const int ended = pclose(pipe);
    if (status != nullptr)
        *status = ended;
    return output;
}

/// A terminal of its own, in a tmux server of its own, in which a shell runs the program and then
/// tells how it ended and whether the terminal's settings are those from before.
class WatchTerminalTest : public ReceiverFixture {
protected:
    void SetUp() override {
        int status = 0;
        Capture("tmux -V", &status);
        if (status != 0)
            GTEST_SKIP() << "tmux is not installed";
        char folder[] = "/tmp/watch-test-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(folder));
        m_strFolder = folder;
        m_strTmux = "TMUX_TMPDIR=" + m_strFolder + " tmux -u -L watch -f /dev/null ";
    }

    void TearDown() override {
        if (m_strFolder.empty())
            return;
        Capture(m_strTmux + "kill-server");
        Capture("rm -rf " + m_strFolder);
    }

    /// `arguments` and `environment` as a shell takes them.
    void RunThere(const std::string& arguments, const std::string& environment = "") {
        const std::string script = m_strFolder + "/script";
        std::ofstream(script)
            << "trap : INT QUIT\n"
            << "echo before\n"
            << "settings=$(stty -g)\n"
            << "sh -c 'echo $$ >" << m_strFolder << "/pid; exec \"$0\" \"$@\"' env " << environment
            << " '" << SCREENCTL_PROGRAM << "' watch " << arguments << "\n"
            << "exit=$?\n"
            << "[ \"$settings\" = \"$(stty -g)\" ] && echo \"restored, exit code $exit\"\n"
            << "exec cat\n";
        const std::string output =
            Capture(m_strTmux + "new-session -d -x 80 -y 24 'exec sh " + script + "'");
        ASSERT_EQ("", output);
    }

    void Watch() { RunThere("--every 3600 " + Host()); }

    void WatchServed() {
        Serve();
        m_pReceiver->AddSender(MakeSender(1, "Ada"));
        m_pReceiver->AddSender(MakeSender(2, "Grace"));
        Watch();
        ASSERT_TRUE(Shows("> .*1  Ada "));
    }

    void Delay(int command, milliseconds time) {
        simulator::Fault fault;
        fault.kind = simulator::FaultKind::Delay;
        fault.command = command;
        fault.time = time;
        ASSERT_TRUE(m_pReceiver->FaultOn(fault));
    }

    uint64_t Received(int command) const {
        return m_pReceiver->FramesReceived(static_cast<uint8_t>(command));
    }

    /// Ends the program, which shows senders, with a signal.
    void ExpectRestoredBy(int signal) {
        ASSERT_GT(Pid(), 0);
        kill(Pid(), signal);
        ExpectRestored();
    }

    std::string Screen() { return Capture(m_strTmux + "capture-pane -p"); }

    static bool Has(const std::string& screen, const std::string& regex) {
        for (const std::string& line : Lines(screen)) {
            if (::testing::Matches(::testing::ContainsRegex(regex))(line))
                return true;
        }
        return false;
    }

    /// Waits until some line has this in it; an extended regular expression.
    ::testing::AssertionResult Shows(const std::string& regex,
                                     milliseconds limit = milliseconds(20000)) {
        std::string screen;
        const bool found = WaitFor(
            [&] {
                screen = Screen();
                return Has(screen, regex);
            },
            limit);
        if (found)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << regex << " is not in:\n" << screen;
    }

    void Press(const std::string& keys) { Capture(m_strTmux + "send-keys " + keys); }

    void ExpectRestored(int exit = 0) {
        EXPECT_TRUE(Shows("^restored, exit code " + std::to_string(exit) + "$"));
        EXPECT_TRUE(Shows("^before$"));
        EXPECT_EQ("0 1\n",
                  Capture(m_strTmux + "display-message -p '#{alternate_on} #{cursor_flag}'"));
    }

    pid_t Pid() const {
        pid_t pid = -1;
        std::ifstream(m_strFolder + "/pid") >> pid;
        return pid;
    }

    std::string m_strFolder;
    std::string m_strTmux;
};

TEST_F(WatchTerminalTest, ShowsLinkSendersLogAndKeys) {
    WatchServed();
    const std::string screen = Screen();
    EXPECT_TRUE(Has(screen, "^ " + Host() + ": connected .* last answer [0-9:]{8}$")) << screen;
    EXPECT_TRUE(Has(screen, "KEY  NAME .* ADDRESS .* STATUS  POSITION$")) << screen;
    EXPECT_TRUE(Has(screen, "^-- 2 senders --")) << screen;
    EXPECT_TRUE(Has(screen, "^ [0-9:]{8}\\.[0-9]{3}  connected$")) << screen;
    EXPECT_TRUE(Has(screen, "p: play .* q: quit$")) << screen;
}

TEST_F(WatchTerminalTest, NamesAreSafeAndAligned) {
    Serve();
    m_pReceiver->AddSender(MakeSender(1, "日本語"));
    m_pReceiver->AddSender(MakeSender(2, "a\x1B[2Jb"));
    m_pReceiver->AddSender(MakeSender(3, "e\xCC\x81"));
    Watch();
    ASSERT_TRUE(Shows("^    3  "));
    const auto row = [](const std::string& begin, size_t blanks, const std::string& address) {
        return begin + std::string(blanks, ' ') + address + "             1       128";
    };
    EXPECT_THAT(Screen(), HasSubstr(row(">   1  日本語", 34, "192.0.2.1")));
    EXPECT_THAT(Screen(), HasSubstr(row("    2  a\\x1B[2Jb", 31, "192.0.2.2")));
    EXPECT_THAT(Screen(), HasSubstr(row("    3  e\xCC\x81", 39, "192.0.2.3")));
}

TEST_F(WatchTerminalTest, JoinAppearsWithoutAKey) {
    WatchServed();
    m_pReceiver->AddSender(MakeSender(5, "Barbara"));
    EXPECT_TRUE(Shows("^    5  Barbara "));
    EXPECT_TRUE(Shows("notification 1, 5, 1$"));
    EXPECT_TRUE(Shows("joined: 5 Barbara$"));
}

TEST_F(WatchTerminalTest, KeysPlayAndStopTheChosen) {
    WatchServed();
    Press("j");
    ASSERT_TRUE(Shows("^>   2  Grace "));
    Press("p");
    EXPECT_TRUE(WaitFor([&] { return m_pReceiver->IsShown(2); }));
    EXPECT_EQ(0, m_pReceiver->ShownOption(2));
    EXPECT_TRUE(Shows("play 2: done"));
    EXPECT_TRUE(Shows("^>   2  Grace .* 2         0$"));
    Press("s");
    EXPECT_TRUE(WaitFor([&] { return !m_pReceiver->IsShown(2); }));
    EXPECT_TRUE(Shows("stop 2: done"));
    Press("s");
    EXPECT_TRUE(Shows("stop 2: the receiver answered with the result 3"));
}

TEST_F(WatchTerminalTest, LogoutAsksFirst) {
    WatchServed();
    for (const char* key : {"n", "x", "Y", "Enter", "l"}) {
        Press("l");
        ASSERT_TRUE(Shows("log out 1 Ada\\? \\(y/n\\)"));
        Press(key);
        ASSERT_TRUE(Shows("log out 1: not done")) << key;
    }
    EXPECT_EQ(0u, Received(kForceLogout));
    Press("l");
    ASSERT_TRUE(Shows("log out 1 Ada\\? \\(y/n\\)"));
    Press("y");
    EXPECT_TRUE(WaitFor([&] { return m_pReceiver->Senders().size() == 1; }));
    EXPECT_TRUE(Shows("log out 1: done"));
    EXPECT_TRUE(Shows("left: 1 Ada"));
}

TEST_F(WatchTerminalTest, YesIsOnlyForTheSenderThatWasShown) {
    WatchServed();
    Press("l");
    ASSERT_TRUE(Shows("log out 1 Ada\\? \\(y/n\\)"));
    m_pReceiver->Stop();
    ASSERT_TRUE(Shows("log out 1: not done, the sender or the link has changed"));
    m_pReceiver->ChangeSender(1, [](simulator::Sender& sender) { sender.userName = "Victim"; });
    ASSERT_FALSE(m_pReceiver->Start());
    ASSERT_TRUE(Shows("^>   1  Victim "));
    Press("y");
    Press("j");
    EXPECT_TRUE(Shows("^>   2  Grace "));
    Press("l");
    ASSERT_TRUE(Shows("log out 2 Grace\\? \\(y/n\\)"));
    m_pReceiver->ChangeSender(2, [](simulator::Sender& sender) { sender.userName = "Victim"; });
    ASSERT_TRUE(Shows("log out 2: not done, the sender or the link has changed"));
    Press("y");
    Press("k");
    EXPECT_TRUE(Shows("^>   1  Victim "));
    EXPECT_EQ(0u, Received(kForceLogout));
}

TEST_F(WatchTerminalTest, QuestionStaysInSight) {
    WatchServed();
    Delay(kStartPlay, milliseconds(1500));
    Press("p");
    ASSERT_TRUE(WaitFor([&] { return Received(kStartPlay) == 1; }));
    Press("l");
    // The list after the answer.
    ASSERT_TRUE(Shows("^>   1  Ada .* 2 +0$"));
    EXPECT_TRUE(Has(Screen(), "log out 1 Ada\\? \\(y/n\\)"));
    EXPECT_FALSE(Has(Screen(), "play 1: done"));
}

TEST_F(WatchTerminalTest, NamesAreSafeInTheLogAndInTheQuestion) {
    Serve();
    Watch();
    ASSERT_TRUE(Shows("^-- 0 senders --"));
    m_pReceiver->AddSender(MakeSender(5, "a\x1B[2Jb"));
    EXPECT_TRUE(Shows("joined: 5 a.x1B\\[2Jb$"));
    m_pReceiver->ChangeSender(5, [](simulator::Sender& sender) {
        sender.userName =
            "\x9B"
            "31m";
    });
    EXPECT_TRUE(Shows("changed: 5 .x9B31m$"));
    Press("l");
    EXPECT_TRUE(Shows("log out 5 .x9B31m\\? \\(y/n\\)"));
    m_pReceiver->RemoveSender(5);
    EXPECT_TRUE(Shows("left: 5 .x9B31m$"));
}

TEST_F(WatchTerminalTest, ArrowsChooseAndTheChoiceIsKeptByItsKey) {
    WatchServed();
    Press("Down");
    ASSERT_TRUE(Shows("^>   2  Grace "));
    m_pReceiver->RemoveSender(1);
    ASSERT_TRUE(Shows("left: 1 Ada"));
    EXPECT_TRUE(Shows("^>   2  Grace "));
    m_pReceiver->AddSender(MakeSender(3, "Barbara"));
    ASSERT_TRUE(Shows("^    3  Barbara "));
    Press("Down");
    ASSERT_TRUE(Shows("^>   3  Barbara "));
    Press("Up");
    EXPECT_TRUE(Shows("^>   2  Grace "));
}

TEST_F(WatchTerminalTest, NothingIsDoneWhenTheChosenHasLeft) {
    WatchServed();
    m_pReceiver->RemoveSender(1);
    ASSERT_TRUE(Shows("left: 1 Ada"));
    Press("p");
    EXPECT_TRUE(Shows("no sender is chosen"));
    EXPECT_EQ(0u, m_pReceiver->FramesReceived(kStartPlay));
}

TEST_F(WatchTerminalTest, RefreshReadsTheListAtOnce) {
    WatchServed();
    const uint64_t before = m_pReceiver->FramesReceived(kGetSenderList);
    Press("r");
    EXPECT_TRUE(WaitFor([&] { return m_pReceiver->FramesReceived(kGetSenderList) > before; }));
}

TEST_F(WatchTerminalTest, RefreshConnectsAtOnce) {
    Serve();
    simulator::Fault fault;
    fault.kind = simulator::FaultKind::CloseOnAccept;
    ASSERT_TRUE(m_pReceiver->FaultOn(fault));
    Watch();
    ASSERT_TRUE(Shows("next try in"));
    // By itself it would take more than two minutes.
    EXPECT_TRUE(WaitFor(
        [&] {
            Press("r");
            return m_pReceiver->GetStatistics().clients >= 15;
        },
        milliseconds(30000)));
}

TEST_F(WatchTerminalTest, OrderIsNotKeptForTheNextConnection) {
    WatchServed();
    Delay(kStartPlay, milliseconds(60000));
    Press("p");
    ASSERT_TRUE(WaitFor([&] { return Received(kStartPlay) == 1; }));
    Press("s");
    Press("j");
    ASSERT_TRUE(Shows("^>   2  Grace "));
    m_pReceiver->DropClients();
    EXPECT_TRUE(Shows("stop 1: failed, -"));
    ASSERT_TRUE(Shows(": connected "));
    const uint64_t before = Received(kGetSenderList);
    Press("r");
    // The second one would come behind the order.
    ASSERT_TRUE(WaitFor([&] { return Received(kGetSenderList) > before; }));
    Press("r");
    ASSERT_TRUE(WaitFor([&] { return Received(kGetSenderList) > before + 1; }));
    EXPECT_EQ(0u, Received(kStopPlay));
}

TEST_F(WatchTerminalTest, NothingIsDoneBeforeTheListOfTheNextConnection) {
    WatchServed();
    Delay(kGetSenderList, milliseconds(60000));
    m_pReceiver->DropClients();
    ASSERT_TRUE(WaitFor([&] { return m_pReceiver->GetStatistics().clients == 2; }));
    EXPECT_TRUE(WaitFor(
        [&] {
            Press("p");
            return Has(Screen(), "play: the list has not come yet");
        },
        milliseconds(20000)));
    EXPECT_EQ(0u, Received(kStartPlay));
}

TEST_F(WatchTerminalTest, LastAnswerIsNotTheLastDrawing) {
    WatchServed();
    const std::string title = Lines(Screen())[0];
    ASSERT_THAT(title, HasSubstr("last answer"));
    const auto begin = std::chrono::system_clock::now();
    ASSERT_TRUE(
        WaitFor([&] { return std::chrono::system_clock::now() - begin > milliseconds(1500); }));
    Press("j");
    ASSERT_TRUE(Shows("^>   2  Grace "));
    EXPECT_EQ(title, Lines(Screen())[0]);
}

TEST_F(WatchTerminalTest, SurvivesARestartOfTheReceiver) {
    WatchServed();
    m_pReceiver->Stop();
    ASSERT_TRUE(Shows(": lost, "));
    EXPECT_TRUE(Shows("no connection: -[0-9]+ "));
    EXPECT_TRUE(Shows("next try in [0-9]+ s"));
    Press("p");
    EXPECT_TRUE(Shows("play: not connected"));
    m_pReceiver->AddSender(MakeSender(3, "Barbara"));
    ASSERT_FALSE(m_pReceiver->Start());
    EXPECT_TRUE(Shows(": connected "));
    EXPECT_TRUE(Shows("^    3  Barbara "));
}

TEST_F(WatchTerminalTest, StartsBeforeItsReceiver) {
    Watch();
    ASSERT_TRUE(Shows("no connection: -111 "));
    Serve();
    EXPECT_TRUE(Shows(": connected "));
}

TEST_F(WatchTerminalTest, TakesAnotherSize) {
    WatchServed();
    Capture(m_strTmux + "resize-window -x 60 -y 10");
    EXPECT_TRUE(Shows("^-- 2 senders -{47}$"));
    EXPECT_TRUE(Shows("^>   1  Ada {17}192\\.0\\.2\\.1 {13}1 {7}128$"));
    Capture(m_strTmux + "resize-window -x 120 -y 40");
    EXPECT_TRUE(Shows("^-- 2 senders -{107}$"));
    Press("j");
    EXPECT_TRUE(Shows("^>   2  Grace {75}192"));
}

TEST_F(WatchTerminalTest, BearsATinySize) {
    WatchServed();
    Capture(m_strTmux + "resize-window -x 5 -y 2");
    EXPECT_TRUE(Shows("^ 127…$"));
    Capture(m_strTmux + "resize-window -x 80 -y 24");
    EXPECT_TRUE(Shows("^>   1  Ada "));
}

TEST_F(WatchTerminalTest, LongListFollowsTheChoice) {
    Serve();
    for (int key = 1; key <= 100; ++key)
        m_pReceiver->AddSender(MakeSender(key, "Name"));
    Watch();
    ASSERT_TRUE(Shows("^-- 100 senders --"));
    EXPECT_FALSE(Has(Screen(), "  40  Name "));
    Press("-N 39 j");
    EXPECT_TRUE(Shows("^>  40  Name "));
}

TEST_F(WatchTerminalTest, StaysAliveWhileItWaits) {
    WatchServed();
    simulator::Fault fault;
    fault.kind = simulator::FaultKind::Silent;
    fault.command = kStartPlay;
    ASSERT_TRUE(m_pReceiver->FaultOn(fault));
    Press("p");
    ASSERT_TRUE(Shows("waiting for an answer"));
    Press("j");
    EXPECT_TRUE(Shows("^>   2  Grace "));
    Press("q");
    // The request would go on for 10 s.
    EXPECT_TRUE(Shows("^restored, exit code 0$", milliseconds(7000)));
}

TEST_F(WatchTerminalTest, RequestWithoutAnAnswerIsToldAndTheLinkRenewed) {
    WatchServed();
    simulator::Fault fault;
    fault.kind = simulator::FaultKind::Silent;
    fault.command = kStartPlay;
    ASSERT_TRUE(m_pReceiver->FaultOn(fault));
    Press("p");
    EXPECT_TRUE(Shows("play 1: failed, -6528101 ", milliseconds(40000)));
    EXPECT_TRUE(Shows(": connected "));
}

TEST_F(WatchTerminalTest, QuitRestoresTheTerminal) {
    WatchServed();
    Press("q");
    ExpectRestored();
}

TEST_F(WatchTerminalTest, CtrlCRestoresTheTerminal) {
    WatchServed();
    Press("C-c");
    ExpectRestored();
}

TEST_F(WatchTerminalTest, CtrlBackslashRestoresTheTerminal) {
    WatchServed();
    Press("'C-\\'");
    ExpectRestored();
}

TEST_F(WatchTerminalTest, TerminationRestoresTheTerminal) {
    WatchServed();
    ExpectRestoredBy(SIGTERM);
}

TEST_F(WatchTerminalTest, HangUpRestoresTheTerminal) {
    WatchServed();
    ExpectRestoredBy(SIGHUP);
}

TEST_F(WatchTerminalTest, CtrlSStopsNothing) {
    WatchServed();
    Press("C-s");
    m_pReceiver->AddSender(MakeSender(5, "Barbara"));
    EXPECT_TRUE(Shows("^    5  Barbara "));
    ExpectRestoredBy(SIGTERM);
}

TEST_F(WatchTerminalTest, EndsWithItsTerminal) {
    WatchServed();
    const pid_t pid = Pid();
    ASSERT_GT(pid, 0);
    Capture(m_strTmux + "kill-server");
    EXPECT_TRUE(WaitFor([&] { return m_pReceiver->ClientCount() == 0; }));
    EXPECT_TRUE(WaitFor([&] { return kill(pid, 0) == -1; }));
}

TEST_F(WatchTerminalTest, JsonPrintsLinesThereToo) {
    Serve();
    RunThere("--json " + Host());
    EXPECT_TRUE(Shows("^\\{\"version\":1,\"type\":\"link\","));
}

TEST_F(WatchTerminalTest, NameForAnAddressIsRefusedInTheOpen) {
    RunThere("localhost");
    EXPECT_TRUE(Shows("\"localhost\" is not a dotted IPv4 address"));
    ExpectRestored(2);
}

TEST_F(WatchTerminalTest, UnknownTerminalIsRefused) {
    RunThere(Host(), "TERM=nonsense");
    EXPECT_TRUE(Shows("The terminal type \"nonsense\" is not known"));
    ExpectRestored(2);
}

TEST_F(WatchTerminalTest, TerminalWithoutAPlaceForTheCursorIsRefused) {
    RunThere(Host(), "TERM=dumb");
    EXPECT_TRUE(Shows("The terminal type \"dumb\" is not known or cannot fill a screen: "));
    ExpectRestored(2);
}

TEST_F(WatchTerminalTest, TraceOverTheScreenIsRefused) {
    RunThere("--trace - " + Host());
    EXPECT_TRUE(Shows("The trace would be written over the screen"));
    ExpectRestored(2);
}

}  // namespace
}  // namespace screenctl_test
