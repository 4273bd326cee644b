#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "SimulatorFixture.h"
#include "simulator/Action.h"

namespace {

using namespace sim_test;
using simulator::ReceiverSimulator;
using simulator::Scenario;

const std::string kInt32 = "a whole number from -2147483648 to 2147483647";
const std::string kByte = "a whole number from 0 to 255";
const std::string kWord16 = "a whole number from 0 to 65535";
const std::string kKinds =
    "silent, delay, wrong-code, twice, unasked, cut, trickle, garbage, false-count, open-name, "
    "close-on-accept, never-read, flood";
const std::string kTimelineCommands =
    "join, leave, change, show, hide, moderator, notify, drop, fault on, fault off";
const std::string kSenderFields =
    "key, name, address, status, position, os, app, pointer, local, valid";

/// A scenario with these further members.
std::string With(const std::string& members) {
    return R"({"description": "d", )" + members + "}";
}

/// A timeline of this one entry after one that is right, and senders 1 and 2.
std::string WithEntry(const std::string& entry) {
    return With(R"("senders": [{"key": 1}, {"key": 2}], "timeline": [{"at": 0, "do": "drop"}, )" +
                entry + "]");
}

std::string ErrorOf(const std::string& text) {
    std::string error;
    EXPECT_FALSE(Scenario::Parse(text, "s.json", error)) << text;
    return error;
}

struct TextAndError {
    std::string text;
    std::string error;
};

void ExpectErrors(const std::vector<TextAndError>& expected) {
    for (const auto& [text, error] : expected)
        EXPECT_EQ("s.json:" + error, ErrorOf(text)) << text.substr(0, 300);
}

std::optional<Scenario> ParseGood(const std::string& text) {
    std::string error;
    auto scenario = Scenario::Parse(text, "s.json", error);
    EXPECT_TRUE(scenario) << error;
    return scenario;
}

// --- Errors ---

TEST(ScenarioErrorTest, SyntaxErrorHasLineAndColumn) {
    const std::string while_ = "syntax error while parsing ";
    ExpectErrors({
        {"", "1:1: " + while_ + "value - unexpected end of input; expected '[', '{', or a literal"},
        {"{", "1:2: " + while_ + "object key - unexpected end of input; expected string literal"},
        {"{\n  \"description\" 17\n}",
         "2:17: " + while_ + "object separator - unexpected number literal; expected ':'"},
        {"{\"a\": 1,}", "1:9: " + while_ + "object key - unexpected '}'; expected string literal"},
        {"{\"a\": 1\n\n  \"b\": 2}",
         "3:3: " + while_ + "object - unexpected string literal; expected '}'"},
        {"[1 2]", "1:4: " + while_ + "array - unexpected number literal; expected ']'"},
        {"[012]", "1:3: " + while_ + "array - unexpected number literal; expected ']'"},
        {"[tru]", "1:5: " + while_ + "value - invalid literal"},
        {"{} x", "1:4: " + while_ + "value - invalid literal"},
        {"// no comments\n{}", "1:1: " + while_ + "value - invalid literal"},
        {"[\"abc", "1:6: " + while_ + "value - invalid string: missing closing quote"},
        {"[\"a\xFF\"]", "1:4: " + while_ + "value - invalid string: ill-formed UTF-8 byte"},
        {"[\"a\nb\"]", "1:4: " + while_ +
                           "value - invalid string: control character U+000A (LF) must be escaped "
                           "to \\u000A or \\n"},
        {std::string("[\0]", 3), "1:2: expected text, found a NUL byte"},
        {With("\"senders\": []") + "\n" + std::string(1, '\0') + "x",
         "2:1: expected text, found a NUL byte"},
    });
}

TEST(ScenarioErrorTest, NumberThatNoDoubleHoldsIsAnError) {
    ExpectErrors({
        {"{\n\"description\": 1e400}",
         "2:16: expected a number of a possible size, found \"1e400\""},
        {"[-1" + std::string(500, '0') + "]",
         "1:2: expected a number of a possible size, found \"-1" + std::string(38, '0') + "...\""},
    });
}

TEST(ScenarioErrorTest, WrongTopMembersAreErrors) {
    const std::string known = "description, clock, senders, moderator, crowd, timeline";
    ExpectErrors({
        {"[]", " expected an object, found an array"},
        {"7", " expected an object, found 7"},
        {"null", " expected an object, found null"},
        {"\"text\"", " expected an object, found \"text\""},
        {"{}",
         " /description: missing, expected text of at most 1000 bytes without control "
         "characters"},
        {R"({"description": 7})",
         " /description: expected text of at most 1000 bytes without "
         "control characters, found 7"},
        {R"({"description": "a\nb"})",
         " /description: expected text of at most 1000 bytes without control characters, found "
         R"("a\nb")"},
        {With(R"("clock": "later")"),
         " /clock: expected one of start, first-client, found \"later\""},
        {With(R"("clock": true)"), " /clock: expected one of start, first-client, found true"},
        {With(R"("senders": {})"), " /senders: expected an array, found an object"},
        {With(R"("moderator": [])"), " /moderator: expected an object, found an array"},
        {With(R"("crowd": 5)"), " /crowd: expected an object, found 5"},
        {With(R"("timeline": null)"), " /timeline: expected an array, found null"},
        {With(R"("sender": [])"), " /sender: unknown, expected one of " + known},
        {With(R"("a/b~c": 1)"), " /a~1b~0c: unknown, expected one of " + known},
        {With(R"("\u00fc\n": 1)"), R"( /\u00fc\n: unknown, expected one of )" + known},
    });
}

TEST(ScenarioErrorTest, WrongSendersAreErrors) {
    const auto sender = [](const std::string& members) {
        return With(R"("senders": [{"key": 1}, )" + members + "]");
    };
    const std::string name = "text of at most 47 bytes without control characters";
    const std::string address = "an IPv4 address like 192.168.10.20";
    ExpectErrors({
        {sender("7"), " /senders/1: expected an object, found 7"},
        {sender("{}"), " /senders/1/key: missing, expected " + kInt32},
        {sender(R"({"key": "7"})"), " /senders/1/key: expected " + kInt32 + ", found \"7\""},
        {sender(R"({"key": true})"), " /senders/1/key: expected " + kInt32 + ", found true"},
        {sender(R"({"key": 7.0})"), " /senders/1/key: expected " + kInt32 + ", found 7.0"},
        {sender(R"({"key": 2147483648})"),
         " /senders/1/key: expected " + kInt32 + ", found 2147483648"},
        {sender(R"({"key": 18446744073709551615})"),
         " /senders/1/key: expected " + kInt32 + ", found 18446744073709551615"},
        {sender(R"({"key": 99999999999999999999})"),
         " /senders/1/key: expected " + kInt32 + ", found 1e+20"},
        {sender(R"({"key": [[[1]]]})"), " /senders/1/key: expected " + kInt32 + ", found an array"},
        {sender(R"({"key": 1})"),
         " /senders/1/key: expected a key of its own, found 1 as in /senders/0/key"},
        {sender(R"({"key": 2, "age": 7})"),
         " /senders/1/age: unknown, expected one of " + kSenderFields + ", shown"},
        {sender(R"({"key": 2, "name": 7})"), " /senders/1/name: expected " + name + ", found 7"},
        {sender(R"({"key": 2, "name": ")" + std::string(48, 'x') + "\"}"),
         " /senders/1/name: expected " + name + ", found \"" + std::string(40, 'x') + "...\""},
        {sender(R"({"key": 2, "name": "a\u0000b"})"),
         " /senders/1/name: expected " + name + R"(, found "a\u0000b")"},
        {sender(R"({"key": 2, "address": "1.2.3"})"),
         " /senders/1/address: expected " + address + ", found \"1.2.3\""},
        {sender(R"({"key": 2, "address": "1.2.3.4\u0000"})"),
         " /senders/1/address: expected " + address + R"(, found "1.2.3.4\u0000")"},
        {sender(R"({"key": 2, "address": 16909060})"),
         " /senders/1/address: expected " + address + ", found 16909060"},
        {sender(R"({"key": 2, "status": 65536})"),
         " /senders/1/status: expected " + kWord16 + ", found 65536"},
        {sender(R"({"key": 2, "position": -1})"),
         " /senders/1/position: expected " + kByte + ", found -1"},
        {sender(R"({"key": 2, "os": null})"),
         " /senders/1/os: expected " + kWord16 + ", found null"},
        {sender(R"({"key": 2, "app": 1.5})"),
         " /senders/1/app: expected " + kWord16 + ", found 1.5"},
        {sender(R"({"key": 2, "pointer": false})"),
         " /senders/1/pointer: expected " + kWord16 + ", found false"},
        {sender(R"({"key": 2, "local": 1})"), " /senders/1/local: expected true or false, found 1"},
        {sender(R"({"key": 2, "valid": "true"})"),
         " /senders/1/valid: expected true or false, found \"true\""},
        {sender(R"({"key": 2, "valid": true, "shown": 256})"),
         " /senders/1/shown: expected " + kByte + ", found 256"},
        {sender(R"({"key": 2, "valid": false, "shown": 0})"),
         " /senders/1/shown: expected only with a valid sender"},
        {sender(R"({"key": 4, "shown": 0})"),
         " /senders/1/shown: expected only with a valid sender"},
    });
}

