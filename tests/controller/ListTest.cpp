#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/controller/Screenctl.h"

namespace screenctl_test {
namespace {

using simulator::Sender;
using testing::HasSubstr;

class ListTest : public ReceiverFixture {
protected:
    void ServeSenders(const std::vector<Sender>& senders) {
        Serve();
        for (const Sender& sender : senders)
            ASSERT_TRUE(m_pReceiver->AddSender(sender));
    }

    void ServeNames(const std::vector<std::string>& names) {
        std::vector<Sender> senders;
        for (const std::string& name : names)
            senders.push_back(MakeSender(static_cast<int32_t>(senders.size()) + 1, name));
        ServeSenders(senders);
    }

    /// Three senders that differ in everything; in no order.
    void ServeThree() {
        std::vector<Sender> senders = {MakeSender(20, "Berta"), MakeSender(-3, "Cäsar"),
                                       MakeSender(100, "Anton")};
        senders[0].status = 3;
        senders[0].address = 0xC0000210;
        senders[0].splitScreen = 2;
        senders[0].osType = 11;
        senders[0].appType = 12;
        senders[0].pointerInputType = 65535;
        senders[1].status = 65535;
        senders[1].address = 0xFFFFFFFF;
        senders[1].splitScreen = 1;
        senders[1].local = true;
        senders[2].status = 0;
        senders[2].address = 0;
        senders[2].splitScreen = 255;
        senders[2].valid = false;
        ServeSenders(senders);
    }

    std::string Printed(const std::vector<std::string>& arguments,
                        const std::vector<std::string>& environment = {}) const {
        std::vector<std::string> list = {"list"};
        list.insert(list.end(), arguments.begin(), arguments.end());
        const Ended ended = Run(list, environment);
        EXPECT_EQ(0, ended.exit);
        EXPECT_EQ("", ended.err);
        return ended.out;
    }

    /// What a terminal of so many columns gets.
    std::string PrintedOnTerminal(unsigned short columns) const {
        std::vector<std::string> words = With({SCREENCTL_PROGRAM, "list"});
        std::vector<char*> arguments;
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        unsetenv("COLUMNS");
        winsize size = {};
        size.ws_row = 24;
        size.ws_col = columns;
        int terminal = -1;
        const pid_t program = forkpty(&terminal, nullptr, nullptr, &size);
        if (program == 0) {
            execv(arguments[0], arguments.data());
            _exit(127);
        }
        std::string printed;
        char chunk[4096];
        for (ssize_t count = 0; (count = read(terminal, chunk, sizeof chunk)) > 0;)
            printed.append(chunk, static_cast<size_t>(count));
        close(terminal);
        int status = -1;
        EXPECT_EQ(program, waitpid(program, &status, 0));
        EXPECT_EQ(0, status);
        return printed;
    }

    /// The values of one member in the order in which they are printed.
    std::string Values(const std::string& member, std::vector<std::string> arguments = {}) const {
        arguments.push_back("--json");
        std::string values;
        for (const ordered_json& line : ParseLines(Printed(arguments)))
            values += line[member].dump() + " ";
        return values;
    }

