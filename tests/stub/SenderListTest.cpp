#include <cstring>

#include "tests/stub/StubFixture.h"

namespace sr_test {
namespace {

typedef std::vector<ScreenSenderInfo> SenderList;

// Key 01020304, address 192.168.0.17, "Ann", status 0005, split screen 02, then reserved bytes.
std::string ShortAnn() {
    return Padded(
        Hex("01 02 03 04 c0 a8 00 11") + Padded("Ann", 48) + Hex("00 05 02 a1 a2 a3 a4 a5"), 64);
}

// Key ffffffff, address 10.0.0.1, "Bob", status fffe, split screen ff.
std::string ShortBob() {
    return Padded(Hex("ff ff ff ff 0a 00 00 01") + Padded("Bob", 48) + Hex("ff fe ff"), 64);
}

// Key 00000100, address 255.255.255.255, name with all of its 47 characters, status 1234, split
// screen 56, system 789a, application bcde, pointer input f012.
std::string LongName() {
    return "Conference room 4, second floor, left side, PC1";
}
std::string LongCarl() {
    return Padded(Hex("00 00 01 00 ff ff ff ff") + Padded(LongName(), 48) +
                      Hex("12 34 56 78 9a bc de f0 12 ee ee ee"),
                  128);
}

void ExpectAnn(const ScreenSenderInfo& sender) {
    EXPECT_EQ(16909060, sender.GetPrimaryKey());
    EXPECT_EQ(3232235537u, sender.GetIpAddress());
    EXPECT_STREQ("Ann", sender.GetUserName());
    EXPECT_EQ(5, sender.GetStatus());
    EXPECT_EQ(2, sender.GetSplitScreen());
}

void ExpectBob(const ScreenSenderInfo& sender) {
    EXPECT_EQ(-1, sender.GetPrimaryKey());
    EXPECT_EQ(167772161u, sender.GetIpAddress());
    EXPECT_STREQ("Bob", sender.GetUserName());
    EXPECT_EQ(65534, sender.GetStatus());
    EXPECT_EQ(255, sender.GetSplitScreen());
}

void ExpectCarl(const ScreenSenderInfo& sender) {
    EXPECT_EQ(256, sender.GetPrimaryKey());
    EXPECT_EQ(4294967295u, sender.GetIpAddress());
    EXPECT_EQ(LongName(), sender.GetUserName());
    EXPECT_EQ(4660, sender.GetStatus());
    EXPECT_EQ(0x56, sender.GetSplitScreen());
    EXPECT_EQ(0x789A, sender.GetOSType());
    EXPECT_EQ(0xBCDE, sender.GetAppType());
    EXPECT_EQ(0xF012, sender.GetPointInputType());
}

void ExpectTypes(int os, int app, int input, const ScreenSenderInfo& sender) {
    EXPECT_EQ(os, sender.GetOSType());
    EXPECT_EQ(app, sender.GetAppType());
    EXPECT_EQ(input, sender.GetPointInputType());
}

void ExpectNeverFilled(const ScreenSenderInfo& sender) {
    EXPECT_EQ(0, sender.GetWebSlides());
    EXPECT_EQ(0, sender.GetProtocolVersion());
    EXPECT_FALSE(sender.IsSidebarNeeded());
    EXPECT_STREQ("", sender.GetProductID());
}

void ExpectUnread(const ScreenSenderInfo& sender) {
    EXPECT_EQ(0, sender.GetPrimaryKey());
    EXPECT_EQ(0u, sender.GetIpAddress());
    EXPECT_STREQ("", sender.GetUserName());
    EXPECT_EQ(0, sender.GetStatus());
    EXPECT_EQ(0x80, sender.GetSplitScreen());
    ExpectTypes(0, 0, 0, sender);
}

struct Selection {
    const char* name;
    const char* answerCode;
    const char* request;
    int (ScreenReceiverStub::*method)(SenderList&);
};

std::ostream& operator<<(std::ostream& out, const Selection& selection) {
    return out << selection.name;
}

const Selection kAll = {"GetSenderList", "11", "52 65 63 76 49 50 43 10 01",
                        &ScreenReceiverStub::GetSenderList};

class ListTest : public StubTest {
protected:
    void SetUp() override { Connect(); }

