#include <set>

#include "tests/faults/FaultFixture.h"

// Answers whose bytes come in pieces, with others among them, or do not match what they announce.

namespace sr_test {
namespace {

class StreamFaultTest : public FaultFixture {
protected:
    Data m_Data;
};

class EachStreamFaultTest : public CommandFaultFixture {};
class ListFaultTest : public CommandFaultFixture {
protected:
    Data m_Data;
};

INSTANTIATE_TEST_SUITE_P(Commands, EachStreamFaultTest, testing::ValuesIn(AllCommands()), NameOf);
INSTANTIATE_TEST_SUITE_P(Commands, ListFaultTest, testing::ValuesIn(ListCommands()), NameOf);

// Garbage.

TEST_P(EachStreamFaultTest, GarbageBeforeAnAnswerIsSkipped) {
    for (const bool prefixParts : {false, true}) {
        FaultOn(Garbage(GetParam().code, GarbagePlace::Before, 40, prefixParts));
        const int before = m_Client.Skipped();
        ExpectRight(GetParam(), m_Client.stub);
        EXPECT_EQ(before + 40, m_Client.Skipped()) << prefixParts;
    }
    ExpectRight(GetParam(), m_Client.stub);
}

TEST_P(EachStreamFaultTest, GarbageBehindAnAnswerIsSkippedBeforeTheNextFrame) {
    for (const bool prefixParts : {false, true}) {
        FaultOn(Garbage(GetParam().code, GarbagePlace::After, 40, prefixParts));
        const int before = m_Client.Skipped();
        ExpectRight(GetParam(), m_Client.stub);
        ExpectRight(GetParam(), m_Client.stub);
        EXPECT_EQ(before + 40, m_Client.Skipped()) << prefixParts;
    }
}

TEST_P(EachStreamFaultTest, GarbageInsideAnAnswerIsTakenForItsBytes) {
    const Command& command = GetParam();
    FaultOn(Garbage(command.code, GarbagePlace::Inside, 16));
    Data data;
    EXPECT_EQ(command.result, command.call(m_Client.stub, data));
    if (command.IsList()) {
        // In the middle: in the first record of two, behind its fields, or in the second of three.
        ASSERT_EQ(command.keys.size(), data.list.size());
        ExpectRecords(command, data, 1);
        if (command.keys.size() == 3) {
            EXPECT_EQ(command.keys[1], data.list[1].GetPrimaryKey());
            EXPECT_STREQ("Grace", data.list[1].GetUserName());
        }
    } else if (command.code == kGetModeratorInfo) {
        ExpectInfo(256, 5, data);  // at offset 12 of the payload, the values stand before it
    }
    EXPECT_TRUE(m_Client.stub.IsConnected());
    // The last 16 bytes of the answer have become garbage, and the next prefix ends it.
    ExpectRight(command, m_Client.stub);
    EXPECT_EQ(16, m_Client.Skipped());
}

TEST_F(StreamFaultTest, EachSkippedByteIsLogged) {
    FaultOn(Garbage(kQuitConfCtrl, GarbagePlace::Before, 100, true));
    ExpectRight(CommandOf(kQuitConfCtrl), m_Client.stub);
    const std::string head = "NetworkThread unknown prefix data 0x";
    const std::set<std::string> parts = {"52", "65", "63", "76", "49", "50"};
    std::string skipped;
    for (const LogCapture::Line& line : m_Client.log.Lines()) {
        if (line.level != kLogNotice || line.text.compare(0, head.size(), head) != 0)
            continue;
        skipped += line.text.substr(head.size(), 2);
        EXPECT_EQ(1u, parts.count(line.text.substr(head.size(), 2))) << line.text;
        EXPECT_EQ(0u, line.text.find(head + skipped.substr(skipped.size() - 2) + " sock:"));
    }
    EXPECT_EQ(200u, skipped.size());
    EXPECT_EQ("52", skipped.substr(0, 2));
}

TEST_F(StreamFaultTest, MuchGarbageIsSkipped) {
    FaultOn(Garbage(kGetSenderList, GarbagePlace::Before, 4000));
    ExpectRight(CommandOf(kGetSenderList), m_Client.stub);
    EXPECT_EQ(4000, m_Client.Skipped());
}

// Pieces.

TEST_P(EachStreamFaultTest, AnswerByteByByteIsTaken) {
    FaultOn(Trickle(GetParam().code, 1, milliseconds(1)));
    ExpectRight(GetParam(), m_Client.stub);
    ExpectRight(GetParam(), m_Client.stub);
    EXPECT_EQ(0, m_Client.Skipped());
}

TEST_P(EachStreamFaultTest, AnswerThatStallsAnywhereForAMomentIsTaken) {
    std::vector<int> places = {0, 1, kPrefixSize - 1, kPrefixSize, kPayloadAt, 12, 39};
    if (GetParam().IsList())
        places.insert(places.end(), {kFrameSize, kFrameSize + 1, kFrameSize + kRecordSize,
                                     GetParam().AnswerSize() - 1});
    for (const int place : places) {
        FaultOn(Stall(GetParam().code, place, milliseconds(100)));
        const Stopwatch watch;
        ExpectRight(GetParam(), m_Client.stub);
        EXPECT_GE(watch.Elapsed(), milliseconds(100)) << place;
    }
    EXPECT_EQ(0, m_Client.Skipped());
}

TEST_F(StreamFaultTest, AnswerMayStallForLessThanOneReadInsideEachPart) {
    FaultOnEach(AllCommands(), Stall(0, 12, seconds(3)));
    AtOnce(AllCommands(), [](const Command& command, Client& client) {
        ExpectRight(command, client.stub);
        EXPECT_EQ(0, client.Skipped()) << command;
    });
}

TEST_F(StreamFaultTest, StallInsideThePrefixOnlyTakesTime) {
    FaultOnEach(AllCommands(), Stall(0, 3, seconds(7)));
    AtOnce(AllCommands(), [](const Command& command, Client& client) {
        const Stopwatch watch;
        ExpectRight(command, client.stub);
        EXPECT_GE(watch.Elapsed(), seconds(7)) << command;
        EXPECT_LE(
            1, client.log.Count(kLogDebug, "NetworkThread no enough data to match prefix 3 sock:"))
            << command;
        EXPECT_EQ(0, client.Skipped()) << command;
        ExpectRight(command, client.stub);
    });
}

TEST_F(StreamFaultTest, StallBehindThePrefixEndsTheConnection) {
    FaultOnEach(AllCommands(), Stall(0, kPrefixSize, seconds(9)));
    AtOnce(AllCommands(), [this](const Command& command, Client& client) {
        Data data;
        const Stopwatch watch;
        EXPECT_EQ(kStalled, command.call(client.stub, data)) << command;
        EXPECT_GE(watch.Elapsed() + kClockStep, seconds(5)) << command;
        EXPECT_EQ(kStalled, client.stub.GetErrorCode()) << command;
        EXPECT_STREQ("ProtocolBase.cpp:492", client.stub.GetErrFileLine()) << command;
        ExpectUntouched(command, data);
        ExpectInitHelps(command, client);
    });
}

TEST_F(StreamFaultTest, StallBehindTheCommandByteEndsTheConnection) {
    FaultOnEach(AllCommands(), Stall(0, kPayloadAt, seconds(9)));
    AtOnce(AllCommands(), [this](const Command& command, Client& client) {
        Data data;
        const Stopwatch watch;
        EXPECT_EQ(kStalled, command.call(client.stub, data)) << command;
        EXPECT_GE(watch.Elapsed() + kClockStep, seconds(5)) << command;
        EXPECT_EQ(kStalled, client.stub.GetErrorCode()) << command;
        EXPECT_STREQ("ProtocolBase.cpp:498", client.stub.GetErrFileLine()) << command;
        ExpectListUntouched(command, data);
        if (command.code == kGetModeratorInfo)
            ExpectInfo(0, 0, data);  // what did not come is zero
        ExpectInitHelps(command, client);
    });
}

TEST_F(StreamFaultTest, AnswerThatStallsInsideItsPayloadCountsAsFarAsItCame) {
    FaultOnEach(FixedCommands(), Stall(0, kPayloadAt + 4, seconds(7)));
    AtOnce(FixedCommands(), [](const Command& command, Client& client) {
        Data data;
        const Stopwatch watch;
        EXPECT_EQ(command.result, command.call(client.stub, data)) << command;
        EXPECT_GE(watch.Elapsed() + kClockStep, seconds(5)) << command;
        if (command.code == kGetModeratorInfo)
            ExpectInfo(256, 0, data);
        EXPECT_TRUE(client.stub.IsConnected()) << command;
        ExpectRight(command, client.stub);
        EXPECT_EQ(28, client.Skipped()) << command;
    });
}

TEST_F(StreamFaultTest, AnswerThatTricklesTooSlowlyCountsAsFarAsItCame) {
    FaultOnEach(FixedCommands(), Trickle(0, 4, milliseconds(900)));
    AtOnce(FixedCommands(), [](const Command& command, Client& client) {
        Data data;
        const Stopwatch watch;
        EXPECT_EQ(command.result, command.call(client.stub, data)) << command;
        EXPECT_GE(watch.Elapsed() + kClockStep, milliseconds(5900)) << command;
        if (command.code == kGetModeratorInfo)
            ExpectInfo(256, 5, data);
        ExpectRight(command, client.stub);
        EXPECT_GT(client.Skipped(), 0) << command;
    });
}

TEST_F(StreamFaultTest, ListThatStallsInsideItsHeadIsReadOnOutOfStep) {
    // Count and record size have come; the rest of the head is then read as a record.
    FaultOnEach(ListCommands(), Stall(0, kPayloadAt + 3, seconds(7)));
    AtOnce(ListCommands(), [](const Command& command, Client& client) {
        Data data;
        EXPECT_EQ(0, command.call(client.stub, data)) << command;
        ASSERT_EQ(command.keys.size(), data.list.size()) << command;
        EXPECT_EQ(0, data.list[0].GetPrimaryKey()) << command;
        EXPECT_STREQ("", data.list[0].GetUserName()) << command;
        EXPECT_TRUE(client.stub.IsConnected()) << command;
        ExpectRight(command, client.stub);
        EXPECT_EQ(29, client.Skipped()) << command;
    });
}

TEST_F(StreamFaultTest, ListThatStallsBetweenRecordsEndsTheConnection) {
    FaultOnEach(ListCommands(), Stall(0, kFrameSize + kRecordSize, seconds(9)));
    AtOnce(ListCommands(), [this](const Command& command, Client& client) {
        Data data;
        EXPECT_EQ(kStalled, command.call(client.stub, data)) << command;
        EXPECT_STREQ("ProtocolBase.cpp:498", client.stub.GetErrFileLine()) << command;
        ASSERT_EQ(command.keys.size(), data.list.size()) << command;
        ExpectRecords(command, data, 1);
        for (size_t i = 1; i < data.list.size(); ++i)
            EXPECT_EQ(kOldKey, data.list[i].GetPrimaryKey()) << command;
        ExpectInitHelps(command, client);
    });
}

TEST_F(StreamFaultTest, ListThatStallsInsideARecordIsReadOnOutOfStep) {
    FaultOnEach(ListCommands(), Stall(0, kFrameSize + kRecordSize + 4, seconds(7)));
    AtOnce(ListCommands(), [](const Command& command, Client& client) {
        Data data;
        EXPECT_EQ(0, command.call(client.stub, data)) << command;
        ASSERT_EQ(command.keys.size(), data.list.size()) << command;
        ExpectRecords(command, data, 1);
        EXPECT_EQ(command.keys[1], data.list[1].GetPrimaryKey()) << command;
        EXPECT_TRUE(client.stub.IsConnected()) << command;
        ExpectRight(command, client.stub);
        EXPECT_EQ(124, client.Skipped()) << command;
    });
}

// Lists that do not have what they announce.

TEST_F(StreamFaultTest, ListThatAnnouncesOneMoreEndsTheConnection) {
    FaultOnEach(ListCommands(), FalseCount(0, -1));
    AtOnce(ListCommands(), [this](const Command& command, Client& client) {
        Data data;
        const Stopwatch watch;
        EXPECT_EQ(kStalled, command.call(client.stub, data)) << command;
        EXPECT_GE(watch.Elapsed() + kClockStep, seconds(5)) << command;
        EXPECT_STREQ("ProtocolBase.cpp:498", client.stub.GetErrFileLine()) << command;
        ASSERT_EQ(command.keys.size() + 1, data.list.size()) << command;
        ExpectRecords(command, data, command.keys.size());
        EXPECT_EQ(kOldKey, data.list.back().GetPrimaryKey()) << command;
        ExpectInitHelps(command, client);
    });
}

TEST_F(StreamFaultTest, ListThatAnnouncesTheMostLeavesTheRestAsItWasMade) {
    FaultOnEach(ListCommands(), FalseCount(0, 65535));
    AtOnce(ListCommands(), [this](const Command& command, Client& client) {
        Data data;
        data.list.clear();
        EXPECT_EQ(kStalled, command.call(client.stub, data)) << command;
        ASSERT_EQ(65535u, data.list.size()) << command;
        ExpectRecords(command, data, command.keys.size());
        EXPECT_EQ("0  0 0 128 0 0 0", Described(data.list[command.keys.size()])) << command;
        EXPECT_EQ("0  0 0 128 0 0 0", Described(data.list.back())) << command;
        ExpectInitHelps(command, client);
    });
}

TEST_F(StreamFaultTest, NextFrameCompletesAListThatAnnouncesMore) {
    // Out of step: seven notifications of 20 bytes are taken for the missing record and 12 more.
    FaultOn(FalseCount(kGetSenderList, 4));
    std::thread notifier([this] {
        EXPECT_TRUE(WaitFor([this] { return m_pReceiver->FramesReceived(16) == 1; }));
        for (int i = 0; i < 7; ++i)
            m_pReceiver->Notify(1, 2, 3);
    });
    EXPECT_EQ(0, m_Client.stub.GetSenderList(m_Data.list));
    notifier.join();
    ASSERT_EQ(4u, m_Data.list.size());
    ExpectRecords(CommandOf(kGetSenderList), m_Data, 3);
    EXPECT_EQ(0x52656376, m_Data.list[3].GetPrimaryKey());
    ExpectRight(CommandOf(kGetSenderList), m_Client.stub);
    EXPECT_EQ(12, m_Client.Skipped());
}

TEST_P(ListFaultTest, ThatAnnouncesFewerIsShortAndItsRestIsSkipped) {
    FaultOn(FalseCount(GetParam().code, 1));
    EXPECT_EQ(0, GetParam().call(m_Client.stub, m_Data));
    ASSERT_EQ(1u, m_Data.list.size());
    ExpectRecords(GetParam(), m_Data, 1);
    ExpectRight(GetParam(), m_Client.stub);
    EXPECT_EQ(GetParam().AnswerSize() - kFrameSize - kRecordSize, m_Client.Skipped());
}

TEST_P(ListFaultTest, ThatAnnouncesNothingIsEmptyAndItsRestIsSkipped) {
    FaultOn(FalseCount(GetParam().code, 0));
    EXPECT_EQ(0, GetParam().call(m_Client.stub, m_Data));
    EXPECT_TRUE(m_Data.list.empty());
    ExpectRight(GetParam(), m_Client.stub);
    EXPECT_EQ(GetParam().AnswerSize() - kFrameSize, m_Client.Skipped());
}

// Names without an end.

struct OpenNameCase {
    simulator::RecordSize records;
    const char*
        behind;  // what the name of a sender whose status 'AB' holds no zero byte goes on as
};

const char* NameOf(const OpenNameCase& openName) {
    return openName.records == simulator::RecordSize::Short ? "Short" : "Long";
}

std::ostream& operator<<(std::ostream& out, const OpenNameCase& openName) {
    return out << NameOf(openName);
}

class OpenNameTest : public FaultFixture, public testing::WithParamInterface<OpenNameCase> {
protected:
    OpenNameTest() { m_Options.records = GetParam().records; }

