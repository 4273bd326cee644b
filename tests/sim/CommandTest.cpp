#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "SimulatorFixture.h"
#include "simulator/Action.h"

namespace {

using namespace sim_test;
using simulator::CutEnd;
using simulator::Fault;
using simulator::FaultKind;
using simulator::GarbagePlace;
using simulator::ReceiverSimulator;

const std::string kInt32 = "a whole number from -2147483648 to 2147483647";
const std::string kByte = "a whole number from 0 to 255";
const std::string kWord16 = "a whole number from 0 to 65535";
const std::string kName = "text of at most 47 bytes without control characters";
const std::string kKinds =
    "silent, delay, wrong-code, twice, unasked, cut, trickle, garbage, false-count, open-name, "
    "close-on-accept, never-read, flood";
const std::string kRequests =
    "GetSenderList, StartPlayImage, StopPlayImage, RefreshConfCtrlTimer, QuitConfCtrl, "
    "GetNonLocalSenderList, GetValidSenderList, ForceSenderLogout, GetModeratorInfo, "
    "SetModeratorInfo";
const std::string kCommands =
    "join, leave, change, show, hide, moderator, notify, drop, fault on, fault off, state, "
    "statistics, received, help";

const std::string kEmptyState =
    R"(ok {"senders":[],"moderator":{"id":0,"flag":0},"control":0,"faults":[],"clients":0})";

bool IsPrintable(const std::string& line) {
    return std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

struct LineAndAnswer {
    std::string line;
    std::string answer;
};

class CommandTest : public SimulatorFixture {
protected:
    CommandTest() { m_pSim = std::make_unique<ReceiverSimulator>(m_Options); }

    std::string Do(const std::string& line) { return m_pSim->Execute(line); }

    void Prepare(const std::vector<std::string>& lines) {
        for (const std::string& line : lines)
            ASSERT_EQ("ok", Do(line)) << line;
    }

    void ExpectAnswers(const std::vector<LineAndAnswer>& expected) {
        for (const auto& [line, answer] : expected)
            EXPECT_EQ(answer, Do(line)) << line;
    }

    /// Each is answered with this error and changes nothing.
    void ExpectErrors(const std::vector<LineAndAnswer>& expected) {
        const std::string before = Do("state");
        for (const auto& [line, error] : expected)
            EXPECT_EQ("error " + error, Do(line)) << line;
        EXPECT_EQ(before, Do("state"));
    }
};

// --- What the commands do ---

TEST_F(CommandTest, JoinSetsAllFields) {
    Prepare({R"(join -7 name="Ada Lovelace" address=1.2.3.4 status=65535 position=255 os=1 app=2 )"
             "pointer=3 local=true valid=false"});
    EXPECT_EQ(R"(ok {"senders":[{"key":-7,"name":"Ada Lovelace","address":"1.2.3.4",)"
              R"("status":65535,"position":255,"os":1,"app":2,"pointer":3,"local":true,)"
              R"("valid":false,"shown":null}],"moderator":{"id":0,"flag":0},"control":0,)"
              R"("faults":[],"clients":0})",
              Do("state"));
}

TEST_F(CommandTest, JoinWithAKeyAloneIsTheSampleSender) {
    Prepare({"join 4"});
    const Sender sample = simulator::SampleSender(4);
    ASSERT_EQ(1U, m_pSim->Senders().size());
    const Sender joined = m_pSim->Senders().front();
    EXPECT_EQ(4, joined.key);
    EXPECT_EQ(sample.userName, joined.userName);
    EXPECT_EQ(sample.address, joined.address);
    EXPECT_FALSE(joined.valid);
    EXPECT_EQ(sample.osType, joined.osType);
}

TEST_F(CommandTest, ChangeLeavesWhatIsNotGiven) {
    Prepare(
        {"join 7 name=a address=1.2.3.4 status=5 position=6 os=1 app=2 pointer=3 local=true "
         "valid=true",
         "change 7 name=b os=9"});
    const Sender sender = m_pSim->Senders().at(0);
    EXPECT_EQ("b", sender.userName);
    EXPECT_EQ(9, sender.osType);
    EXPECT_EQ(0x01020304U, sender.address);
    EXPECT_EQ(5, sender.status);
    EXPECT_EQ(6, sender.splitScreen);
    EXPECT_EQ(2, sender.appType);
    EXPECT_EQ(3, sender.pointerInputType);
    EXPECT_TRUE(sender.local);
    EXPECT_TRUE(sender.valid);
}

TEST_F(CommandTest, EveryCommandIsSeenOnTheWire) {
    StartAndConnect();
    Prepare({"join 7 status=3 valid=true", "change 7 status=4", "show 7 5", "hide 7",
             "moderator -2 9", "notify 1 -2147483648 2147483647", "leave 7"});
    const std::string expected = NotifyFrame("00 00 00 01 00 00 00 07 00 00 00 03") +
                                 NotifyFrame("00 00 00 03 00 00 00 07 00 00 00 04") +
                                 NotifyFrame("00 00 00 04 00 00 00 07 00 00 00 05") +
                                 NotifyFrame("00 00 00 05 00 00 00 07 00 00 00 00") +
                                 NotifyFrame("00 00 00 06 FF FF FF FE 00 00 00 09") +
                                 NotifyFrame("00 00 00 01 80 00 00 00 7F FF FF FF") +
                                 NotifyFrame("00 00 00 02 00 00 00 07 00 00 00 00");
    EXPECT_EQ(expected, m_pClient->Receive(expected.size()));
    Prepare({"drop"});
    EXPECT_TRUE(m_pClient->IsClosedByPeer());
}

TEST_F(CommandTest, ShownSendersHaveTheirOptionInTheState) {
    Prepare({"join 7 name=a address=1.2.3.4 status=1 os=0 app=0 pointer=0 local=false valid=true",
             "show 7 5", "moderator 3 4"});
    EXPECT_EQ(R"(ok {"senders":[{"key":7,"name":"a","address":"1.2.3.4","status":1,)"
              R"("position":128,"os":0,"app":0,"pointer":0,"local":false,"valid":true,"shown":5}],)"
              R"("moderator":{"id":3,"flag":4},"control":0,"faults":[],"clients":0})",
              Do("state"));
}

TEST_F(CommandTest, StateNamesTheClientInControlAndCountsClients) {
    StartAndConnect();
    ASSERT_EQ(Frame32("17"), Ask(Frame32("16")));
    EXPECT_EQ(R"(ok {"senders":[],"moderator":{"id":0,"flag":0},"control":1,"faults":[],)"
              R"("clients":1})",
              Do("state"));
}

TEST_F(CommandTest, StatisticsAndReceivedCountFrames) {
    StartAndConnect();
    Ask("xyz" + Frame32("20", "01"));
    Ask(Frame32("20", "01"));
    EXPECT_EQ(R"(ok {"connected":1,"clients":1,"clients_dropped":0,"bytes_received":83,)"
              R"("frames_received":2,"frames_sent":2,"garbage_bytes":3,"unknown_commands":0,)"
              R"("faults_done":0})",
              Do("statistics"));
    ExpectAnswers({{"received 32", "ok 2"},
                   {"received GetModeratorInfo", "ok 2"},
                   {"received code=33", "ok 0"}});
}

TEST_F(CommandTest, HelpTellsCommandsAndUsage) {
    ExpectAnswers({
        {"help", "ok " + kCommands},
        {"help leave", "ok leave KEY: a sender leaves"},
        {"help join",
         "ok join KEY [name=] [address=] [status=] [position=] [os=] [app=] [pointer=] [local=] "
         "[valid=]: a sender joins; what is not given is as in the simulator's samples"},
        {"help notify", "ok notify FIRST SECOND THIRD: notifies all clients of three values"},
        {"help fault off", "ok fault off [KIND] [command=]: ends the faults of a kind, or all"},
        {"help \"fault off\"", "ok fault off [KIND] [command=]: ends the faults of a kind, or all"},
        {"help help", "ok help [COMMAND]: all commands, or how one is used"},
    });
    EXPECT_NE(std::string::npos, Do("help fault on").find(kKinds));
}

TEST_F(CommandTest, ReceiverMayRefuse) {
    Prepare({"join 7 valid=true", "join 8 valid=false"});
    ExpectErrors({
        {"join 7", "a sender has the key 7 already"},
        {"leave 9", "no sender has the key 9"},
        {"change 9 name=a", "no sender has the key 9"},
        {"show 9 0", "1 unknown sender"},
        {"hide 9", "1 unknown sender"},
        {"hide 7", "3 not shown"},
        {"show 8 0", "4 not valid"},
        {"fault off silent", "no such fault is on"},
    });
    Prepare({"show 7 0"});
    ExpectErrors({{"show 7 0", "2 already shown"}, {"show 7 1", "2 already shown"}});
}

TEST_F(CommandTest, JoinIsRefusedWhenThereAre65535) {
    for (int32_t key = 1; key <= 65535; ++key)
        ASSERT_TRUE(m_pSim->AddSender(MakeSender(key)));
    EXPECT_EQ("error there are 65535 senders already", Do("join 65536"));
    EXPECT_EQ("error a sender has the key 65535 already", Do("join 65535"));
}

// --- Faults ---

void ExpectSameFault(const Fault& expected, const Fault& fault) {
    const auto fields = [](const Fault& f) {
        return std::tuple(f.kind, f.command, f.count, f.percent, f.time.count(), f.bytes, f.code,
                          f.records, f.rate, f.end, f.place, f.prefixParts);
    };
    EXPECT_EQ(fields(expected), fields(fault));
}

Fault OfKind(FaultKind kind, void (*change)(Fault&)) {
    Fault fault;
    fault.kind = kind;
    change(fault);
    return fault;
}

TEST_F(CommandTest, FaultOnSetsTheFieldsOfItsKind) {
    const auto nothing = [](Fault&) {};
    using Milliseconds = std::chrono::milliseconds;
    const std::vector<std::pair<std::string, Fault>> cases = {
        {"silent", OfKind(FaultKind::Silent, nothing)},
        {"silent command=event count=3 percent=1", OfKind(FaultKind::Silent,
                                                          [](Fault& f) {
                                                              f.command = 36;
                                                              f.count = 3;
                                                              f.percent = 1;
                                                          })},
        {"delay time=86400000",
         OfKind(FaultKind::Delay, [](Fault& f) { f.time = Milliseconds(86400000); })},
        {"wrong-code code=255", OfKind(FaultKind::WrongCode, [](Fault& f) { f.code = 255; })},
        {"twice command=all", OfKind(FaultKind::Twice, [](Fault& f) { f.command = -2; })},
        {"unasked command=SetModeratorInfo time=5", OfKind(FaultKind::Unasked,
                                                           [](Fault& f) {
                                                               f.command = 34;
                                                               f.time = Milliseconds(5);
                                                           })},
        {"cut", OfKind(FaultKind::Cut, nothing)},
        {"cut time=70 end=later bytes=0", OfKind(FaultKind::Cut,
                                                 [](Fault& f) {
                                                     f.time = Milliseconds(70);
                                                     f.end = CutEnd::Later;
                                                     f.bytes = 0;
                                                 })},
        {"cut end=close", OfKind(FaultKind::Cut, [](Fault& f) { f.end = CutEnd::Close; })},
        {"cut end=reset", OfKind(FaultKind::Cut, [](Fault& f) { f.end = CutEnd::Reset; })},
        {"trickle bytes=2 time=3", OfKind(FaultKind::Trickle,
                                          [](Fault& f) {
                                              f.bytes = 2;
                                              f.time = Milliseconds(3);
                                          })},
        {"garbage bytes=9 place=inside prefix=true", OfKind(FaultKind::Garbage,
                                                            [](Fault& f) {
                                                                f.bytes = 9;
                                                                f.place = GarbagePlace::Inside;
                                                                f.prefixParts = true;
                                                            })},
        {"garbage place=after",
         OfKind(FaultKind::Garbage, [](Fault& f) { f.place = GarbagePlace::After; })},
        {"garbage place=before prefix=false", OfKind(FaultKind::Garbage, nothing)},
        {"false-count records=65535",
         OfKind(FaultKind::FalseCount, [](Fault& f) { f.records = 65535; })},
        {"open-name command=16", OfKind(FaultKind::OpenName, [](Fault& f) { f.command = 16; })},
        {"close-on-accept count=1",
         OfKind(FaultKind::CloseOnAccept, [](Fault& f) { f.count = 1; })},
        {"never-read percent=50", OfKind(FaultKind::NeverRead, [](Fault& f) { f.percent = 50; })},
        {"flood rate=1000000 count=9", OfKind(FaultKind::Flood,
                                              [](Fault& f) {
                                                  f.rate = 1000000;
                                                  f.count = 9;
                                              })},
    };
    for (const auto& [words, expected] : cases) {
        SCOPED_TRACE(words);
        Prepare({"fault off", "fault on " + words});
        ASSERT_EQ(1U, m_pSim->Faults().size());
        ExpectSameFault(expected, m_pSim->Faults().front());
    }
}

TEST_F(CommandTest, FaultCommandHasTheNamesOfTheRequests) {
    const std::vector<std::pair<std::string, int>> names = {{"GetSenderList", 16},
                                                            {"StartPlayImage", 18},
                                                            {"StopPlayImage", 20},
                                                            {"RefreshConfCtrlTimer", 22},
                                                            {"QuitConfCtrl", 24},
                                                            {"GetNonLocalSenderList", 26},
                                                            {"GetValidSenderList", 28},
                                                            {"ForceSenderLogout", 30},
                                                            {"GetModeratorInfo", 32},
                                                            {"SetModeratorInfo", 34},
                                                            {"event", 36},
                                                            {"answers", -1},
                                                            {"all", -2},
                                                            {"255", 255},
                                                            {"0", 0}};
    for (const auto& [name, command] : names) {
        Prepare({"fault off", "fault on silent command=" + name});
        EXPECT_EQ(command, m_pSim->Faults().at(0).command) << name;
    }
}

TEST_F(CommandTest, FaultOffEndsAllOrAKindOrOneCommandOfIt) {
    const std::vector<std::string> three = {"fault off", "fault on silent command=16",
                                            "fault on silent command=event", "fault on twice"};
    Prepare(three);
    Prepare({"fault off silent command=GetSenderList"});
    ASSERT_EQ(2U, m_pSim->Faults().size());
    EXPECT_EQ(36, m_pSim->Faults().at(0).command);
    Prepare(three);
    Prepare({"fault off silent"});
    ASSERT_EQ(1U, m_pSim->Faults().size());
    EXPECT_EQ(FaultKind::Twice, m_pSim->Faults().at(0).kind);
    Prepare(three);
    Prepare({"fault off"});
    EXPECT_TRUE(m_pSim->Faults().empty());
    Prepare({"fault off"});
}

TEST_F(CommandTest, NeverReadIsToBeEndedWhileAConnectionIsUnread) {
    Start();
    EXPECT_EQ("error no such fault is on", Do("fault off never-read"));
    Prepare({"fault on never-read count=1"});
    const auto unread = Connect();
    m_pClient = Connect();
    ExpectNothingQueued(*m_pClient);
    EXPECT_TRUE(m_pSim->Faults().empty());
    ASSERT_TRUE(unread->Send(Frame32("22")));
    EXPECT_EQ("ok", Do("fault off never-read"));
    EXPECT_EQ(Frame32("23"), unread->Receive(kFrameSize));
    EXPECT_EQ("error no such fault is on", Do("fault off never-read"));
}

TEST_F(CommandTest, UnaskedIsAnAnswer) {
    const std::string expected = "command: expected the answer of a request for this kind";
    ExpectErrors({
        {"fault on unasked command=event", expected},
        {"fault on unasked command=36", expected},
    });
}

TEST_F(CommandTest, StateTellsWhatEachFaultUses) {
    Prepare({"fault on silent command=77 count=3", "fault on cut end=later bytes=4 time=5",
             "fault on garbage command=event", "fault on false-count records=0",
             "fault on wrong-code command=all code=9", "fault on never-read percent=7",
             "fault on flood rate=8"});
    EXPECT_EQ(
        R"(ok {"senders":[],"moderator":{"id":0,"flag":0},"control":0,"faults":[)"
        R"({"kind":"silent","command":77,"count":3,"percent":100},)"
        R"({"kind":"cut","command":"answers","count":0,"percent":100,"bytes":4,"end":"later",)"
        R"("time":5},)"
        R"({"kind":"garbage","command":"event","count":0,"percent":100,"place":"before",)"
        R"("prefix":false},)"
        R"({"kind":"false-count","command":"answers","count":0,"percent":100,"records":0},)"
        R"({"kind":"wrong-code","command":"all","count":0,"percent":100,"code":9},)"
        R"({"kind":"never-read","count":0,"percent":7},{"kind":"flood","count":0,"rate":8}],)"
        R"("clients":0})",
        Do("state"));
}

TEST_F(CommandTest, FaultFieldsThatTheKindDoesNotUseAreErrors) {
    const std::string known = "unknown, expected one of kind, ";
    ExpectErrors({
        {"fault on silent time=1", "time: " + known + "command, count, percent"},
        {"fault on delay bytes=1", "bytes: " + known + "command, count, percent, time"},
        {"fault on wrong-code time=1", "time: " + known + "command, count, percent, code"},
        {"fault on twice code=1", "code: " + known + "command, count, percent"},
        {"fault on unasked percent=1", "percent: " + known + "command, count, time"},
        {"fault on cut time=1", "time: " + known + "command, count, percent, bytes, end"},
        {"fault on cut time=1 end=close", "time: " + known + "command, count, percent, bytes, end"},
        {"fault on cut rate=1 end=later",
         "rate: " + known + "command, count, percent, bytes, end, time"},
        {"fault on trickle end=close", "end: " + known + "command, count, percent, bytes, time"},
        {"fault on garbage time=1",
         "time: " + known + "command, count, percent, bytes, place, prefix"},
        {"fault on false-count bytes=1", "bytes: " + known + "command, count, percent, records"},
        {"fault on open-name records=1", "records: " + known + "command, count, percent"},
        {"fault on close-on-accept command=16", "command: " + known + "count, percent"},
        {"fault on never-read command=16", "command: " + known + "count, percent"},
        {"fault on flood percent=1", "percent: " + known + "count, rate"},
        {"fault off flood command=16", "command: unknown, expected one of kind"},
        {"fault off command=16", "command: unknown, expected one of kind"},
        {"fault off silent count=1", "count: unknown, expected one of kind, command"},
    });
}

TEST_F(CommandTest, FaultFieldsHaveRanges) {
    const auto range = [](const std::string& most) { return "a whole number from " + most; };
    ExpectErrors({
        {"fault on", "kind: missing, expected one of " + kKinds},
        {"fault on quiet", "kind: expected one of " + kKinds + ", found \"quiet\""},
        {"fault off quiet", "kind: expected one of " + kKinds + ", found \"quiet\""},
        {"fault on silent count=1000000001",
         "count: expected " + range("0 to 1000000000") + ", found 1000000001"},
        {"fault on silent count=-1", "count: expected " + range("0 to 1000000000") + ", found -1"},
        {"fault on silent percent=0", "percent: expected " + range("1 to 100") + ", found 0"},
        {"fault on silent percent=101", "percent: expected " + range("1 to 100") + ", found 101"},
        {"fault on delay time=-1", "time: expected " + range("0 to 86400000") + ", found -1"},
        {"fault on delay time=86400001",
         "time: expected " + range("0 to 86400000") + ", found 86400001"},
        {"fault on wrong-code code=256", "code: expected " + kByte + ", found 256"},
        {"fault on cut bytes=1073741825",
         "bytes: expected " + range("0 to 1073741824") + ", found 1073741825"},
        {"fault on trickle bytes=0", "bytes: expected " + range("1 to 1073741824") + ", found 0"},
        {"fault on garbage bytes=1048577",
         "bytes: expected " + range("0 to 1048576") + ", found 1048577"},
        {"fault on false-count records=65536", "records: expected " + kWord16 + ", found 65536"},
        {"fault on flood rate=0", "rate: expected " + range("1 to 1000000") + ", found 0"},
        {"fault on flood rate=1000001",
         "rate: expected " + range("1 to 1000000") + ", found 1000001"},
        {"fault on cut end=soon", "end: expected one of later, close, reset, found \"soon\""},
        {"fault on garbage place=here",
         "place: expected one of before, inside, after, found \"here\""},
        {"fault on garbage prefix=1", "prefix: expected true or false, found \"1\""},
        {"fault on silent command=256", "command: expected " + kByte + " or one of " + kRequests +
                                            ", event, answers, all, found 256"},
        {"fault on silent command=-1", "command: expected " + kByte + " or one of " + kRequests +
                                           ", event, answers, all, found -1"},
        {"fault on silent command=events", "command: expected " + kByte + " or one of " +
                                               kRequests +
                                               ", event, answers, all, found \"events\""},
    });
}

TEST_F(CommandTest, LargestFaultValuesAreTaken) {
    Prepare({"fault on silent count=1000000000 percent=100", "fault on delay time=86400000",
             "fault on wrong-code code=0", "fault on cut bytes=1073741824",
             "fault on trickle bytes=1073741824 time=0", "fault on garbage bytes=1048576",
             "fault on false-count records=65535", "fault on flood rate=1000000"});
    EXPECT_EQ(8U, m_pSim->Faults().size());
}

// --- Fields of senders and the others ---

TEST_F(CommandTest, FieldsOfWrongTypeOrRangeAreErrors) {
    Prepare({"join 7"});
    ExpectErrors({
        {"join", "key: missing, expected " + kInt32},
        {"join name=a", "key: missing, expected " + kInt32},
        {"join x", "key: expected " + kInt32 + ", found \"x\""},
        {"join 1.0", "key: expected " + kInt32 + ", found \"1.0\""},
        {"join +1", "key: expected " + kInt32 + ", found \"+1\""},
        {"join 0x10", "key: expected " + kInt32 + ", found \"0x10\""},
        {"join \"\"", "key: expected " + kInt32 + ", found \"\""},
        {"join 2147483648", "key: expected " + kInt32 + ", found 2147483648"},
        {"join -2147483649", "key: expected " + kInt32 + ", found -2147483649"},
        {"join 99999999999999999999",
         "key: expected " + kInt32 + ", found \"99999999999999999999\""},
        {"join 8 name=" + std::string(48, 'x'),
         "name: expected " + kName + ", found \"" + std::string(40, 'x') + "...\""},
        {"join 8 address=1.2.3",
         "address: expected an IPv4 address like 192.168.10.20, found \"1.2.3\""},
        {"join 8 address=1.2.3.256",
         "address: expected an IPv4 address like 192.168.10.20, found \"1.2.3.256\""},
        {"join 8 address=localhost",
         "address: expected an IPv4 address like 192.168.10.20, found \"localhost\""},
        {"join 8 status=65536", "status: expected " + kWord16 + ", found 65536"},
        {"join 8 status=-1", "status: expected " + kWord16 + ", found -1"},
        {"join 8 position=256", "position: expected " + kByte + ", found 256"},
        {"join 8 os=65536", "os: expected " + kWord16 + ", found 65536"},
        {"join 8 app=x", "app: expected " + kWord16 + ", found \"x\""},
        {"join 8 pointer=", "pointer: expected " + kWord16 + ", found \"\""},
        {"join 8 local=yes", "local: expected true or false, found \"yes\""},
        {"join 8 valid=1", "valid: expected true or false, found \"1\""},
        {"change 7",
         "expected at least one of name, address, status, position, os, app, "
         "pointer, local, valid"},
        {"change 7 os=-1", "os: expected " + kWord16 + ", found -1"},
        {"leave", "key: missing, expected " + kInt32},
        {"show 7", "option: missing, expected " + kByte},
        {"show 7 256", "option: expected " + kByte + ", found 256"},
        {"hide", "key: missing, expected " + kInt32},
        {"moderator 1", "flag: missing, expected " + kByte},
        {"moderator 1 -1", "flag: expected " + kByte + ", found -1"},
        {"notify 1 2", "third: missing, expected " + kInt32},
        {"notify 1 2 x", "third: expected " + kInt32 + ", found \"x\""},
        {"received", "code: missing, expected " + kByte + " or one of " + kRequests},
        {"received event",
         "code: expected " + kByte + " or one of " + kRequests + ", found \"event\""},
        {"help jion", "command: expected one of " + kCommands + ", found \"jion\""},
    });
}

TEST_F(CommandTest, UnknownDoubledAndSpareWordsAreErrors) {
    ExpectErrors({
        {"join 7 age=3",
         "age: unknown, expected one of key, name, address, status, position, os, app, pointer, "
         "local, valid"},
        {"leave 7 name=a", "name: unknown, expected one of key"},
        {"join 7 name=a name=b", "name: expected once, found twice"},
        {"join 7 key=8", "key: expected once, found twice"},
        {"join 7 name=a 8", "expected name=value or nothing more, found \"8\""},
        {"join name=a 8", "expected name=value or nothing more, found \"8\""},
        {"leave 7 8", "key: expected " + kInt32 + ", found \"7 8\""},
        {"drop 7", "expected name=value or nothing more, found \"7\""},
        {"drop all=true", "all: unknown, expected nothing here"},
        {"state x", "expected name=value or nothing more, found \"x\""},
        {"statistics x=1", "x: unknown, expected nothing here"},
    });
}

TEST_F(CommandTest, LineThatNamesNoCommandIsAnError) {
    ExpectErrors({
        {"", "no command"},
        {"    ", "no command"},
        {"jion 7", "unknown command \"jion\", expected one of " + kCommands},
        {"JOIN 7", "unknown command \"JOIN\", expected one of " + kCommands},
        {"fault", "unknown command \"fault\", expected one of " + kCommands},
        {"fault off-on", "unknown command \"fault\", expected one of " + kCommands},
        {"# join 7", "unknown command \"#\", expected one of " + kCommands},
        {std::string(1000, 'x'),
         "unknown command \"" + std::string(40, 'x') + "...\", expected one of " + kCommands},
        {"fl\xC3\xBC"
         "ge",
         "unknown command \"fl\\u00fcge\", expected one of " + kCommands},
        {"\xFF", "unknown command \"\\ufffd\", expected one of " + kCommands},
    });
}

TEST_F(CommandTest, QuotesHoldBlanksAndTwoEscapes) {
    Prepare({R"(join 1 name="a  b")", R"(join 2 name="\"\\")", R"(join 3 name="")",
             R"(join 4 name="x=y")", R"(join 5 name=x=y)", R"(join 6 name=\n)",
             R"(  join   7   name=a  )", R"(join "8")", R"(join key=9)"});
    std::vector<std::string> names;
    for (const Sender& sender : m_pSim->Senders())
        names.push_back(sender.userName);
    names.resize(7);
    EXPECT_EQ((std::vector<std::string>{"a  b", "\"\\", "", "x=y", "x=y", "\\n", "a"}), names);
    ExpectErrors({
        {R"(join 20 name="a)", R"(expected a quote behind "a")"},
        {R"(join 20 name=")", R"(expected a quote behind "")"},
        {R"(join 20 name="a"b)", R"(expected a blank behind "a")"},
        {R"(join 20 name=a"b")", R"(expected no quote behind "a")"},
        {R"(join 20 name="a\n")", R"(expected \" or \\ in quotes behind "a")"},
        {R"(join 20 name="a\)", R"(expected \" or \\ in quotes behind "a")"},
    });
}

TEST_F(CommandTest, NameMayHave47BytesOfAnyKindButControlCharacters) {
    std::string name(45, 'x');
    name += "\xFF\x80";
    Prepare({"join 1 name=" + name});
    EXPECT_EQ(name, m_pSim->Senders().at(0).userName);
}

TEST_F(CommandTest, ControlCharacterAnywhereIsAnError) {
    std::vector<LineAndAnswer> lines;
    for (int byte = 0; byte < 0x20; ++byte)
        lines.push_back({std::string("join 1 name=a") + static_cast<char>(byte),
                         "expected a line without control characters"});
    lines.push_back({"join 1 name=\"\x7F\"", "expected a line without control characters"});
    lines.push_back({"\n", "expected a line without control characters"});
    ExpectErrors(lines);
}

TEST_F(CommandTest, NoNameBreaksTheAnswersLine) {
    const std::vector<std::string> names = {"a\nb\rc",      std::string("a\0b", 3),
                                            "\x7F\x1B[2J",  "\xE2\x80\xA8 \xC2\x85",
                                            "\xFF\xFE\xC3", "\"\\"};
    int32_t key = 0;
    for (const std::string& name : names)
        m_pSim->AddSender(MakeSender(++key, name));
    const std::string state = Do("state");
    EXPECT_TRUE(IsPrintable(state)) << state;
    for (const char* escaped : {R"("a\nb\rc")", R"("a\u0000b")", R"("\u007f\u001b[2J")",
                                R"("\u2028 \u0085")", R"("\ufffd\ufffd\ufffd")", R"("\"\\")"})
        EXPECT_NE(std::string::npos, state.find(escaped)) << escaped;
}

TEST_F(CommandTest, AnyLineGetsOnePrintableAnswer) {
    const std::vector<std::string> pieces = {
        "join", "change",    "fault", "on",   "off", "cut",  "help", "received", "=",
        "\"",   "\\",        " ",     " ",    " ",   "name", "key=", "1",        "-",
        "99",   "end=later", "\xC3",  "\xBC", "\n",  "time", ".",    "true",     "state"};
    std::mt19937 random(7);
    for (int i = 0; i < 20000; ++i) {
        std::string line;
        for (size_t count = random() % 12; count > 0; --count)
            line += pieces[random() % pieces.size()];
        const std::string answer = Do(line);
        ASSERT_TRUE(answer.rfind("ok", 0) == 0 || answer.rfind("error ", 0) == 0) << line;
        ASSERT_TRUE(IsPrintable(answer)) << line;
    }
}

// --- The normalised line ---

TEST_F(CommandTest, ActionsTextIsTheCommandNormalised) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"  join   key=7  valid=true name=Ada os=1", "join 7 name=\"Ada\" os=1 valid=true"},
        {R"(join 7 name="a \"b\" \\")", R"(join 7 name="a \"b\" \\")"},
        {"join 7 local=false pointer=3 app=2 position=4 status=5 address=1.2.3.4",
         "join 7 address=1.2.3.4 status=5 position=4 app=2 pointer=3 local=false"},
        {"leave key=7", "leave 7"},
        {"change 7 name=\"\"", "change 7 name=\"\""},
        {"show option=3 key=7", "show 7 3"},
        {"hide -007", "hide -7"},
        {"moderator flag=1 id=2", "moderator 2 1"},
        {"notify 1 third=3 second=2", "notify 1 2 3"},
        {"drop", "drop"},
        {"fault on kind=silent command=GetSenderList", "fault on silent command=GetSenderList"},
        {"fault on cut time=5 end=later bytes=3 percent=9 count=1 command=16",
         "fault on cut command=16 count=1 percent=9 bytes=3 end=later time=5"},
        {"fault on garbage prefix=true place=inside", "fault on garbage place=inside prefix=true"},
        {"fault on trickle", "fault on trickle"},
        {"fault off", "fault off"},
        {"fault off kind=cut command=event", "fault off cut command=event"},
        {"state", "state"},
        {"statistics", "statistics"},
        {"received code=StopPlayImage", "received StopPlayImage"},
        {"help", "help"},
        {"help fault on", "help \"fault on\""},
    };
    for (const auto& [line, text] : cases) {
        std::string error;
        const auto action = simulator::ParseCommand(line, error);
        ASSERT_TRUE(action) << line << ": " << error;
        EXPECT_EQ(text, action->text) << line;
        const auto again = simulator::ParseCommand(action->text, error);
        ASSERT_TRUE(again) << text << ": " << error;
        EXPECT_EQ(text, again->text);

        ReceiverSimulator first;
        ReceiverSimulator second;
        for (ReceiverSimulator* receiver : {&first, &second}) {
            receiver->AddSender(simulator::SampleSender(7));
            receiver->Execute("fault on cut command=event");
        }
        EXPECT_EQ(action->perform(first), again->perform(second)) << line;
        EXPECT_EQ(first.Execute("state"), second.Execute("state")) << line;
    }
}

TEST_F(CommandTest, ParsingAloneChangesNothing) {
    std::string error;
    ASSERT_TRUE(simulator::ParseCommand("join 7", error));
    ASSERT_TRUE(simulator::ParseCommand("fault on silent", error));
    EXPECT_EQ(kEmptyState, Do("state"));
    EXPECT_FALSE(simulator::ParseCommand("join x", error));
    EXPECT_EQ("key: expected " + kInt32 + ", found \"x\"", error);
}

}  // namespace