TEST(ScenarioErrorTest, WrongModeratorsAreErrors) {
    ExpectErrors({
        {With(R"("moderator": {"flag": 1})"), " /moderator/id: missing, expected " + kInt32},
        {With(R"("moderator": {"id": 1})"), " /moderator/flag: missing, expected " + kByte},
        {With(R"("moderator": {"id": 1, "flag": 256})"),
         " /moderator/flag: expected " + kByte + ", found 256"},
        {With(R"("moderator": {"id": 1, "flag": 0, "name": "a"})"),
         " /moderator/name: unknown, expected one of id, flag"},
    });
}

TEST(ScenarioErrorTest, WrongCrowdsAreErrors) {
    const auto crowd = [](const std::string& members) {
        return With(R"("senders": [{"key": 10}, {"key": 20}], "crowd": {)" + members + "}");
    };
    const std::string seconds = "seconds from 0.001 to 86400";
    const std::string count = "a whole number from 1 to 65535";
    ExpectErrors({
        {crowd(R"("count": 1, "present": 0, "every": 1)"),
         " /crowd/key: missing, expected " + kInt32},
        {crowd(R"("key": 30, "present": 0, "every": 1)"),
         " /crowd/count: missing, expected " + count},
        {crowd(R"("key": 30, "count": 1, "every": 1)"),
         " /crowd/present: missing, expected " + kWord16},
        {crowd(R"("key": 30, "count": 1, "present": 0)"),
         " /crowd/every: missing, expected " + seconds},
        {crowd(R"("key": 30, "count": 0, "present": 0, "every": 1)"),
         " /crowd/count: expected " + count + ", found 0"},
        {crowd(R"("key": 30, "count": 65536, "present": 0, "every": 1)"),
         " /crowd/count: expected " + count + ", found 65536"},
        {crowd(R"("key": 30, "count": 65534, "present": 0, "every": 1)"),
         " /crowd/count: expected at most 65533 with the other senders, found 65534"},
        {crowd(R"("key": 30, "count": 5, "present": 6, "every": 1)"),
         " /crowd/present: expected at most the count, found 6"},
        {crowd(R"("key": 30, "count": 5, "present": -1, "every": 1)"),
         " /crowd/present: expected " + kWord16 + ", found -1"},
        {crowd(R"("key": 30, "count": 5, "present": 5, "every": 0.0009)"),
         " /crowd/every: expected " + seconds + ", found 0.0009"},
        {crowd(R"("key": 30, "count": 5, "present": 5, "every": 86400.5)"),
         " /crowd/every: expected " + seconds + ", found 86400.5"},
        {crowd(R"("key": 30, "count": 5, "present": 5, "every": "1")"),
         " /crowd/every: expected " + seconds + ", found \"1\""},
        {crowd(R"("key": 2147483647, "count": 2, "present": 0, "every": 1)"),
         " /crowd/key: expected a key with room for the count's keys behind it, found 2147483647"},
        {crowd(R"("key": 16, "count": 5, "present": 0, "every": 1)"),
         " /crowd/key: expected keys of the crowd's own, found 20 as in /senders/1/key"},
        {crowd(R"("key": 10, "count": 1, "present": 0, "every": 1)"),
         " /crowd/key: expected keys of the crowd's own, found 10 as in /senders/0/key"},
        {crowd(R"("key": 30, "count": 5, "present": 5, "every": 1, "speed": 3)"),
         " /crowd/speed: unknown, expected one of key, count, present, every"},
    });
}

