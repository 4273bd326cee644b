#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "tests/stub/StubFixture.h"

namespace sr_test {
namespace {

/// Calls readers as the network thread does, on a stub whose socket is one end of a pair.
class ReplyReaderTest : public testing::Test {
protected:
    void SetUp() override {
        int ends[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
        m_Stub.SetLogger(&m_Log);
        m_Stub.m_Socket = ends[0];
        m_Far = ends[1];
    }

    void TearDown() override { CloseFar(); }

    void SendHex(const std::string& hex) {
        const std::string bytes = Hex(hex);
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), send(m_Far, bytes.data(), bytes.size(), 0));
    }

    void SendPadded(const std::string& hex, size_t size) {
        const std::string bytes = Padded(Hex(hex), size);
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), send(m_Far, bytes.data(), bytes.size(), 0));
    }

    void CloseFar() {
        if (m_Far != -1)
            close(m_Far);
        m_Far = -1;
    }

    int BytesLeft() const {
        int left = -1;
        ioctl(m_Stub.m_Socket.get(), FIONREAD, &left);
        return left;
    }

    LogCapture m_Log;
    OpenStub m_Stub;
    int m_Far = -1;
};

constexpr char kFull32[] =
    "01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f "
    "20";

TEST_F(ReplyReaderTest, NotificationReaderTakesTwelveBytesIntoThePayload) {
    SendHex("01 02 03 04 05 06 07 08 09 0a 0b 0c 0d");
    std::string payload(40, 'x');
    EXPECT_EQ(12, m_Stub.Recv12ByteData(payload));
    EXPECT_EQ(Hex("01 02 03 04 05 06 07 08 09 0a 0b 0c"), payload);
    EXPECT_EQ(1, BytesLeft());
}

TEST_F(ReplyReaderTest, NotificationReaderLogsItsFixedPlace) {
    SendHex("01 02 03 04 05 06 07 08 09 0a 0b 0c");
    std::string payload;
    m_Stub.Recv12ByteData(payload);
    const std::vector<LogCapture::Line> lines = m_Log.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(kLogDebug, lines[0].level);
    EXPECT_EQ("Recv12ByteData", lines[0].text);
    EXPECT_EQ("ScreenReceiverStub.cpp:285", lines[0].place);
}

TEST_F(ReplyReaderTest, NotificationReaderReportsAClosedPeerWithoutAnError) {
    SendHex("01 02 03 04 05");
    CloseFar();
    errno = EBADF;
    std::string payload;
    EXPECT_EQ(0, m_Stub.Recv12ByteData(payload));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(12u, payload.size());
}

TEST_F(ReplyReaderTest, NotificationReaderKeepsWhatCameInFiveSeconds) {
    SendHex("01 02 03 04 05");
    std::string payload;
    const Stopwatch watch;
    EXPECT_EQ(5, m_Stub.Recv12ByteData(payload));
    EXPECT_GE(watch.Elapsed(), milliseconds(4900));
    EXPECT_LT(watch.Elapsed(), seconds(9));
    EXPECT_EQ(Hex("01 02 03 04 05 00 00 00 00 00 00 00"), payload);
}

TEST_F(ReplyReaderTest, ReserveReaderDropsThirtyTwoBytes) {
    SendHex(std::string(kFull32) + "21");
    std::string payload = "untouched";
    EXPECT_EQ(32, m_Stub.Recv32ByteReserve(payload));
    EXPECT_EQ("untouched", payload);
    EXPECT_EQ(1, BytesLeft());
}

TEST_F(ReplyReaderTest, ReserveReaderReportsAClosedPeer) {
    SendHex("01 02");
    CloseFar();
    std::string payload = "untouched";
    EXPECT_EQ(0, m_Stub.Recv32ByteReserve(payload));
    EXPECT_EQ("untouched", payload);
}

TEST_F(ReplyReaderTest, ReserveReaderReturnsWhatCameInFiveSeconds) {
    SendHex("01 02");
    std::string payload;
    const Stopwatch watch;
    EXPECT_EQ(2, m_Stub.Recv32ByteReserve(payload));
    EXPECT_GE(watch.Elapsed(), milliseconds(4900));
}

TEST_F(ReplyReaderTest, ResultReaderStoresTheFirstFourBytes) {
    SendHex(std::string(kFull32) + "21");
    int32_t result = 99;
    m_Stub.m_pRecvResult = &result;
    std::string payload = "untouched";
    EXPECT_EQ(32, m_Stub.RecvErrorCodeParam(payload));
    EXPECT_EQ(0x01020304, result);
    EXPECT_EQ("untouched", payload);
    EXPECT_EQ(1, BytesLeft());
}

TEST_F(ReplyReaderTest, ResultReaderStoresWhatCameBeforeTheClose) {
    SendHex("12 34");
    CloseFar();
    int32_t result = 99;
    m_Stub.m_pRecvResult = &result;
    std::string payload;
    EXPECT_EQ(0, m_Stub.RecvErrorCodeParam(payload));
    EXPECT_EQ(0x12340000, result);
}

