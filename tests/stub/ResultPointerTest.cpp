#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "tests/stub/StubFixture.h"

namespace sr_test {
namespace {

typedef std::vector<ScreenSenderInfo> SenderList;

constexpr char kOneRecord[] = "52 65 63 76 49 50 43 11 00 01 00";
constexpr char kTwoRecords[] = "52 65 63 76 49 50 43 11 00 02 00";
constexpr char kStarted[] = "52 65 63 76 49 50 43 13 00 00 00 05";
constexpr char kModerator[] = "52 65 63 76 49 50 43 21 00 00 01 00 05";

/// A stack that outlives its thread, to see who writes to frames that are gone. The test looks at it
/// through a second mapping, for memory checkers know that nobody may touch the first any more.
class KeptStack {
public:
    KeptStack() {
        const int file = memfd_create("stack", MFD_CLOEXEC);
        EXPECT_EQ(0, ftruncate(file, kSize));
        m_pStack = Map(file);
        m_pView = Map(file);
        close(file);
    }
    ~KeptStack() {
        munmap(m_pStack, kSize);
        munmap(m_pView, kSize);
    }
    KeptStack(const KeptStack&) = delete;
    KeptStack& operator=(const KeptStack&) = delete;

    /// Runs `call` on this stack while the test plays the receiver; fills the stack afterwards.
    void Run(std::function<void()> call, const std::function<void()>& receiver) {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        ASSERT_EQ(0, pthread_attr_setstack(&attributes, m_pStack, kSize));
        pthread_t thread;
        const auto body = [](void* argument) -> void* {
            (*static_cast<std::function<void()>*>(argument))();
            return nullptr;
        };
        ASSERT_EQ(0, pthread_create(&thread, &attributes, body, &call));
        pthread_attr_destroy(&attributes);
        receiver();
        pthread_join(thread, nullptr);
        std::memset(m_pView, kFill, kSize);
    }

    bool Contains(const void* pointer) const {
        return pointer >= m_pStack && pointer < m_pStack + kSize;
    }

    bool IsUntouched() const {
        return std::string(m_pView, kSize).find_first_not_of(kFill) == std::string::npos;
    }

private:
    static constexpr size_t kSize = 1 << 20;
    static constexpr char kFill = '\x5A';

    static char* Map(int file) {
        void* memory = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        EXPECT_NE(MAP_FAILED, memory);
        return static_cast<char*>(memory);
    }

    char* m_pStack;
    char* m_pView;
};

class ResultPointerTest : public StubTest {
protected:
    void SetUp() override { Connect(); }

    /// A request that goes by the stub's own methods past: nobody has set where its result goes.
    int RequestRaw(int code, const std::string& answer) {
        return CallAnswered(
            [=] {
                return m_Stub.RequestCommand(code, code + 1, "Raw", std::string(32, '\0'), true,
                                             10);
            },
            answer);
    }