TEST(ScenarioErrorTest, UnaskedNotificationIsAnError) {
    for (const char* command : {"\"event\"", "36"}) {
        EXPECT_EQ(
            "s.json: /timeline/1/command: expected the answer of a request for this kind",
            ErrorOf(WithEntry(R"({"at": 1, "do": "fault on", "kind": "unasked", "command": )" +
                              std::string(command) + "}")));
    }
}

TEST(ScenarioErrorTest, WrongEntriesAreErrors) {
    const std::string seconds = "seconds from 0 to 86400";
    ExpectErrors({
        {WithEntry("[]"), " /timeline/1: expected an object, found an array"},
        {WithEntry(R"({"do": "drop"})"), " /timeline/1/at: missing, expected " + seconds},
        {WithEntry(R"({"at": 1})"),
         " /timeline/1/do: missing, expected one of " + kTimelineCommands},
        {WithEntry(R"({"at": -0.001, "do": "drop"})"),
         " /timeline/1/at: expected " + seconds + ", found -0.001"},
        {WithEntry(R"({"at": 86400.001, "do": "drop"})"),
         " /timeline/1/at: expected " + seconds + ", found 86400.001"},
        {WithEntry(R"({"at": "1", "do": "drop"})"),
         " /timeline/1/at: expected " + seconds + ", found \"1\""},
        {WithEntry(R"({"at": true, "do": "drop"})"),
         " /timeline/1/at: expected " + seconds + ", found true"},
        {WithEntry(R"({"at": 1, "do": "jion"})"),
         " /timeline/1/do: expected one of " + kTimelineCommands + ", found \"jion\""},
        {WithEntry(R"({"at": 1, "do": "drop", "key": 1})"),
         " /timeline/1/key: unknown, expected one of at, do"},
        {WithEntry(R"({"at": 1, "do": "leave", "key": 1, "name": "a"})"),
         " /timeline/1/name: unknown, expected one of key, at, do"},
        {WithEntry(R"({"at": 1, "do": "leave"})"), " /timeline/1/key: missing, expected " + kInt32},
        {WithEntry(R"({"at": 1, "do": "leave", "key": "1"})"),
         " /timeline/1/key: expected " + kInt32 + ", found \"1\""},
        {WithEntry(R"({"at": 1, "do": "change", "key": 1})"),
         " /timeline/1: expected at least one of name, address, status, position, os, app, "
         "pointer, local, valid"},
        {WithEntry(R"({"at": 1, "do": "show", "key": 1})"),
         " /timeline/1/option: missing, expected " + kByte},
        {WithEntry(R"({"at": 1, "do": "fault on", "kind": "quiet"})"),
         " /timeline/1/kind: expected one of " + kKinds + ", found \"quiet\""},
        {WithEntry(R"({"at": 1, "do": "fault on", "kind": 7})"),
         " /timeline/1/kind: expected one of " + kKinds + ", found 7"},
        {WithEntry(R"({"at": 1, "do": "fault on", "kind": "cut", "time": 5})"),
         " /timeline/1/time: unknown, expected one of kind, command, count, percent, bytes, end, "
         "at, do"},
        {WithEntry(R"({"at": 1, "do": "fault on", "kind": "delay", "time": 1.5})"),
         " /timeline/1/time: expected a whole number from 0 to 86400000, found 1.5"},
        {WithEntry(R"({"at": 1, "do": "fault off", "command": 16})"),
         " /timeline/1/command: unknown, expected one of kind, at, do"},
    });
}