    /// Reads a list while the test plays the receiver, from the arrived request on.
    int Read(SenderList& list,
             const std::function<void()>& receiver,
             const Selection& selection = kAll) {
        return CallWhile([&] { return (m_Stub.*selection.method)(list); },
                         [&] {
                             EXPECT_EQ(Frame(selection.request), m_Peer.Receive(kFrameSize));
                             receiver();
                         });
    }

    int ReadAnswer(SenderList& list,
                   const std::string& head,
                   const std::string& records,
                   const Selection& selection = kAll) {
        return Read(
            list, [&] { m_Peer.Send(ListFrame(selection.answerCode, head, records)); }, selection);
    }
};

class SelectionTest : public ListTest, public testing::WithParamInterface<Selection> {};

TEST_P(SelectionTest, ShortRecordsFillTheirFields) {
    SenderList list;
    EXPECT_EQ(0, ReadAnswer(list, "00 02 00", ShortAnn() + ShortBob(), GetParam()));
    EXPECT_EQ(0, m_Stub.GetErrorCode());
    ASSERT_EQ(2u, list.size());
    ExpectAnn(list[0]);
    ExpectTypes(0, 0, 0, list[0]);
    ExpectNeverFilled(list[0]);
    ExpectBob(list[1]);
    ExpectTypes(0, 0, 0, list[1]);
    ExpectAlive();
}

TEST_P(SelectionTest, LongRecordsFillTheirFields) {
    SenderList list;
    EXPECT_EQ(0, ReadAnswer(list, "00 02 01", LongCarl() + Padded(ShortAnn(), 128), GetParam()));
    ASSERT_EQ(2u, list.size());
    ExpectCarl(list[0]);
    ExpectNeverFilled(list[0]);
    ExpectAnn(list[1]);
    ExpectTypes(0xA1A2, 0xA3A4, 0xA500, list[1]);
    ExpectAlive();
}

TEST_P(SelectionTest, CountOfZeroEmptiesTheList) {
    SenderList list(3);
    EXPECT_EQ(0, ReadAnswer(list, "00 00 01", "", GetParam()));
    EXPECT_TRUE(list.empty());
    ExpectAlive();
}

TEST_P(SelectionTest, LinkBrokenInMidListKeepsWhatWasRead) {
    SenderList list;
    EXPECT_EQ(-6528002, Read(
                            list,
                            [this] {
                                m_Peer.Send(ListFrame(GetParam().answerCode, "00 04 01",
                                                      LongCarl() + LongCarl().substr(0, 100)));
                                m_Peer.Close();
                            },
                            GetParam()));
    EXPECT_EQ(-6528002, m_Stub.GetErrorCode());
    ASSERT_EQ(4u, list.size());
    ExpectCarl(list[0]);
    ExpectUnread(list[1]);
    ExpectUnread(list[2]);
    ExpectUnread(list[3]);
}

TEST_P(SelectionTest, LinkBrokenInTheHeaderLeavesTheList) {
    SenderList list;
    ReadAnswer(list, "00 02 01", LongCarl() + LongCarl(), GetParam());
    EXPECT_EQ(-6528002,
              Read(
                  list,
                  [this] {
                      m_Peer.Send(ListFrame(GetParam().answerCode, "00 01 00").substr(0, 39));
                      m_Peer.Close();
                  },
                  GetParam()));
    ASSERT_EQ(2u, list.size());
    ExpectCarl(list[0]);
    ExpectCarl(list[1]);
}

INSTANTIATE_TEST_SUITE_P(
    Three,
    SelectionTest,
    testing::Values(kAll,
                    Selection{"GetNonLocalSenderList", "1b", "52 65 63 76 49 50 43 1a 01",
                              &ScreenReceiverStub::GetNonLocalSenderList},
                    Selection{"GetValidSenderList", "1d", "52 65 63 76 49 50 43 1c 01",
                              &ScreenReceiverStub::GetValidSenderList}),
    [](const testing::TestParamInfo<Selection>& selection) {
        return std::string(selection.param.name);
    });

class SenderListTest : public ListTest {};

TEST_F(SenderListTest, ShortListSplitAtEveryOffset) {
    const std::string answer = ListFrame("11", "00 01 00", ShortAnn());
    for (size_t offset = 1; offset < answer.size(); ++offset) {
        SCOPED_TRACE(offset);
        SenderList list;
        EXPECT_EQ(0, Read(list, [&] { m_Peer.SendSplitAt(answer, {offset}); }));
        ASSERT_EQ(1u, list.size());
        ExpectAnn(list[0]);
    }
}

TEST_F(SenderListTest, LongListSplitAtEveryOffset) {
    const std::string answer = ListFrame("11", "00 01 01", LongCarl());
    for (size_t offset = 1; offset < answer.size(); ++offset) {
        SCOPED_TRACE(offset);
        SenderList list;
        EXPECT_EQ(0, Read(list, [&] { m_Peer.SendSplitAt(answer, {offset}); }));
        ASSERT_EQ(1u, list.size());
        ExpectCarl(list[0]);
    }
}

TEST_F(SenderListTest, ListsByteByByte) {
    SenderList list;
    EXPECT_EQ(0, Read(list, [this] {
                  m_Peer.SendByteByByte(ListFrame("11", "00 02 00", ShortAnn() + ShortBob()));
              }));
    ASSERT_EQ(2u, list.size());
    ExpectAnn(list[0]);
    ExpectBob(list[1]);
    EXPECT_EQ(0, Read(list, [this] {
                  m_Peer.SendByteByByte(ListFrame("11", "00 02 01", LongCarl() + LongCarl()));
              }));
    ASSERT_EQ(2u, list.size());
    ExpectCarl(list[0]);
    ExpectCarl(list[1]);
}

TEST_F(SenderListTest, AnyLengthMarkButZeroMeansLongRecords) {
    for (const char* head : {"00 01 01", "00 01 02", "00 01 80", "00 01 ff"}) {
        SCOPED_TRACE(head);
        SenderList list;
        EXPECT_EQ(0, ReadAnswer(list, head, LongCarl()));
        ASSERT_EQ(1u, list.size());
        ExpectCarl(list[0]);
    }
    ExpectAlive();
}

TEST_F(SenderListTest, ReservedHeaderBytesAreIgnored) {
    std::string answer = ListFrame("11", "00 01 00", ShortAnn());
    for (size_t i = 11; i < 40; ++i)
        answer[i] = '\xFF';
    SenderList list;
    EXPECT_EQ(0, Read(list, [&] { m_Peer.Send(answer); }));
    ASSERT_EQ(1u, list.size());
    ExpectAnn(list[0]);
}

TEST_F(SenderListTest, CountIsBigEndian) {
    SenderList list;
    EXPECT_EQ(0, ReadAnswer(list, "01 02 00", std::string(258 * 64, '\0')));
    EXPECT_EQ(258u, list.size());
    ExpectAlive();
}

TEST_F(SenderListTest, ShorterListOverwritesTheFirstAndDropsTheRest) {
    SenderList list;
    ReadAnswer(list, "00 03 01", LongCarl() + LongCarl() + LongCarl());
    EXPECT_EQ(0, ReadAnswer(list, "00 01 00", ShortAnn()));
    ASSERT_EQ(1u, list.size());
    ExpectAnn(list[0]);
    // Short records say nothing about the types: what the element held stays.
    ExpectTypes(0x789A, 0xBCDE, 0xF012, list[0]);
}

TEST_F(SenderListTest, LongerListOverwritesTheFirstAndAppendsNewOnes) {
    SenderList list;
    ReadAnswer(list, "00 01 01", LongCarl());
    EXPECT_EQ(0, ReadAnswer(list, "00 03 00", ShortAnn() + ShortBob() + ShortAnn()));
    ASSERT_EQ(3u, list.size());
    ExpectAnn(list[0]);
    ExpectTypes(0x789A, 0xBCDE, 0xF012, list[0]);
    ExpectBob(list[1]);
    ExpectTypes(0, 0, 0, list[1]);
    ExpectAnn(list[2]);
    ExpectTypes(0, 0, 0, list[2]);
}

TEST_F(SenderListTest, RecordsKeepTheReceiversOrderAndAreNotMatched) {
    SenderList list;
    ReadAnswer(list, "00 02 00", ShortAnn() + ShortBob());
    EXPECT_EQ(0, ReadAnswer(list, "00 03 00", ShortBob() + ShortAnn() + ShortBob()));
    ASSERT_EQ(3u, list.size());
    ExpectBob(list[0]);
    ExpectAnn(list[1]);
    ExpectBob(list[2]);
}

TEST_F(SenderListTest, LinkBrokenInMidListLeavesOldElements) {
    SenderList list;
    ReadAnswer(list, "00 02 01", LongCarl() + LongCarl());
    EXPECT_EQ(-6528002, Read(list, [this] {
        m_Peer.Send(ListFrame("11", "00 03 00", ShortAnn()));
        m_Peer.Close();
    }));
    ASSERT_EQ(3u, list.size());
    ExpectAnn(list[0]);
    ExpectCarl(list[1]);
    ExpectUnread(list[2]);
}

TEST_F(SenderListTest, EmptyNameIsEmpty) {
    SenderList list;
    EXPECT_EQ(0, ReadAnswer(list, "00 01 00", std::string(64, '\0')));
    ASSERT_EQ(1u, list.size());
    EXPECT_STREQ("", list[0].GetUserName());
    EXPECT_EQ(0, list[0].GetSplitScreen());
}

TEST_F(SenderListTest, NameEndsAtItsFirstNul) {
    std::string record = ShortAnn();
    record.replace(12, 4, "XYZ!");
    SenderList list;
    EXPECT_EQ(0, ReadAnswer(list, "00 01 00", record));
    ASSERT_EQ(1u, list.size());
    EXPECT_STREQ("Ann", list[0].GetUserName());
}

TEST_F(SenderListTest, NameWithoutNulRunsToTheNextOne) {
    // Behind 48 characters the status: its first byte is the next NUL.
    SenderList list;
    EXPECT_EQ(0,
              ReadAnswer(list, "00 01 00", std::string(56, 'N') + Hex("00 41 42 43 44 45 46 47")));
    ASSERT_EQ(1u, list.size());
    EXPECT_EQ(std::string(48, 'N'), list[0].GetUserName());
    EXPECT_EQ(0x41, list[0].GetStatus());

    std::string record(128, 'N');
    record[100] = '\0';
    EXPECT_EQ(0, ReadAnswer(list, "00 01 01", record));
    EXPECT_EQ(std::string(92, 'N'), list[0].GetUserName());
    ExpectAlive();
}

TEST_F(SenderListTest, NameWithoutAnyNulEndsWithTheRecord) {
    SenderList list;
    EXPECT_EQ(0, ReadAnswer(list, "00 01 01", std::string(128, 'N')));
    ASSERT_EQ(1u, list.size());
    EXPECT_EQ(std::string(120, 'N'), list[0].GetUserName());
    EXPECT_EQ(0, ReadAnswer(list, "00 02 00", std::string(128, 'S')));
    ASSERT_EQ(2u, list.size());
    EXPECT_EQ(std::string(56, 'S'), list[0].GetUserName());
    EXPECT_EQ(std::string(56, 'S'), list[1].GetUserName());
    ExpectAlive();
}

TEST_F(SenderListTest, LongestListArrivesWhole) {
    std::string records;
    records.reserve(65535 * 128);
    for (unsigned i = 0; i < 65535; ++i) {
        std::string record = LongCarl();
        record[2] = static_cast<char>(i >> 8);
        record[3] = static_cast<char>(i & 0xFF);
        record[63] = static_cast<char>(i & 0xFF);
        record[64] = static_cast<char>(i >> 8);
        records += record;
    }
    SenderList list;
    EXPECT_EQ(0, ReadAnswer(list, "ff ff 01", records));
    ASSERT_EQ(65535u, list.size());
    int wrong = 0;
    for (int i = 0; i < 65535; ++i) {
        const ScreenSenderInfo& sender = list[static_cast<size_t>(i)];
        const int swapped = (i & 0xFF) << 8 | i >> 8;
        if (sender.GetPrimaryKey() != i || sender.GetPointInputType() != swapped ||
            sender.GetUserName() != LongName() || sender.GetStatus() != 0x1234)
            ++wrong;
    }
    EXPECT_EQ(0, wrong);
    ExpectAlive();
}

TEST_F(SenderListTest, SlowListThatIsWholeWithinOneMoreReadTimeoutCounts) {
    SenderList list;
    const Stopwatch watch;
    EXPECT_EQ(0, Read(list, [this] {
                  auto due = std::chrono::steady_clock::now();
                  m_Peer.Send(ListFrame("11", "00 0c 00"));
                  for (int i = 0; i < 12; ++i) {
                      due += milliseconds(1150);
                      std::this_thread::sleep_until(due);  // the receiver's own pace
                      m_Peer.Send(i % 2 == 0 ? ShortAnn() : ShortBob());
                  }
              }));
    // The answer's own time-out was over before the list was whole.
    EXPECT_GE(watch.Elapsed(), milliseconds(13700));
    EXPECT_EQ(0, m_Stub.GetErrorCode());
    ASSERT_EQ(12u, list.size());
    for (size_t i = 0; i < list.size(); ++i)
        i % 2 == 0 ? ExpectAnn(list[i]) : ExpectBob(list[i]);
    EXPECT_EQ(0, m_Log.Count(kLogError, ""));
    ExpectAlive();
}

TEST_F(SenderListTest, ReceiverThatTricklesItsListDoesNotHoldTheCaller) {
    const Stopwatch watch;
    std::atomic<bool> returned(false);
    int result = 0;
    milliseconds elapsed{0};
    std::string message;
    std::thread caller([&] {
        // The list dies with the call: a record stored later would hit freed memory.
        SenderList list;
        result = m_Stub.GetSenderList(list);
        elapsed = watch.Elapsed();
        message = m_Stub.GetErrorMessage();
        returned = true;
    });
    EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
    m_Peer.Send(ListFrame("11", "03 e8 00"));
    int sentAfterwards = 0;
    for (int i = 0; i < 40 && sentAfterwards < 2; ++i) {
        m_Peer.Send(ShortAnn());
        if (returned)
            ++sentAfterwards;
        // The receiver's own pace, shorter than a read's time-out.
        std::this_thread::sleep_for(seconds(2));
    }
    caller.join();
    EXPECT_EQ(-6528101, result);
    EXPECT_GE(elapsed, milliseconds(9900));
    // The answer's time, one more read time-out, and a read in progress.
    EXPECT_LT(elapsed, seconds(23));
    EXPECT_EQ(
        "GetSenderList command failed to receive response packet within 10 seconds."
        " [ProtocolBase.cpp:302]",
        message);
}

// Records on the heap, as long as they are on the wire: the address sanitizer sees a byte too many.
class DecodeSenderTest : public testing::Test {
protected:
    static ScreenSenderInfo Decode(const std::string& record) {
        const std::vector<char> bytes(record.begin(), record.end());
        ScreenSenderInfo sender;
        ScreenReceiverStub::DecodeSender(bytes.data(), bytes.size() == 128, sender);
        return sender;
    }
};

TEST_F(DecodeSenderTest, EveryFieldStandsAtItsOffset) {
    // One byte set at a time: every byte of a record belongs to exactly the field it is listed for.
    for (size_t i = 0; i < 128; ++i) {
        SCOPED_TRACE(i);
        std::string record(128, '\0');
        record[i] = '\x01';
        const ScreenSenderInfo sender = Decode(record);
        const auto at = [&](size_t first, size_t size) {
            return i < first || i >= first + size ? 0u : 1u << 8 * (first + size - 1 - i);
        };
        EXPECT_EQ(static_cast<int>(at(0, 4)), sender.GetPrimaryKey());
        EXPECT_EQ(at(4, 4), sender.GetIpAddress());
        EXPECT_EQ(i == 8 ? 1u : 0u, std::strlen(sender.GetUserName()));
        EXPECT_EQ(static_cast<int>(at(56, 2)), sender.GetStatus());
        EXPECT_EQ(at(58, 1), sender.GetSplitScreen());
        EXPECT_EQ(static_cast<int>(at(59, 2)), sender.GetOSType());
        EXPECT_EQ(static_cast<int>(at(61, 2)), sender.GetAppType());
        EXPECT_EQ(static_cast<int>(at(63, 2)), sender.GetPointInputType());
    }
}

TEST_F(DecodeSenderTest, TopBitsDoNotSpread) {
    const ScreenSenderInfo sender = Decode(std::string(8, '\x80') + Padded("", 48) +
                                           std::string(9, '\xFF') + std::string(63, '\0'));
    EXPECT_EQ(static_cast<int32_t>(0x80808080u), sender.GetPrimaryKey());
    EXPECT_EQ(0x80808080u, sender.GetIpAddress());
    EXPECT_EQ(65535, sender.GetStatus());
    EXPECT_EQ(255, sender.GetSplitScreen());
    ExpectTypes(65535, 65535, 65535, sender);
}

TEST_F(DecodeSenderTest, NothingPastAShortRecordIsRead) {
    EXPECT_EQ(std::string(56, 'x'), Decode(std::string(64, 'x')).GetUserName());
}

TEST_F(DecodeSenderTest, NothingPastALongRecordIsRead) {
    EXPECT_EQ(std::string(120, 'x'), Decode(std::string(128, 'x')).GetUserName());
}

}  // namespace
}  // namespace sr_test