TEST_F(ReplyReaderTest, ResultReaderStoresZeroWhenNothingCame) {
    CloseFar();
    int32_t result = 99;
    m_Stub.m_pRecvResult = &result;
    std::string payload;
    EXPECT_EQ(0, m_Stub.RecvErrorCodeParam(payload));
    EXPECT_EQ(0, result);
}

TEST_F(ReplyReaderTest, ResultReaderStoresWhatCameInFiveSeconds) {
    SendHex("12 34 56");
    int32_t result = 99;
    m_Stub.m_pRecvResult = &result;
    std::string payload;
    const Stopwatch watch;
    EXPECT_EQ(3, m_Stub.RecvErrorCodeParam(payload));
    EXPECT_GE(watch.Elapsed(), milliseconds(4900));
    EXPECT_EQ(0x12345600, result);
}

TEST_F(ReplyReaderTest, ModeratorReaderStoresBothFields) {
    SendHex(std::string("ff ff ff fe fd") + std::string(kFull32).substr(0, 27 * 3) + "21");
    ScreenReceiverStub::ModeratorInfo info = {9, 9};
    m_Stub.m_pRecvResult = &info;
    std::string payload = "untouched";
    EXPECT_EQ(32, m_Stub.RecvGetModeratorInfo(payload));
    EXPECT_EQ(-2, info.nModeratorId);
    EXPECT_EQ(0xFD, info.byModeratorFlag);
    EXPECT_EQ("untouched", payload);
    EXPECT_EQ(1, BytesLeft());
}

TEST_F(ReplyReaderTest, ModeratorReaderStoresWhatCameBeforeTheClose) {
    SendHex("12 34");
    CloseFar();
    ScreenReceiverStub::ModeratorInfo info = {9, 9};
    m_Stub.m_pRecvResult = &info;
    std::string payload;
    EXPECT_EQ(0, m_Stub.RecvGetModeratorInfo(payload));
    EXPECT_EQ(0x12340000, info.nModeratorId);
    EXPECT_EQ(0, info.byModeratorFlag);
}

TEST_F(ReplyReaderTest, ModeratorReaderStoresWhatCameInFiveSeconds) {
    SendHex("00 00 01 00 05 06");
    ScreenReceiverStub::ModeratorInfo info = {9, 9};
    m_Stub.m_pRecvResult = &info;
    std::string payload;
    const Stopwatch watch;
    EXPECT_EQ(6, m_Stub.RecvGetModeratorInfo(payload));
    EXPECT_GE(watch.Elapsed(), milliseconds(4900));
    EXPECT_EQ(256, info.nModeratorId);
    EXPECT_EQ(5, info.byModeratorFlag);
}

TEST_F(ReplyReaderTest, ListReaderLeavesTheListWhenTheHeaderBreaks) {
    SendHex("00 05 01");
    CloseFar();
    std::vector<ScreenSenderInfo> list(3);
    m_Stub.m_pRecvResult = &list;
    std::string payload = "untouched";
    errno = EBADF;
    EXPECT_EQ(0, m_Stub.RecvGetSenderListParam(payload));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(3u, list.size());
    EXPECT_EQ("untouched", payload);
}

TEST_F(ReplyReaderTest, ListReaderReturnsTheHeadersResultForAnEmptyList) {
    SendPadded("00 00 01", 33);
    std::vector<ScreenSenderInfo> list(3);
    m_Stub.m_pRecvResult = &list;
    std::string payload;
    EXPECT_EQ(32, m_Stub.RecvGetSenderListParam(payload));
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(1, BytesLeft());
}

TEST_F(ReplyReaderTest, EveryReaderReportsAFailedRead) {
    std::vector<ScreenSenderInfo> list(3);
    close(m_Stub.m_Socket.release());  // a descriptor of -1 fails at once
    close(m_Far);
    m_Far = -1;
    std::string payload;
    m_Stub.m_pRecvResult = &list;
    EXPECT_EQ(-1, m_Stub.RecvGetSenderListParam(payload));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(3u, list.size());
    int32_t result = 99;
    m_Stub.m_pRecvResult = &result;
    EXPECT_EQ(-1, m_Stub.RecvErrorCodeParam(payload));
    EXPECT_EQ(0, result);
    ScreenReceiverStub::ModeratorInfo info = {9, 9};
    m_Stub.m_pRecvResult = &info;
    EXPECT_EQ(-1, m_Stub.RecvGetModeratorInfo(payload));
    EXPECT_EQ(0, info.nModeratorId);
    EXPECT_EQ(0, info.byModeratorFlag);
    EXPECT_EQ(-1, m_Stub.Recv32ByteReserve(payload));
    EXPECT_EQ(-1, m_Stub.Recv12ByteData(payload));
}

}  // namespace
}  // namespace sr_test