TEST(ScenarioErrorTest, CommandsThatOnlyAskAreNoneOfATimeline) {
    for (const std::string command : {"state", "statistics", "received", "help", ""})
        EXPECT_EQ("s.json: /timeline/1/do: expected one of " + kTimelineCommands + ", found \"" +
                      command + "\"",
                  ErrorOf(WithEntry(R"({"at": 1, "do": ")" + command + "\"}")));
}

TEST(ScenarioErrorTest, EntryAboutAKeyThatNobodyHasIsAnError) {
    for (const std::string entry :
         {R"({"at": 1, "do": "leave", "key": 3})", R"({"at": 1, "do": "hide", "key": 3})",
          R"({"at": 1, "do": "show", "key": 3, "option": 0})",
          R"({"at": 1, "do": "change", "key": 3, "os": 1})"})
        EXPECT_EQ("s.json: /timeline/1/key: expected the key of a sender of this file, found 3",
                  ErrorOf(WithEntry(entry)));
    ParseGood(
        WithEntry(R"({"at": 1, "do": "leave", "key": 3}, {"at": 0, "do": "join", "key": 3})"));
    const std::string crowd = R"("crowd": {"key": 3, "count": 2, "present": 0, "every": 1}, )";
    ParseGood(With(crowd + R"("timeline": [{"at": 1, "do": "leave", "key": 4}])"));
    EXPECT_EQ("s.json: /timeline/0/key: expected the key of a sender of this file, found 5",
              ErrorOf(With(crowd + R"("timeline": [{"at": 1, "do": "leave", "key": 5}])")));
}

TEST(ScenarioErrorTest, MemberThatIsThereTwiceIsAnError) {
    ExpectErrors({
        {R"({"description": "a", "description": "b"})",
         " /description: expected once, found twice"},
        {With(R"("senders": [{"key": 1}, {"key": 2, "os": 1, "os": 1}])"),
         " /senders/1/os: expected once, found twice"},
        {WithEntry(R"({"at": 1, "do": "drop"}, {"at": 1, "do": "drop", "at": 2})"),
         " /timeline/2/at: expected once, found twice"},
        {With(R"("moderator": {"id": 1, "\u0069d": 2, "flag": 3})"),
         " /moderator/id: expected once, found twice"},
    });
    ParseGood(With(R"("senders": [{"key": 1}, {"key": 2}], "moderator": {"id": 1, "flag": 1})"));
}

TEST(ScenarioErrorTest, DeepNestingIsAnError) {
    EXPECT_EQ(
        "s.json: /0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0: expected a simple value, found a deeply "
        "nested one",
        ErrorOf(std::string(1000000, '[')));
    std::string objects;
    for (int i = 0; i < 100000; ++i)
        objects += "{\"a\":";
    EXPECT_EQ(
        "s.json: /a/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a: expected a simple value, found a deeply "
        "nested one",
        ErrorOf(objects));
}

TEST(ScenarioErrorTest, MoreThan65535SendersAreAnError) {
    std::string senders;
    for (int key = 1; key <= 65535; ++key)
        senders += (key == 1 ? "{\"key\":" : ",{\"key\":") + std::to_string(key) + "}";
    const auto scenario = ParseGood(With("\"senders\": [" + senders + "]"));
    EXPECT_EQ(65535U, scenario->GetData().senders.size());
    EXPECT_EQ("s.json: /senders: expected at most 65535 senders, found 65536",
              ErrorOf(With("\"senders\": [" + senders + ",{\"key\":0}]")));
    EXPECT_EQ("s.json: /crowd/count: expected at most 0 with the other senders, found 1",
              ErrorOf(With("\"senders\": [" + senders +
                           R"(], "crowd": {"key": 70000, "count": 1, "present": 0, "every": 1})")));
}

TEST(ScenarioErrorTest, NoMutationOfAFileDoesHarm) {
    std::ifstream file(SCENARIO_FOLDER "/meeting.json");
    const std::string good((std::istreambuf_iterator<char>(file)), {});
    ASSERT_FALSE(good.empty());
    const std::string bytes("{}[]\",:019.e-\\ tn\n\xFF\0", 20);
    std::mt19937 random(11);
    int refused = 0;
    for (int i = 0; i < 5000; ++i) {
        std::string text = good;
        for (size_t changes = 1 + random() % 3; changes > 0; --changes)
            text[random() % text.size()] = bytes[random() % bytes.size()];
        std::string error;
        if (Scenario::Parse(text.substr(0, random() % 8 == 0 ? random() % text.size() : text.npos),
                            "s.json", error))
            continue;
        ++refused;
        ASSERT_EQ(0U, error.rfind("s.json:", 0)) << error;
        for (const char c : error)
            ASSERT_TRUE(c >= ' ' && c <= '~') << error;
        ASSERT_LT(error.size(), 600U) << error;
    }
    EXPECT_GT(refused, 1000);
}