    void ExpectRawRequestsStayInStep() {
        EXPECT_EQ(0, RequestRaw(16, Frame(kTwoRecords) + std::string(2 * 64, 'r')));
        EXPECT_EQ(0, RequestRaw(18, Frame(kStarted)));
        EXPECT_EQ(0, RequestRaw(32, Frame(kModerator)));
        // Neither a byte too few nor one too many was taken from the stream.
        EXPECT_EQ(0, m_Log.Count(kLogNotice, "NetworkThread unknown prefix data"));
        EXPECT_EQ(0, m_Log.Count(kLogError, ""));
        ExpectAlive();
    }
};

TEST_F(ResultPointerTest, ModeratorSettingsKeepTheirPlace) {
    ScreenReceiverStub::ModeratorInfo info = {1, 1};
    EXPECT_EQ(0, CallAnswered([&] { return m_Stub.GetModeratorInfo(info); }, Frame(kModerator)));
    EXPECT_EQ(&info, m_Stub.m_pRecvResult);
}

TEST_F(ResultPointerTest, ListKeepsItsPlace) {
    SenderList list;
    EXPECT_EQ(0, CallAnswered([&] { return m_Stub.GetSenderList(list); },
                              Frame(kOneRecord) + std::string(64, 'r')));
    EXPECT_EQ(&list, m_Stub.m_pRecvResult);
}

TEST_F(ResultPointerTest, ServiceResultKeepsItsPlace) {
    KeptStack stack;
    stack.Run([this] { EXPECT_EQ(5, m_Stub.StartPlayImage(1, 1)); },
              [this] {
                  EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
                  m_Peer.Send(Frame(kStarted));
              });
    EXPECT_TRUE(stack.Contains(m_Stub.m_pRecvResult));
}

TEST_F(ResultPointerTest, ConferenceControlLeavesADerivedClassesPlaceAlone) {
    int32_t own = 99;
    m_Stub.m_pRecvResult = &own;
    EXPECT_EQ(0, CallAnswered([this] { return m_Stub.RefreshConfCtrlTimer(); },
                              Frame("52 65 63 76 49 50 43 17 01 02 03 04")));
    EXPECT_EQ(&own, m_Stub.m_pRecvResult);
    EXPECT_EQ(0, CallAnswered([this] { return m_Stub.QuitConfCtrl(); },
                              Frame("52 65 63 76 49 50 43 19 01 02 03 04")));
    EXPECT_EQ(&own, m_Stub.m_pRecvResult);
    EXPECT_EQ(99, own);
}

TEST_F(ResultPointerTest, RawRequestFillsADerivedClassesPlace) {
    EXPECT_EQ(5, CallAnswered([this] { return m_Stub.StartPlayImage(1, 1); }, Frame(kStarted)));
    int32_t own = 99;
    m_Stub.m_pRecvResult = &own;
    EXPECT_EQ(0, RequestRaw(18, Frame(kStarted)));
    EXPECT_EQ(5, own);
    SenderList list;
    m_Stub.m_pRecvResult = &list;
    EXPECT_EQ(0, RequestRaw(16, Frame(kTwoRecords) + std::string(2 * 64, 'r')));
    EXPECT_EQ(2u, list.size());
    ScreenReceiverStub::ModeratorInfo info = {1, 1};
    m_Stub.m_pRecvResult = &info;
    EXPECT_EQ(0, RequestRaw(32, Frame(kModerator)));
    EXPECT_EQ(256, info.nModeratorId);
    EXPECT_EQ(5, info.byModeratorFlag);
}

TEST_F(ResultPointerTest, RawRequestWithoutAnyPlaceStaysInStep) {
    EXPECT_EQ(nullptr, m_Stub.m_pRecvResult);
    ExpectRawRequestsStayInStep();
}

TEST_F(ResultPointerTest, RawRequestDoesNotWriteToTheListOfAnEarlierCall) {
    SenderList list;
    EXPECT_EQ(0, CallAnswered([&] { return m_Stub.GetSenderList(list); },
                              Frame(kOneRecord) + std::string(64, 'a')));
    ExpectRawRequestsStayInStep();
    ASSERT_EQ(1u, list.size());
    EXPECT_EQ(0x61616161, list[0].GetPrimaryKey());
}

TEST_F(ResultPointerTest, RawRequestDoesNotWriteToAListThatIsGone) {
    {
        const std::unique_ptr<SenderList> list(new SenderList);
        EXPECT_EQ(0, CallAnswered([&] { return m_Stub.GetSenderList(*list); },
                                  Frame(kOneRecord) + std::string(64, 'a')));
    }
    ExpectRawRequestsStayInStep();
}

TEST_F(ResultPointerTest, RawRequestDoesNotWriteToTheModeratorSettingsOfAnEarlierCall) {
    const std::unique_ptr<ScreenReceiverStub::ModeratorInfo> info(
        new ScreenReceiverStub::ModeratorInfo{1, 1});
    EXPECT_EQ(0, CallAnswered([&] { return m_Stub.GetModeratorInfo(*info); },
                              Frame("52 65 63 76 49 50 43 21 00 00 00 07 08")));
    ExpectRawRequestsStayInStep();
    EXPECT_EQ(7, info->nModeratorId);
    EXPECT_EQ(8, info->byModeratorFlag);
}

TEST_F(ResultPointerTest, RawRequestDoesNotWriteToAStackFrameThatIsGone) {
    KeptStack stack;
    stack.Run([this] { EXPECT_EQ(5, m_Stub.StartPlayImage(1, 1)); },
              [this] {
                  EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
                  m_Peer.Send(Frame(kStarted));
              });
    ASSERT_TRUE(stack.Contains(m_Stub.m_pRecvResult));
    ExpectRawRequestsStayInStep();
    EXPECT_TRUE(stack.IsUntouched());
}

TEST_F(ResultPointerTest, RawRequestDoesNotWriteToTheFrameOfARequestThatTimedOut) {
    KeptStack stack;
    stack.Run([this] { EXPECT_EQ(-6528101, m_Stub.StartPlayImage(1, 1)); },
              [this] { EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size()); });
    ASSERT_TRUE(stack.Contains(m_Stub.m_pRecvResult));
    EXPECT_EQ(0, RequestRaw(18, Frame(kStarted)));
    EXPECT_TRUE(stack.IsUntouched());
    ExpectAlive();
}

}  // namespace
}  // namespace sr_test