    Data m_Data;
};

INSTANTIATE_TEST_SUITE_P(Records,
                         OpenNameTest,
                         testing::Values(OpenNameCase{simulator::RecordSize::Short, "ABC"},
                                         OpenNameCase{simulator::RecordSize::Long, "ABCDEFGHI"}),
                         [](const testing::TestParamInfo<OpenNameCase>& tested) {
                             return std::string(NameOf(tested.param));
                         });

TEST_P(OpenNameTest, RunsOnToTheNextZeroByte) {
    AddSender({4, 0xC0000204, "Barbara", 0x4142, 0x43, 0x4445, 0x4647, 0x4849, false, true});
    const std::vector<Command> lists = ListCommands();
    for (const Command& command : lists) {
        FaultOn(MakeFault(FaultKind::OpenName, command.code));
        EXPECT_EQ(0, command.call(m_Client.stub, m_Data)) << command;
        ASSERT_EQ(command.keys.size() + 1, m_Data.list.size()) << command;
        const std::string first = m_Data.list.front().GetUserName();
        EXPECT_EQ(48u, first.size()) << command;  // the status begins with a zero byte
        EXPECT_EQ(0u, first.find(command.keys[0] == 1 ? "Ada" : "Grace")) << command;
        const std::string last = m_Data.list.back().GetUserName();
        EXPECT_EQ(0u, last.find("Barbara")) << command;
        EXPECT_EQ(GetParam().behind, last.substr(48)) << command;
        EXPECT_EQ(0x4142, m_Data.list.back().GetStatus()) << command;
        EXPECT_EQ(0x43, m_Data.list.back().GetSplitScreen()) << command;
    }
    EXPECT_EQ(0, m_Client.stub.GetSenderList(m_Data.list));
    EXPECT_STREQ("Barbara", m_Data.list.back().GetUserName());
    EXPECT_EQ(0, m_Client.Skipped());
}

}  // namespace
}  // namespace sr_test