// --- Files ---

class ScenarioFileTest : public ::testing::Test {
protected:
    ScenarioFileTest()
        : m_strFile(::testing::TempDir() + "scenario-" + std::to_string(getpid()) + ".json") {}
    ~ScenarioFileTest() override { std::remove(m_strFile.c_str()); }

    void Write(const std::string& text) const {
        std::ofstream(m_strFile, std::ios::binary) << text;
    }

    static std::string LoadError(const std::string& file) {
        std::string error;
        EXPECT_FALSE(Scenario::Load(file, error));
        return error;
    }

    static Scenario LoadShipped(const std::string& name) {
        std::string error;
        auto scenario = Scenario::Load(SCENARIO_FOLDER "/" + name, error);
        EXPECT_TRUE(scenario) << error;
        return scenario ? *scenario : *Scenario::Parse(With("\"senders\": []"), "", error);
    }

    const std::string m_strFile;
};

TEST_F(ScenarioFileTest, FileThatCannotBeReadHasTheSystemsReason) {
    EXPECT_EQ(m_strFile + ": No such file or directory", LoadError(m_strFile));
    EXPECT_EQ(std::string(SCENARIO_FOLDER) + ": Is a directory", LoadError(SCENARIO_FOLDER));
    EXPECT_EQ(": No such file or directory", LoadError(""));
}

TEST_F(ScenarioFileTest, ErrorsNameTheFile) {
    Write("");
    EXPECT_EQ(m_strFile +
                  ":1:1: syntax error while parsing value - unexpected end of input; "
                  "expected '[', '{', or a literal",
              LoadError(m_strFile));
    Write(With("\"timeline\": [{}]"));
    EXPECT_EQ(m_strFile + ": /timeline/0/at: missing, expected seconds from 0 to 86400",
              LoadError(m_strFile));
}

TEST_F(ScenarioFileTest, FileThatNeverEndsIsAnError) {
    EXPECT_EQ("/dev/zero: expected at most 33554432 bytes", LoadError("/dev/zero"));
}

TEST_F(ScenarioFileTest, FileIsReadWhole) {
    Write(With("\"clock\": \"first-client\"") + std::string(200000, '\n'));
    std::string error;
    const auto scenario = Scenario::Load(m_strFile, error);
    ASSERT_TRUE(scenario) << error;
    EXPECT_EQ("d", scenario->Description());
    EXPECT_TRUE(scenario->GetData().startsWithClient);
}

TEST_F(ScenarioFileTest, MeetingIsOverWithinSixSeconds) {
    const Scenario meeting = LoadShipped("meeting.json");
    const auto& data = meeting.GetData();
    EXPECT_FALSE(meeting.Description().empty());
    EXPECT_TRUE(data.startsWithClient);
    EXPECT_EQ(4U, data.senders.size());
    EXPECT_EQ(1, data.moderator.id);
    EXPECT_FALSE(data.crowd);
    ASSERT_FALSE(data.timeline.empty());
    EXPECT_EQ(std::chrono::milliseconds(500), data.timeline.front().at);
    EXPECT_EQ(0U, data.timeline.front().action.text.rfind("join 5 ", 0));
    EXPECT_LE(data.timeline.back().at, std::chrono::seconds(6));
}

TEST_F(ScenarioFileTest, LectureHallHasALecturerAndFiveHundred) {
    const Scenario hall = LoadShipped("lecture-hall.json");
    const auto& data = hall.GetData();
    ASSERT_TRUE(data.crowd);
    EXPECT_EQ(500, data.crowd->count);
    EXPECT_GT(data.crowd->present, 0);
    ASSERT_EQ(1U, data.senders.size());
    ASSERT_EQ(1U, data.shown.size());
    EXPECT_EQ(data.senders.front().key, data.shown.front().first);
    EXPECT_EQ(data.senders.front().key, data.moderator.id);
}

TEST_F(ScenarioFileTest, BadDayHasEveryKindOfFaultAndEndsWell) {
    const Scenario bad = LoadShipped("bad-day.json");
    std::set<std::string> kinds;
    ReceiverSimulator receiver;
    for (const auto& [at, action] : bad.GetData().timeline) {
        EXPECT_EQ("ok", action.perform(receiver)) << action.text;
        for (const simulator::Fault& fault : receiver.Faults())
            kinds.insert(std::to_string(static_cast<int>(fault.kind)));
    }
    EXPECT_EQ(13U, kinds.size());
    EXPECT_TRUE(receiver.Faults().empty());
    EXPECT_EQ(std::chrono::seconds(30), bad.GetData().timeline.back().at);
}

TEST_F(ScenarioFileTest, TimelineOfTheMeetingGoesWithoutErrors) {
    const Scenario meeting = LoadShipped("meeting.json");
    ReceiverSimulator receiver;
    ASSERT_FALSE(receiver.Play(meeting));
    for (const auto& [at, action] : meeting.GetData().timeline)
        EXPECT_EQ("ok", action.perform(receiver)) << action.text;
}

// --- What is loaded ---

