#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tests/controller/Screenctl.h"

namespace screenctl_test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

ordered_json Explained(const std::string& code) {
    const Ended ended = RunScreenctl({"explain", code, "--json"});
    EXPECT_EQ(0, ended.exit) << code;
    EXPECT_EQ("", ended.err);
    const ordered_json line = Parse(ended.out);
    EXPECT_EQ("version code message meaning advice ", KeysOf(line));
    EXPECT_EQ(1, line["version"]);
    EXPECT_EQ(std::stoi(code), line["code"]);
    return line;
}

struct Known {
    const char* code;
    const char* message;  // the library's, its beginning
    const char* meaning;  // a part that no other code has
};

class KnownCodeTest : public testing::TestWithParam<Known> {};

TEST_P(KnownCodeTest, HasTheLibrarysMessageAndItsOwnMeaning) {
    const ordered_json line = Explained(GetParam().code);
    EXPECT_THAT(line["message"].get<std::string>(), StartsWith(GetParam().message));
    EXPECT_THAT(line["meaning"].get<std::string>(), HasSubstr(GetParam().meaning));
    EXPECT_NE("", line["advice"]);
}

INSTANTIATE_TEST_SUITE_P(
    All,
    KnownCodeTest,
    testing::Values(
        Known{"-6528101", "... command failed to receive response packet within ... seconds.",
              "within 10 seconds"},
        Known{"-6528002", "The connection has been gracefully closed.", "receiver closed the"},
        Known{"-6528001", "No TCP connection could be built", "within 3 seconds"},
        Known{"-6528004", "It's invliad to specify empty port", "without saying to which port"},
        Known{"-6528005", "Previous network thread is still busy", "at the same time"},
        Known{"-6528006", "It's OK to build connection", "greeting"},
        Known{"-6527001", "Failed to create object", "another thread"},
        Known{"-6527002", "Function reentry is not allowed", "inside a notification"},
        Known{"-6527004", "Failed to init object", "before it had ever connected"},
        Known{"-111", "Connection refused", "no receiver is listening"},
        Known{"-110", "Connection timed out", "gave the connection up"},
        Known{"-113", "No route to host", "No host with this address"},
        Known{"-101", "Network is unreachable", "knows no way"},
        Known{"-104", "Connection reset by peer", "cut off"},
        Known{"-107", "Transport endpoint is not connected", "no such address"},
        Known{"-11", "Resource temporarily unavailable", "in the middle of a message"},
        Known{"-12", "Cannot allocate memory", "out of memory"},
        // General words
        Known{"-5", "Input/output error", "operating system"},
        Known{"-6528305", "No available inbound port", "itself never raises"},
        Known{"-6527003", "Out of memory!", "itself never raises"},
        Known{"-6529999", "Unknown error 6529999", "Neither"},
        Known{"-4000", "Unknown error 4000", "Neither"},
        Known{"-2147483648", "Unknown error", "Neither"}));

TEST(ExplainTest, MessageHasNoPlace) {
    EXPECT_EQ("Connection refused", Explained("-111")["message"]);
    EXPECT_EQ("The connection has been gracefully closed.", Explained("-6528002")["message"]);
}

TEST(ExplainTest, MeaningsDiffer) {
    std::set<std::string> meanings;
    for (const char* code : {"-6528101", "-6528002", "-6528001", "-6528004", "-6528005", "-6528006",
                             "-6527001", "-6527002", "-6527004", "-111",     "-110",     "-113",
                             "-101",     "-104",     "-107",     "-11",      "-12",      "-5",
                             "0",        "1",        "-6528305", "-6529999"})
        meanings.insert(Explained(code)["meaning"].get<std::string>());
    EXPECT_EQ(22u, meanings.size());
}

TEST(ExplainTest, ZeroIsNoError) {
    const ordered_json line = Explained("0");
    EXPECT_EQ("OK", line["message"]);
    EXPECT_EQ("No error.", line["meaning"]);
}

TEST(ExplainTest, PositiveIsTheReceiversOwnResult) {
    for (const char* code : {"1", "111", "2147483647"}) {
        const ordered_json line = Explained(code);
        EXPECT_EQ("", line["message"]);
        EXPECT_THAT(line["meaning"].get<std::string>(), HasSubstr("receiver's own result"));
        EXPECT_THAT(line["advice"].get<std::string>(), HasSubstr("documentation"));
    }
}

TEST(ExplainTest, IsThreeLinesForPeople) {
    const Ended ended = RunScreenctl({"explain", "-111"});
    EXPECT_EQ(0, ended.exit);
    EXPECT_EQ("", ended.err);
    const std::vector<std::string> lines = Lines(ended.out);
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("-111: Connection refused", lines[0]);
    EXPECT_THAT(lines[1], StartsWith("Meaning: The host is there"));
    EXPECT_THAT(lines[2], StartsWith("Advice: Start the receiver"));
}

TEST(ExplainTest, ResultHasNoMessageForPeople) {
    EXPECT_EQ("7", Lines(RunScreenctl({"explain", "7"}).out).at(0));
}

class NoCodeTest : public testing::TestWithParam<const char*> {};

TEST_P(NoCodeTest, IsWrongUsage) {
    const Ended ended = RunScreenctl({"explain", GetParam()});
    EXPECT_EQ(2, ended.exit);
    EXPECT_EQ("", ended.out);
    EXPECT_EQ(1u, Lines(ended.err).size()) << ended.err;
}

INSTANTIATE_TEST_SUITE_P(All,
                         NoCodeTest,
                         testing::Values("",
                                         "x",
                                         "ECONNREFUSED",
                                         "-",
                                         "1.5",
                                         "0x10",
                                         "111 ",
                                         "2147483648",
                                         "-2147483649",
                                         "99999999999999999999"));

TEST(ExplainTest, CodeIsRequired) {
    EXPECT_EQ(2, RunScreenctl({"explain"}).exit);
}

}  // namespace
}  // namespace screenctl_test