    /// A sender's name as it is printed.
    std::string NamePrinted(const std::string& name) {
        ServeNames({name});
        const std::vector<ordered_json> lines = ParseLines(Printed({"--json"}));
        if (lines.size() != 1)
            return "";
        const std::string printed = lines[0]["name"];
        EXPECT_THAT(Printed({}), HasSubstr("1    " + printed + "  "));
        return printed;
    }
};

TEST_F(ListTest, TableHasAHeaderAndALineForEachSender) {
    ServeThree();
    EXPECT_EQ(
        "KEY  NAME   ADDRESS          STATUS  POSITION\n"
        "20   Berta  192.0.2.16       3       2\n"
        "-3   Cäsar  255.255.255.255  65535   1\n"
        "100  Anton  0.0.0.0          0       255\n",
        Printed({}));
    EXPECT_EQ(Printed({}), Printed({"--format", "table"}));
}

TEST_F(ListTest, EmptyListHasAHeaderOnly) {
    Serve();
    EXPECT_EQ("KEY  NAME  ADDRESS  STATUS  POSITION\n", Printed({}));
    EXPECT_EQ("key,name,address,status,position,os,app,pointer\r\n", Printed({"--format", "csv"}));
    EXPECT_EQ("", Printed({"--json"}));
}

TEST_F(ListTest, JsonIsAnObjectForEachSender) {
    ServeThree();
    const std::vector<ordered_json> lines = ParseLines(Printed({"--json"}));
    ASSERT_EQ(3u, lines.size());
    for (const ordered_json& line : lines) {
        EXPECT_EQ("version key name address status position os app pointer ", KeysOf(line));
        EXPECT_EQ(1, line["version"]);
    }
    EXPECT_EQ(Parse(R"({"version":1,"key":20,"name":"Berta","address":"192.0.2.16","status":3,)"
                    R"("position":2,"os":11,"app":12,"pointer":65535})"),
              lines[0]);
    EXPECT_EQ("Cäsar", lines[1]["name"]);
    EXPECT_EQ(Printed({"--json"}), Printed({"--format", "json"}));
    EXPECT_EQ(Printed({"--json"}), Printed({"--json", "--format", "json"}));
}

TEST_F(ListTest, ShortRecordsHaveNoTypes) {
    m_Options.records = simulator::RecordSize::Short;
    ServeThree();
    const std::vector<ordered_json> lines = ParseLines(Printed({"--json"}));
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("Berta", lines[0]["name"]);
    EXPECT_EQ(0, lines[0]["os"]);
    EXPECT_EQ(0, lines[0]["pointer"]);
}

TEST_F(ListTest, CsvQuotesWhatNeedsIt) {
    ServeNames({"plain", "a,b", "say \"hi\"", ""});
    EXPECT_EQ(
        "key,name,address,status,position,os,app,pointer\r\n"
        "1,plain,192.0.2.1,1,128,0,0,0\r\n"
        "2,\"a,b\",192.0.2.2,1,128,0,0,0\r\n"
        "3,\"say \"\"hi\"\"\",192.0.2.3,1,128,0,0,0\r\n"
        "4,,192.0.2.4,1,128,0,0,0\r\n",
        Printed({"--format", "csv"}));
}

TEST_F(ListTest, CsvHasSafeNames) {
    ServeNames({"a\x1b[2J\r\n\xFF", "=x,\xE2\x80\xAE"});
    EXPECT_EQ(
        "key,name,address,status,position,os,app,pointer\r\n"
        "1,a\\x1B[2J\\x0D\\x0A\\xFF,192.0.2.1,1,128,0,0,0\r\n"
        "2,\"=x,\\xE2\\x80\\xAE\",192.0.2.2,1,128,0,0,0\r\n",
        Printed({"--format", "csv"}));
}

TEST_F(ListTest, WhichIsTheReceiversSelection) {
    ServeThree();
    EXPECT_EQ("20 -3 100 ", Values("key"));
    EXPECT_EQ("20 -3 100 ", Values("key", {"--which", "all"}));
    EXPECT_EQ("20 100 ", Values("key", {"--which", "nonlocal"}));
    EXPECT_EQ("20 -3 ", Values("key", {"--which", "valid"}));
    EXPECT_EQ(2u, m_pReceiver->FramesReceived(16));
    EXPECT_EQ(1u, m_pReceiver->FramesReceived(26));
    EXPECT_EQ(1u, m_pReceiver->FramesReceived(28));
}

TEST_F(ListTest, SortOrdersTheSenders) {
    ServeThree();
    EXPECT_EQ("20 -3 100 ", Values("key", {"--sort", "receiver"}));
    EXPECT_EQ("-3 20 100 ", Values("key", {"--sort", "key"}));
    EXPECT_EQ("100 20 -3 ", Values("key", {"--sort", "name"}));
    EXPECT_EQ("100 20 -3 ", Values("key", {"--sort", "address"}));
    EXPECT_EQ("100 20 -3 ", Values("key", {"--sort", "status"}));
    EXPECT_EQ("-3 20 100 ", Values("key", {"--sort", "position"}));
}

TEST_F(ListTest, EqualSendersKeepTheReceiversOrder) {
    std::vector<Sender> senders;
    for (const int32_t key : {3, 1, 2})
        senders.push_back(MakeSender(key, "same"));
    ServeSenders(senders);
    EXPECT_EQ("3 1 2 ", Values("key", {"--sort", "name"}));
    EXPECT_EQ("3 1 2 ", Values("key", {"--sort", "status"}));
}

TEST_F(ListTest, HostIsAnArgumentToo) {
    Serve();
    const Ended ended = RunScreenctl({"list", Host()});
    EXPECT_EQ(0, ended.exit);
    EXPECT_EQ("KEY  NAME  ADDRESS  STATUS  POSITION\n", ended.out);
}

TEST_F(ListTest, LargestListIsPrintedWhole) {
    Serve();
    for (int key = 1; key <= static_cast<int>(simulator::kMaxSenders); ++key)
        m_pReceiver->AddSender(MakeSender(key, "a"));
    const std::vector<std::string> lines = Lines(Printed({"--json"}));
    ASSERT_EQ(65535u, lines.size());
    EXPECT_EQ(65535, Parse(lines.back())["key"]);
}

// The table's width

TEST_F(ListTest, NarrowTerminalsGetFewerColumnsAndShorterNames) {
    ServeNames({"Ada", "Grace Brewster Murray Hopper, Rear Admiral", "名前の長い人の部屋"});
    EXPECT_EQ(
        "KEY  NAME\n"
        "1    Ada\n"
        "2    Grace Brewster…\n"
        "3    名前の長い人の…\n",
        Printed({}, {"COLUMNS=20"}));
    EXPECT_EQ(
        "KEY  NAME              ADDRESS    STATUS\n"
        "1    Ada               192.0.2.1  1\n"
        "2    Grace Brewster …  192.0.2.2  1\n"
        "3    名前の長い人の…   192.0.2.3  1\n",
        Printed({}, {"COLUMNS=40"}));
    EXPECT_EQ(
        "KEY  NAME                                        ADDRESS    STATUS  POSITION\n"
        "1    Ada                                         192.0.2.1  1       128\n"
        "2    Grace Brewster Murray Hopper, Rear Admiral  192.0.2.2  1       128\n"
        "3    名前の長い人の部屋                          192.0.2.3  1       128\n",
        Printed({}, {"COLUMNS=80"}));
}

TEST_F(ListTest, TableFitsTheTerminalItIsPrintedOn) {
    ServeNames({"Grace Brewster Murray Hopper"});
    EXPECT_EQ(
        "KEY  NAME\r\n"
        "1    Grace Brewster…\r\n",
        PrintedOnTerminal(20));
    EXPECT_EQ(
        "KEY  NAME              ADDRESS    STATUS\r\n"
        "1    Grace Brewster …  192.0.2.1  1\r\n",
        PrintedOnTerminal(40));
}

TEST_F(ListTest, ForMachinesNothingIsCut) {
    const std::string longest(simulator::kMaxUserName, 'x');
    ServeNames({longest});
    EXPECT_THAT(Printed({"--json"}, {"COLUMNS=20"}), HasSubstr(longest));
    EXPECT_THAT(Printed({"--format", "csv"}, {"COLUMNS=20"}), HasSubstr(longest));
    EXPECT_THAT(Printed({}), HasSubstr(longest));
}

TEST_F(ListTest, WidthThatIsNoneIsNoLimit) {
    const std::string longest(simulator::kMaxUserName, 'x');
    ServeNames({longest});
    for (const char* width : {"COLUMNS=", "COLUMNS=0", "COLUMNS=-5", "COLUMNS=20x"})
        EXPECT_THAT(Printed({}, {width}), HasSubstr(longest)) << width;
}

TEST_F(ListTest, NarrowestTerminalHasNoLineThatIsTooLong) {
    ServeNames({"Ada"});
    EXPECT_EQ("K\n1\n", Printed({}, {"COLUMNS=1"}));
    EXPECT_EQ("KEY  …\n1    …\n", Printed({}, {"COLUMNS=6"}));
}

// Names

TEST_F(ListTest, WideAndCombiningCharactersAreAligned) {
    ServeNames({"a\xCC\x88 decomposed", "部屋", "ｱ half", "😀", "é"});
    EXPECT_EQ(
        "KEY  NAME          ADDRESS    STATUS  POSITION\n"
        "1    a\xCC\x88 decomposed  192.0.2.1  1       128\n"
        "2    部屋          192.0.2.2  1       128\n"
        "3    ｱ half        192.0.2.3  1       128\n"
        "4    😀            192.0.2.4  1       128\n"
        "5    é             192.0.2.5  1       128\n",
        Printed({}));
}

TEST_F(ListTest, LocaleOfTheUserChangesNothing) {
    ServeNames({"部屋", "\xFF"});
    const std::string printed = Printed({});
    EXPECT_THAT(printed, HasSubstr("部屋  192.0.2.1"));
    for (const char* locale : {"LC_ALL=C", "LC_ALL=POSIX", "LC_ALL=xx_YY.nothing"})
        EXPECT_EQ(printed, Printed({}, {locale}));
}

struct Name {
    const char* what;
    std::string sent;
    std::string printed;
};

void PrintTo(const Name& name, std::ostream* out) {
    *out << name.what;
}

class NameTest : public ListTest, public testing::WithParamInterface<Name> {};

TEST_P(NameTest, IsSafeToPrint) {
    EXPECT_EQ(GetParam().printed, NamePrinted(GetParam().sent));
}

INSTANTIATE_TEST_SUITE_P(
    All,
    NameTest,
    testing::Values(
        Name{"Plain", "Ada Lovelace", "Ada Lovelace"},
        Name{"Backslash", "ROOM\\ada", "ROOM\\ada"},
        Name{"Escape", "a\x1b[31mb", "a\\x1B[31mb"},
        Name{"LineEnds", "a\r\nb\tc", "a\\x0D\\x0Ab\\x09c"},
        Name{"Delete", "a\x7f", "a\\x7F"},
        Name{"SecondControlSet",
             "a\xC2\x9B"
             "31m",
             "a\\xC2\\x9B31m"},
        Name{"LoneByte",
             "a\xFF"
             "b",
             "a\\xFFb"},
        Name{"LoneContinuation", "\x80", "\\x80"},
        Name{"Overlong", "\xC0\xAF", "\\xC0\\xAF"},
        Name{"OverlongOfThree", "\xE0\x80\xAF", "\\xE0\\x80\\xAF"},
        Name{"Surrogate", "\xED\xA0\x80", "\\xED\\xA0\\x80"},
        Name{"TooLarge", "\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},
        Name{"FiveBytes", "\xF8\x88\x80\x80\x80", "\\xF8\\x88\\x80\\x80\\x80"},
        Name{"CutOff", "a\xE9\x83", "a\\xE9\\x83"},
        Name{"CutOffBeforeAnother",
             "\xE9\x83"
             "b",
             "\\xE9\\x83"
             "b"},
        Name{"RightToLeftOverride",
             "a\xE2\x80\xAE"
             "b",
             "a\\xE2\\x80\\xAEb"},
        Name{"RightToLeftMark", "\xE2\x80\x8F", "\\xE2\\x80\\x8F"},
        Name{"Isolate", "\xE2\x81\xA6", "\\xE2\\x81\\xA6"},
        Name{"ArabicLetterMark", "\xD8\x9C", "\\xD8\\x9C"},
        Name{"ByteOrderMark",
             "\xEF\xBB\xBF"
             "a",
             "\\xEF\\xBB\\xBF"
             "a"},
        Name{"LineSeparator", "\xE2\x80\xA8", "\\xE2\\x80\\xA8"},
        Name{"NoCharacter", "\xEF\xBF\xBF", "\\xEF\\xBF\\xBF"},
        Name{"SoftHyphen", "\xC2\xAD", "\\xC2\\xAD"},
        Name{"GraphemeJoiner", "\xCD\x8F", "\\xCD\\x8F"},
        Name{"HangulFillers", "\xE1\x85\x9F\xE1\x85\xA0", "\\xE1\\x85\\x9F\\xE1\\x85\\xA0"},
        Name{"KhmerVowels", "\xE1\x9E\xB4\xE1\x9E\xB5", "\\xE1\\x9E\\xB4\\xE1\\x9E\\xB5"},
        Name{"VowelSeparator", "\xE1\xA0\x8E", "\\xE1\\xA0\\x8E"},
        Name{"Filler", "\xE3\x85\xA4", "\\xE3\\x85\\xA4"},
        Name{"HalfwidthFiller", "\xEF\xBE\xA0", "\\xEF\\xBE\\xA0"},
        Name{"Annotation", "\xEF\xBF\xB9\xEF\xBF\xBB", "\\xEF\\xBF\\xB9\\xEF\\xBF\\xBB"},
        Name{"Tags", "\xF3\xA0\x80\x80\xF3\xA0\x81\xBF",
             "\\xF3\\xA0\\x80\\x80\\xF3\\xA0\\x81\\xBF"},
        Name{"JoinedEmoji", "\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x92\xBB",
             "\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x92\xBB"}),
    [](const testing::TestParamInfo<Name>& tested) { return std::string(tested.param.what); });

}  // namespace
}  // namespace screenctl_test