TEST(ScenarioDataTest, DescriptionIsEnough) {
    const auto scenario = ParseGood(R"({"description": "alone \u00fc"})");
    EXPECT_EQ("alone \xC3\xBC", scenario->Description());
    const auto& data = scenario->GetData();
    EXPECT_FALSE(data.startsWithClient);
    EXPECT_TRUE(data.senders.empty());
    EXPECT_TRUE(data.timeline.empty());
    EXPECT_FALSE(data.crowd);
    EXPECT_EQ(0, data.moderator.id);
}

TEST(ScenarioDataTest, MembersHaveTheirValues) {
    const auto scenario = ParseGood(With(
        R"("clock": "start", "moderator": {"id": -3, "flag": 255},
        "senders": [{"key": 5, "name": "x", "address": "1.2.3.4", "status": 6, "position": 7,
                     "os": 8, "app": 9, "pointer": 10, "local": true, "valid": true, "shown": 11},
                    {"key": 4}],
        "crowd": {"key": 2147483646, "count": 2, "present": 1, "every": 0.0014})"));
    const auto& data = scenario->GetData();
    EXPECT_FALSE(data.startsWithClient);
    EXPECT_EQ(-3, data.moderator.id);
    EXPECT_EQ(255, data.moderator.flag);
    ASSERT_EQ(2U, data.senders.size());
    const Sender& sender = data.senders.front();
    EXPECT_EQ(5, sender.key);
    EXPECT_EQ("x", sender.userName);
    EXPECT_EQ(0x01020304U, sender.address);
    EXPECT_EQ(6, sender.status);
    EXPECT_EQ(7, sender.splitScreen);
    EXPECT_EQ(8, sender.osType);
    EXPECT_EQ(9, sender.appType);
    EXPECT_EQ(10, sender.pointerInputType);
    EXPECT_TRUE(sender.local);
    EXPECT_TRUE(sender.valid);
    EXPECT_EQ(simulator::SampleSender(4).userName, data.senders.back().userName);
    ASSERT_EQ(1U, data.shown.size());
    EXPECT_EQ(5, data.shown.front().first);
    EXPECT_EQ(11, data.shown.front().second);
    ASSERT_TRUE(data.crowd);
    EXPECT_EQ(2147483646, data.crowd->key);
    EXPECT_EQ(2, data.crowd->count);
    EXPECT_EQ(1, data.crowd->present);
    EXPECT_EQ(std::chrono::milliseconds(1), data.crowd->every);
}

TEST(ScenarioDataTest, EntriesAreSortedByTimeAndThenAsInTheFile) {
    const auto scenario = ParseGood(With(R"("timeline": [
        {"at": 2, "do": "notify", "first": 1, "second": 0, "third": 0},
        {"at": 86400, "do": "notify", "first": 2, "second": 0, "third": 0},
        {"at": 0.0005, "do": "notify", "first": 3, "second": 0, "third": 0},
        {"at": 2.0, "do": "notify", "first": 4, "second": 0, "third": 0},
        {"at": 0, "do": "notify", "first": 5, "second": 0, "third": 0}])"));
    std::vector<std::pair<int64_t, std::string>> entries;
    for (const auto& [at, action] : scenario->GetData().timeline)
        entries.emplace_back(at.count(), action.text);
    const std::vector<std::pair<int64_t, std::string>> expected = {{0, "notify 5 0 0"},
                                                                   {1, "notify 3 0 0"},
                                                                   {2000, "notify 1 0 0"},
                                                                   {2000, "notify 4 0 0"},
                                                                   {86400000, "notify 2 0 0"}};
    EXPECT_EQ(expected, entries);
}

TEST(ScenarioDataTest, EntryAndLineAreTheSameCommand) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"("do": "join", "key": 3, "name": "Ada \"L\"", "address": "192.168.10.20", "local": true)",
         R"(join 3 name="Ada \"L\"" address=192.168.10.20 local=true)"},
        {R"("do": "leave", "key": 1)", "leave 1"},
        {R"("do": "change", "key": 1, "status": 5)", "change 1 status=5"},
        {R"("do": "show", "key": 1, "option": 2)", "show 1 2"},
        {R"("do": "hide", "key": 1)", "hide 1"},
        {R"("do": "moderator", "id": 1, "flag": 2)", "moderator 1 2"},
        {R"("do": "notify", "first": 1, "second": 2, "third": -3)", "notify 1 2 -3"},
        {R"("do": "drop")", "drop"},
        {R"("do": "fault on", "kind": "silent", "command": 16, "count": 2)",
         "fault on silent command=16 count=2"},
        {R"("do": "fault on", "kind": "cut", "command": "event", "end": "later", "time": 5)",
         "fault on cut command=event end=later time=5"},
        {R"("do": "fault off")", "fault off"},
        {R"("do": "fault off", "kind": "cut", "command": "event")", "fault off cut command=event"},
    };
    for (const auto& [entry, line] : cases) {
        const auto scenario = ParseGood(WithEntry("{\"at\": 1, " + entry + "}"));
        ASSERT_TRUE(scenario);
        const simulator::Action& action = scenario->GetData().timeline.back().action;
        EXPECT_EQ(line, action.text);
        ReceiverSimulator first;
        ReceiverSimulator second;
        first.Play(*scenario);
        second.Play(*scenario);
        EXPECT_EQ(first.Execute(line), action.perform(second)) << line;
        EXPECT_EQ(first.Execute("state"), second.Execute("state")) << line;
    }
}

// --- Playing ---

