#include <atomic>
#include <climits>
#include <mutex>

#include "tests/stub/StubFixture.h"

namespace sr_test {
namespace {

struct Call {
    int a;
    int b;
    int c;
    std::thread::id thread;
};

bool operator==(const Call& call, const std::vector<int>& values) {
    return values == std::vector<int>{call.a, call.b, call.c};
}

std::ostream& operator<<(std::ostream& out, const Call& call) {
    return out << "(" << call.a << ", " << call.b << ", " << call.c << ")";
}

// A callback is a plain function, so what it reports to stands here. `action` is set before the
// callback is installed and runs inside it.
std::mutex g_Mutex;
std::vector<Call> g_Calls;
std::vector<Call> g_OtherCalls;
std::function<void()> g_Action;
std::atomic<int> g_Inside(0);
std::atomic<bool> g_Overlapped(false);

void Record(std::vector<Call>& calls, int a, int b, int c) {
    if (g_Inside.fetch_add(1) != 0)
        g_Overlapped = true;
    if (g_Action)
        g_Action();
    {
        std::lock_guard<std::mutex> lock(g_Mutex);
        calls.push_back({a, b, c, std::this_thread::get_id()});
    }
    g_Inside.fetch_sub(1);
}

int Callback(int a, int b, int c) {
    Record(g_Calls, a, b, c);
    return -77;
}

int OtherCallback(int a, int b, int c) {
    Record(g_OtherCalls, a, b, c);
    return 0;
}

std::vector<Call> Calls() {
    std::lock_guard<std::mutex> lock(g_Mutex);
    return g_Calls;
}

std::vector<Call> OtherCalls() {
    std::lock_guard<std::mutex> lock(g_Mutex);
    return g_OtherCalls;
}

constexpr char kEvent[] = "52 65 63 76 49 50 43 24 00 00 00 01 ff ff ff ff 00 00 01 00";

std::string Numbered(int n) {
    std::string event = Hex("52 65 63 76 49 50 43 24 00 00 00 00 00 00 00 00 00 00 00 00");
    event[10] = static_cast<char>(n >> 8);
    event[11] = static_cast<char>(n & 0xFF);
    return event;
}

class NotificationTest : public StubTest {
protected:
    NotificationTest() {
        g_Calls.clear();
        g_OtherCalls.clear();
        g_Action = nullptr;
        g_Overlapped = false;
    }

    // No callback may run into the next test.
    ~NotificationTest() override { EndDispatcher(); }

    bool AwaitCalls(size_t count) {
        return WaitFor([=] { return Calls().size() >= count; });
    }

    /// Waits until an event has gone the whole way, whether or not a callback was there.
    bool AwaitEventsRead(int count) {
        return m_Log.WaitForLines(kLogInfo, "<== NetworkThread got event 0x24, len=12 ", count);
    }
};

TEST_F(NotificationTest, ThreeValuesReachTheCallback) {
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    m_Peer.Send(Hex(kEvent));
    ASSERT_TRUE(AwaitCalls(1));
    EXPECT_EQ(Calls()[0], (std::vector<int>{1, -1, 256}));
    EXPECT_TRUE(AwaitEventsRead(1));
}

TEST_F(NotificationTest, ExtremeValuesReachTheCallback) {
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    m_Peer.Send(Hex("52 65 63 76 49 50 43 24 80 00 00 00 7f ff ff ff 80 80 80 80"));
    ASSERT_TRUE(AwaitCalls(1));
    EXPECT_EQ(Calls()[0], (std::vector<int>{INT_MIN, INT_MAX, -2139062144}));
}

TEST_F(NotificationTest, EventSplitAtEveryOffset) {
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    const std::string event = Hex(kEvent);
    for (size_t offset = 1; offset < event.size(); ++offset) {
        SCOPED_TRACE(offset);
        m_Peer.SendSplitAt(event, {offset});
        ASSERT_TRUE(AwaitCalls(offset));
        EXPECT_EQ(Calls().back(), (std::vector<int>{1, -1, 256}));
    }
    EXPECT_EQ(event.size() - 1, Calls().size());
}

TEST_F(NotificationTest, EventByteByByte) {
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    m_Peer.SendByteByByte(Hex(kEvent));
    ASSERT_TRUE(AwaitCalls(1));
    EXPECT_EQ(Calls()[0], (std::vector<int>{1, -1, 256}));
    EXPECT_EQ(0, m_Log.Count(kLogNotice, "NetworkThread unknown prefix data"));
}

TEST_F(NotificationTest, ManyEventsComeInOrderOneAtATime) {
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    std::string events;
    for (int i = 0; i < 1000; ++i)
        events += Numbered(i);
    m_Peer.Send(events);
    ASSERT_TRUE(AwaitCalls(1000));
    const std::vector<Call> calls = Calls();
    ASSERT_EQ(1000u, calls.size());
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(calls[static_cast<size_t>(i)], (std::vector<int>{i, 0, 0}));
    EXPECT_FALSE(g_Overlapped);
}

class ThreadNamingStub : public OpenStub {
public:
    ~ThreadNamingStub() override { EndThreads(); }
    void OnPeerAlive() override { m_NetworkThread = std::this_thread::get_id(); }

