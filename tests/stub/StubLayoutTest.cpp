#include <cstddef>

#include "tests/stub/StubFixture.h"
#include "tests/support/VirtualSlot.h"

namespace sr_test {
namespace {

typedef ProtocolBase::RecvHandler RecvHandler;
typedef ProtocolBase::CmdHandler CmdHandler;

RecvHandler ReaderOf(int code) {
    switch (code) {
        case 17:
        case 27:
        case 29:
            return static_cast<RecvHandler>(&ScreenReceiverStub::RecvGetSenderListParam);
        case 19:
        case 21:
        case 31:
        case 35:
            return static_cast<RecvHandler>(&ScreenReceiverStub::RecvErrorCodeParam);
        case 23:
        case 25:
            return static_cast<RecvHandler>(&ScreenReceiverStub::Recv32ByteReserve);
        case 33:
            return static_cast<RecvHandler>(&ScreenReceiverStub::RecvGetModeratorInfo);
        case 36:
            return static_cast<RecvHandler>(&ScreenReceiverStub::Recv12ByteData);
        default:
            return &ProtocolBase::RecvUnknownData;
    }
}

CmdHandler HandlerOf(int code) {
    if (code == 36)
        return static_cast<CmdHandler>(&ScreenReceiverStub::OnNotifyEvent);
    return static_cast<CmdHandler>(&ProtocolBase::OnUnknownCommand);
}

TEST(StubLayoutTest, EveryReplyReaderStandsAtItsCommandByte) {
    OpenStub stub;
    for (int code = 0; code < 256; ++code)
        EXPECT_TRUE(stub.m_RecvHandlers[code] == ReaderOf(code)) << "command byte " << code;
}

TEST(StubLayoutTest, OnlyTheNotificationHasAnEventHandler) {
    OpenStub stub;
    for (int code = 0; code < 256; ++code)
        EXPECT_TRUE(stub.m_CmdHandlers[code] == HandlerOf(code)) << "command byte " << code;
}

TEST(StubLayoutTest, NewStubHasThePrefixAndNothingElse) {
    OpenStub stub;
    EXPECT_EQ(Hex("52 65 63 76 49 50 43"), stub.m_strCmdPrefix);
    EXPECT_EQ("", stub.m_strCustCmdPrefix);
    EXPECT_EQ(Hex("52 65 63 76 49 50 43"), stub.m_strSendBuf.substr(0, 7));
    EXPECT_TRUE(stub.m_pfnNotifyCB.load() == nullptr);
    EXPECT_EQ(-1, stub.GetSocket());
    EXPECT_FALSE(stub.IsConnected());
    EXPECT_FALSE(stub.m_bRunning);
    EXPECT_EQ(0, stub.m_nAnsCode);
    EXPECT_EQ("", stub.m_strHost);
    EXPECT_EQ(0, stub.GetErrorCode());
    EXPECT_STREQ("OK [:0]", stub.GetErrorMessage());
}

TEST(StubLayoutTest, ResultPointerStandsBeforeTheCallback) {
    OpenStub stub;
    EXPECT_LT(reinterpret_cast<char*>(&stub.m_pRecvResult),
              reinterpret_cast<char*>(&stub.m_pfnNotifyCB));
}

TEST(StubLayoutTest, CommandsTakeTheTwelveSlotsBehindTheEngine) {
    // Eight of the error state, 24 of the engine, whose last is its network thread's body.
    EXPECT_EQ(31u, SlotOf(&ProtocolBase::NetworkThread));
    EXPECT_EQ(32u, SlotOf(&ScreenReceiverStub::Init));
    EXPECT_EQ(33u, SlotOf(&ScreenReceiverStub::GetSenderList));
    EXPECT_EQ(34u, SlotOf(&ScreenReceiverStub::GetNonLocalSenderList));
    EXPECT_EQ(35u, SlotOf(&ScreenReceiverStub::GetValidSenderList));
    EXPECT_EQ(36u, SlotOf(&ScreenReceiverStub::GetModeratorInfo));
    EXPECT_EQ(37u, SlotOf(&ScreenReceiverStub::SetModeratorInfo));
    EXPECT_EQ(38u, SlotOf(&ScreenReceiverStub::StartPlayImage));
    EXPECT_EQ(39u, SlotOf(&ScreenReceiverStub::StopPlayImage));
    EXPECT_EQ(40u, SlotOf(&ScreenReceiverStub::ForceSenderLogout));
    EXPECT_EQ(41u, SlotOf(&ScreenReceiverStub::RefreshConfCtrlTimer));
    EXPECT_EQ(42u, SlotOf(&ScreenReceiverStub::QuitConfCtrl));
    EXPECT_EQ(43u, SlotOf(&ScreenReceiverStub::SetScrRcvNotifyCB));
}

TEST(StubLayoutTest, ReadersAndTheEventHandlerAreNotVirtual) {
    EXPECT_THROW(SlotOf(&ScreenReceiverStub::Recv12ByteData), std::invalid_argument);
    EXPECT_THROW(SlotOf(&ScreenReceiverStub::Recv32ByteReserve), std::invalid_argument);
    EXPECT_THROW(SlotOf(&ScreenReceiverStub::RecvErrorCodeParam), std::invalid_argument);
    EXPECT_THROW(SlotOf(&ScreenReceiverStub::RecvGetModeratorInfo), std::invalid_argument);
    EXPECT_THROW(SlotOf(&ScreenReceiverStub::RecvGetSenderListParam), std::invalid_argument);
    EXPECT_THROW(SlotOf(&ScreenReceiverStub::OnNotifyEvent), std::invalid_argument);
}

TEST(StubLayoutTest, NewSenderIsEmptyButForItsSplitScreen) {
    const ScreenSenderInfo sender;
    EXPECT_STREQ("", sender.GetUserName());
    EXPECT_EQ(0, sender.GetStatus());
    EXPECT_EQ(0x80, sender.GetSplitScreen());
    EXPECT_EQ(0, sender.GetOSType());
    EXPECT_EQ(0, sender.GetAppType());
    EXPECT_EQ(0, sender.GetPointInputType());
    EXPECT_EQ(0, sender.GetWebSlides());
    EXPECT_EQ(0, sender.GetProtocolVersion());
    EXPECT_FALSE(sender.IsSidebarNeeded());
    EXPECT_STREQ("", sender.GetProductID());
    // Not set means zero here, so that a list whose link broke holds no left-overs of other memory.
    EXPECT_EQ(0, sender.GetPrimaryKey());
    EXPECT_EQ(0u, sender.GetIpAddress());
    EXPECT_EQ(0, sender.GetSdkVersion());
}

TEST(StubLayoutTest, ModeratorRecordHasItsTwoFieldsInOrder) {
    EXPECT_EQ(0u, offsetof(ScreenReceiverStub::ModeratorInfo, nModeratorId));
    EXPECT_EQ(4u, offsetof(ScreenReceiverStub::ModeratorInfo, byModeratorFlag));
    EXPECT_EQ(8u, sizeof(ScreenReceiverStub::ModeratorInfo));
}

}  // namespace
}  // namespace sr_test