class ScenarioPlayTest : public SimulatorFixture {
protected:
    ScenarioPlayTest() {
        m_Observer.timeline = [this](const std::string& command, const std::string& answer) {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Done.push_back(command + ": " + answer);
        };
    }

    void StartPlaying(const std::string& text) {
        const auto scenario = ParseGood(text);
        ASSERT_TRUE(scenario);
        m_pSim = std::make_unique<ReceiverSimulator>(m_Options, m_Observer);
        ASSERT_FALSE(m_pSim->Play(*scenario));
        ASSERT_FALSE(m_pSim->Start());
    }

    std::vector<std::string> Done() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Done;
    }

    bool WaitForDone(size_t count) {
        return WaitFor([&] { return Done().size() >= count; });
    }

    /// The first bytes that a crowd sends with this seed.
    std::string CrowdBytes(uint64_t seed) {
        m_Options.seed = seed;
        StartPlaying(With(R"("clock": "first-client",
            "crowd": {"key": 1, "count": 20, "present": 10, "every": 0.005})"));
        return RawClient(m_Options.address, m_pSim->Port()).Receive(60 * kNotifySize);
    }

private:
    std::mutex m_Mutex;
    std::vector<std::string> m_Done;
};

TEST_F(ScenarioPlayTest, FirstStateIsServed) {
    StartPlaying(With(R"("moderator": {"id": 258, "flag": 3}, "senders": [
        {"key": 7, "name": "ab", "address": "1.2.3.4", "status": 1, "valid": true, "shown": 9},
        {"key": 5, "name": "c", "address": "5.6.7.8", "status": 6, "position": 4}])"));
    m_pClient = Connect();
    EXPECT_EQ(Frame32("11", "00 02 00") + Hex("00 00 00 07 01 02 03 04 61 62") + Zeros(46) +
                  Hex("00 02 09") + Zeros(5) + Hex("00 00 00 05 05 06 07 08 63") + Zeros(47) +
                  Hex("00 06 04") + Zeros(5),
              ListOfShort(Frame32("10", "01"), 2));
    EXPECT_EQ(Frame32("21", "00 00 01 02 03"), Ask(Frame32("20", "01")));
}