    std::atomic<std::thread::id> m_NetworkThread{std::thread::id()};
};

TEST_F(NotificationTest, CallbackRunsOnTheDispatcherThreadAlone) {
    ThreadNamingStub stub;
    stub.SetScrRcvNotifyCB(Callback);
    ASSERT_EQ(0, stub.Init(m_Peer.Host(), false));
    ASSERT_TRUE(m_Peer.Accept());
    m_Peer.Send(Hex(kEvent) + Hex(kEvent));
    ASSERT_TRUE(AwaitCalls(2));
    const std::vector<Call> calls = Calls();
    EXPECT_NE(std::this_thread::get_id(), calls[0].thread);
    EXPECT_NE(stub.m_NetworkThread.load(), calls[0].thread);
    EXPECT_NE(std::thread::id(), stub.m_NetworkThread.load());
    EXPECT_EQ(calls[0].thread, calls[1].thread);
}

TEST_F(NotificationTest, WithoutACallbackTheEventIsDroppedAndTheLinkStays) {
    Connect();
    m_Peer.Send(Hex(kEvent));
    EXPECT_TRUE(AwaitEventsRead(1));
    ExpectAlive();
    EXPECT_EQ(42, m_Stub.GetErrorCode());
    ASSERT_TRUE(WaitFor([this] { return m_Stub.handled == 1; }));
    // It is dropped, not kept for a callback that comes later.
    m_Stub.SetScrRcvNotifyCB(Callback);
    m_Peer.Send(Numbered(2));
    ASSERT_TRUE(AwaitCalls(1));
    EXPECT_EQ(Calls()[0], (std::vector<int>{2, 0, 0}));
}

TEST_F(NotificationTest, SecondCallbackReplacesTheFirst) {
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    m_Peer.Send(Numbered(1));
    ASSERT_TRUE(AwaitCalls(1));
    m_Stub.SetScrRcvNotifyCB(OtherCallback);
    m_Peer.Send(Numbered(2));
    ASSERT_TRUE(WaitFor([] { return OtherCalls().size() == 1; }));
    EXPECT_EQ(OtherCalls()[0], (std::vector<int>{2, 0, 0}));
    EXPECT_EQ(1u, Calls().size());
}

TEST_F(NotificationTest, NullSwitchesNotificationsOff) {
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    m_Peer.Send(Numbered(1));
    ASSERT_TRUE(AwaitCalls(1));
    m_Stub.SetScrRcvNotifyCB(nullptr);
    m_Peer.Send(Numbered(2));
    EXPECT_TRUE(AwaitEventsRead(2));
    // A third one, for the other callback, comes after the second was dropped.
    ExpectAlive();
    EXPECT_EQ(1u, Calls().size());
}

TEST_F(NotificationTest, CallbackMayRemoveItself) {
    g_Action = [this] { m_Stub.SetScrRcvNotifyCB(nullptr); };
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    m_Peer.Send(Numbered(1) + Numbered(2) + Numbered(3));
    EXPECT_TRUE(AwaitEventsRead(3));
    ASSERT_TRUE(AwaitCalls(1));
    ExpectAlive();
    EXPECT_EQ(1u, Calls().size());
}

TEST_F(NotificationTest, CallbackStaysThroughANewConnection) {
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    Connect();
    m_Peer.Send(Hex(kEvent));
    ASSERT_TRUE(AwaitCalls(1));
}

TEST_F(NotificationTest, RequestsFromInsideTheCallbackGetTheirAnswers) {
    int result = 0;
    ScreenReceiverStub::ModeratorInfo info = {0, 0};
    std::vector<ScreenSenderInfo> list;
    g_Action = [&] {
        result = m_Stub.StopPlayImage(5);
        m_Stub.GetModeratorInfo(info);
        m_Stub.GetSenderList(list);
    };
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    m_Peer.Send(Hex(kEvent));
    EXPECT_EQ(Frame("52 65 63 76 49 50 43 14 00 00 00 05"), m_Peer.Receive(kFrameSize));
    // An event that comes meanwhile waits for the callback to return.
    m_Peer.Send(Numbered(2) + Frame("52 65 63 76 49 50 43 15 00 00 00 07"));
    EXPECT_EQ(Frame("52 65 63 76 49 50 43 20 01"), m_Peer.Receive(kFrameSize));
    EXPECT_TRUE(Calls().empty());
    m_Peer.Send(Frame("52 65 63 76 49 50 43 21 00 00 01 00 05"));
    EXPECT_EQ(Frame("52 65 63 76 49 50 43 10 01"), m_Peer.Receive(kFrameSize));
    m_Peer.Send(ListFrame("11", "00 03 00", std::string(192, '\0')));
    EXPECT_EQ(Frame("52 65 63 76 49 50 43 14 00 00 00 05"), m_Peer.Receive(kFrameSize));
    ASSERT_TRUE(AwaitCalls(1));
    EXPECT_EQ(7, result);
    EXPECT_EQ(256, info.nModeratorId);
    EXPECT_EQ(5, info.byModeratorFlag);
    EXPECT_EQ(3u, list.size());
    EXPECT_FALSE(g_Overlapped);
    // The second callback is in its first request, and writes its result into this frame.
    EndDispatcher();
}

TEST_F(NotificationTest, EventsBetweenRequestAndAnswerDisturbNeither) {
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    EXPECT_EQ(7, CallWhile([this] { return m_Stub.StopPlayImage(5); },
                           [this] {
                               EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
                               m_Peer.Send(Numbered(1) + Numbered(2) +
                                           Frame("52 65 63 76 49 50 43 15 00 00 00 07") +
                                           Numbered(3));
                           }));
    ASSERT_TRUE(AwaitCalls(3));
    EXPECT_EQ(Calls()[2], (std::vector<int>{3, 0, 0}));
}

TEST_F(NotificationTest, InitFromInsideTheCallbackIsRefused) {
    int result = 0;
    std::string text;
    g_Action = [&] {
        result = m_Stub.Init(m_Peer.Host(), false);
        text = m_Stub.GetErrorMessage();
    };
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    m_Peer.Send(Hex(kEvent));
    ASSERT_TRUE(AwaitCalls(1));
    EXPECT_EQ(-6527002, result);
    EXPECT_EQ(0u, text.find("Function reentry is not allowed: ProtocolBase::OpenConnect ["));
    EXPECT_TRUE(m_Stub.IsConnected());
    ExpectAlive();
}

TEST_F(NotificationTest, LinkClosedInMidEventIsThePeersClose) {
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    m_Peer.Send(Hex(kEvent).substr(0, 15));
    m_Peer.Close();
    EXPECT_TRUE(WaitFor([this] { return m_Stub.GetErrorCode() == -6528002; }));
    EXPECT_STREQ("The connection has been gracefully closed. [ProtocolBase.cpp:505]",
                 m_Stub.GetErrorMessage());
    EXPECT_TRUE(WaitFor([this] { return !m_Stub.IsConnected(); }));
    EXPECT_TRUE(Calls().empty());
}

TEST_F(NotificationTest, EventReaderLogsItsLineOncePerEvent) {
    Connect();
    m_Peer.Send(Hex(kEvent) + Hex(kEvent));
    EXPECT_TRUE(AwaitEventsRead(2));
    int lines = 0;
    for (const LogCapture::Line& line : m_Log.Lines()) {
        if (line.level == kLogDebug && line.text == "Recv12ByteData" &&
            line.place == "ScreenReceiverStub.cpp:285")
            ++lines;
    }
    EXPECT_EQ(2, lines);
}

TEST_F(NotificationTest, HandlerAnswersMinusOneWithAndWithoutACallback) {
    // One byte off, since a body need not be aligned.
    std::string body = Hex("ee 00 00 00 01 ff ff ff ff 00 00 01 00");
    EXPECT_EQ(-1, m_Stub.OnNotifyEvent(&body[1]));
    m_Stub.SetScrRcvNotifyCB(Callback);
    EXPECT_TRUE(m_Stub.m_pfnNotifyCB.load() == Callback);
    EXPECT_EQ(-1, m_Stub.OnNotifyEvent(&body[1]));
    ASSERT_EQ(1u, Calls().size());
    EXPECT_EQ(Calls()[0], (std::vector<int>{1, -1, 256}));
    m_Stub.SetScrRcvNotifyCB(nullptr);
    EXPECT_TRUE(m_Stub.m_pfnNotifyCB.load() == nullptr);
    EXPECT_EQ(-1, m_Stub.OnNotifyEvent(&body[1]));
    EXPECT_EQ(1u, Calls().size());
}

}  // namespace
}  // namespace sr_test