TEST_F(ScenarioPlayTest, CrowdIsPresentAsFarAsItSays) {
    StartPlaying(With(R"("senders": [{"key": 1}],
        "crowd": {"key": 100, "count": 65000, "present": 64999, "every": 86400})"));
    const std::vector<Sender> senders = m_pSim->Senders();
    ASSERT_EQ(65000U, senders.size());
    EXPECT_EQ(1, senders.front().key);
    EXPECT_EQ(100, senders.at(1).key);
    EXPECT_EQ(65098, senders.back().key);
    EXPECT_EQ(simulator::SampleSender(65098).userName, senders.back().userName);
}

TEST_F(ScenarioPlayTest, EventsComeInTheOrderOfTheirTimes) {
    StartPlaying(With(R"("clock": "first-client", "senders": [{"key": 1, "valid": true}],
        "timeline": [
        {"at": 0.15, "do": "leave", "key": 2},
        {"at": 0.05, "do": "change", "key": 2, "status": 9},
        {"at": 0.1, "do": "show", "key": 1, "option": 3},
        {"at": 0, "do": "join", "key": 2, "status": 1},
        {"at": 0.1, "do": "hide", "key": 1},
        {"at": 0.12, "do": "moderator", "id": 2, "flag": 1},
        {"at": 0.14, "do": "notify", "first": 100, "second": -1, "third": 0}]
        )"));
    m_pClient = Connect();
    const std::string expected = NotifyFrame("00 00 00 01 00 00 00 02 00 00 00 01") +
                                 NotifyFrame("00 00 00 03 00 00 00 02 00 00 00 09") +
                                 NotifyFrame("00 00 00 04 00 00 00 01 00 00 00 03") +
                                 NotifyFrame("00 00 00 05 00 00 00 01 00 00 00 00") +
                                 NotifyFrame("00 00 00 06 00 00 00 02 00 00 00 01") +
                                 NotifyFrame("00 00 00 64 FF FF FF FF 00 00 00 00") +
                                 NotifyFrame("00 00 00 02 00 00 00 02 00 00 00 00");
    EXPECT_EQ(expected, m_pClient->Receive(expected.size()));
    ASSERT_TRUE(WaitForDone(7));
    EXPECT_EQ((std::vector<std::string>{"join 2 status=1: ok", "change 2 status=9: ok",
                                        "show 1 3: ok", "hide 1: ok", "moderator 2 1: ok",
                                        "notify 100 -1 0: ok", "leave 2: ok"}),
              Done());
}

TEST_F(ScenarioPlayTest, NothingComesBeforeItsTime) {
    StartPlaying(With(R"("clock": "first-client",
        "timeline": [{"at": 0.3, "do": "join", "key": 2, "status": 1}])"));
    const auto start = std::chrono::steady_clock::now();
    m_pClient = Connect();
    EXPECT_EQ(NotifyFrame("00 00 00 01 00 00 00 02 00 00 00 01"), m_pClient->Receive(kNotifySize));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

TEST_F(ScenarioPlayTest, TimelineBeginsWithoutAClientAtTheStart) {
    StartPlaying(With(R"("timeline": [{"at": 0.01, "do": "join", "key": 2}])"));
    EXPECT_TRUE(WaitFor([&] { return m_pSim->Senders().size() == 1; }));
}

TEST_F(ScenarioPlayTest, TimelineAwaitsTheFirstClientAndBeginsOnce) {
    StartPlaying(With(R"("clock": "first-client",
        "timeline": [{"at": 0, "do": "join", "key": 2}, {"at": 0.1, "do": "leave", "key": 2}])"));
    // Nothing could be awaited: nothing is to happen.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(Done().empty());
    const auto first = Connect();
    ASSERT_TRUE(WaitForDone(1));
    const auto second = Connect();
    ASSERT_TRUE(WaitForDone(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ((std::vector<std::string>{"join 2: ok", "leave 2: ok"}), Done());
}

TEST_F(ScenarioPlayTest, CommandThatFailsIsReportedAndTheRestGoesOn) {
    StartPlaying(With(R"("senders": [{"key": 1}], "timeline": [
        {"at": 0, "do": "leave", "key": 1}, {"at": 0, "do": "leave", "key": 1},
        {"at": 0, "do": "hide", "key": 1}, {"at": 0, "do": "fault off", "kind": "cut"},
        {"at": 0, "do": "join", "key": 1}, {"at": 0, "do": "join", "key": 1}])"));
    ASSERT_TRUE(WaitForDone(6));
    EXPECT_EQ((std::vector<std::string>{"leave 1: ok", "leave 1: error no sender has the key 1",
                                        "hide 1: error 1 unknown sender",
                                        "fault off cut: error no such fault is on", "join 1: ok",
                                        "join 1: error a sender has the key 1 already"}),
              Done());
    EXPECT_EQ(1U, m_pSim->Senders().size());
}

TEST_F(ScenarioPlayTest, FaultsOfATimelineAct) {
    StartPlaying(With(R"("clock": "first-client", "timeline": [
        {"at": 0, "do": "fault on", "kind": "wrong-code", "code": 99, "command": "GetModeratorInfo",
         "count": 1}])"));
    m_pClient = Connect();
    ASSERT_TRUE(WaitForDone(1));
    EXPECT_EQ(Frame32("63"), Ask(Frame32("20", "01")));
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
}

TEST_F(ScenarioPlayTest, DropOfATimelineClosesTheClients) {
    StartPlaying(With(R"("clock": "first-client", "timeline": [{"at": 0.05, "do": "drop"}])"));
    RawClient client(m_Options.address, m_pSim->Port());
    EXPECT_TRUE(client.IsConnected());
    EXPECT_TRUE(client.IsClosedByPeer());
}

TEST_F(ScenarioPlayTest, SameSeedIsTheSameCrowdByteForByte) {
    const std::string bytes = CrowdBytes(1);
    ASSERT_EQ(60 * kNotifySize, bytes.size());
    EXPECT_EQ(bytes, CrowdBytes(1));
    EXPECT_NE(bytes, CrowdBytes(2));
}

TEST_F(ScenarioPlayTest, CrowdComesLeavesAndChanges) {
    const std::string bytes = CrowdBytes(1);
    std::set<std::string> kinds;
    for (size_t at = 0; at + kNotifySize <= bytes.size(); at += kNotifySize) {
        kinds.insert(bytes.substr(at + 8, 4));
        const auto key = static_cast<unsigned char>(bytes[at + 15]);
        EXPECT_TRUE(bytes.substr(at + 12, 3) == Zeros(3) && key >= 1 && key <= 20);
    }
    EXPECT_EQ((std::set<std::string>{Hex("00000001"), Hex("00000002"), Hex("00000003")}), kinds);
}

TEST_F(ScenarioPlayTest, TimelineEndsWithStop) {
    StartPlaying(With(R"("timeline": [{"at": 0, "do": "join", "key": 1},
        {"at": 0.2, "do": "join", "key": 2}])"));
    ASSERT_TRUE(WaitForDone(1));
    m_pSim->Stop();
    const size_t done = Done().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(done, Done().size());
}

TEST_F(ScenarioPlayTest, PlayReplacesTheState) {
    m_pSim = std::make_unique<ReceiverSimulator>(m_Options, m_Observer);
    m_pSim->AddSender(MakeSender(9));
    m_pSim->SetModerator({5, 5});
    ASSERT_FALSE(m_pSim->Play(*ParseGood(With(R"("senders": [{"key": 1}, {"key": 2}])"))));
    ASSERT_EQ(2U, m_pSim->Senders().size());
    EXPECT_EQ(1, m_pSim->Senders().at(0).key);
    EXPECT_EQ(0, m_pSim->GetModerator().id);
}

TEST_F(ScenarioPlayTest, PlayWhileServingIsRefusedAndChangesNothing) {
    StartAndConnect();
    m_pSim->AddSender(MakeSender(9));
    const std::string before = m_pSim->Execute("state");
    EXPECT_EQ(std::make_error_code(std::errc::operation_in_progress),
              m_pSim->Play(*ParseGood(With(R"("senders": [{"key": 1}])"))));
    EXPECT_EQ(before, m_pSim->Execute("state"));
    m_pSim->Stop();
    EXPECT_FALSE(m_pSim->Play(*ParseGood(With(R"("senders": [{"key": 1}])"))));
    EXPECT_EQ(1, m_pSim->Senders().at(0).key);
}

}  // namespace
