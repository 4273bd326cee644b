#include <atomic>

#include "tests/stub/StubFixture.h"

namespace sr_test {
namespace {

std::function<void(int)> g_InsideCallback;

int Callback(int number, int, int) {
    g_InsideCallback(number);
    return 0;
}

/// A receiver whose every answer can be told from every other.
class ConcurrentRequestTest : public StubTest {
protected:
    void TearDown() override {
        m_Done = true;
        if (m_Receiver.joinable())
            m_Receiver.join();
    }

    /// Answers each request by what it asked, until the test is over. `eventEvery` request a
    /// notification goes out as well, in front of the answer.
    void Serve(int eventEvery) {
        m_Receiver = std::thread([this, eventEvery] {
            int served = 0;
            while (!m_Done) {
                const std::string request = m_Peer.Receive(kFrameSize, milliseconds(100));
                if (request.empty())
                    continue;
                if (request.size() != kFrameSize) {
                    ADD_FAILURE() << "a request of " << request.size() << " bytes";
                    return;
                }
                if (eventEvery != 0 && ++served % eventEvery == 0 && m_EventsLeft > 0) {
                    --m_EventsLeft;
                    m_Peer.Send(Hex("52 65 63 76 49 50 43 24 00 00 00 05 00 00 00 00 00 00 00 00"));
                }
                m_Peer.Send(AnswerTo(request));
            }
        });
    }

    static std::string AnswerTo(const std::string& request) {
        const std::string id = request.substr(8, 4);
        switch (request[7]) {
            case 16:
                return ListFrame("11", "00 02 00", Records(2, 'A', 64));
            case 26:
                return ListFrame("1b", "00 07 01", Records(7, 'B', 128));
            case 28:
                return ListFrame("1d", "00 04 00", Records(4, 'C', 64));
            case 18:
                return Padded(Hex("52 65 63 76 49 50 43 13") + id, kFrameSize);
            case 20:
                return Padded(Hex("52 65 63 76 49 50 43 15") + id, kFrameSize);
            case 30:
                return Padded(Hex("52 65 63 76 49 50 43 1f") + id, kFrameSize);
            case 32:
                return Frame("52 65 63 76 49 50 43 21 00 00 01 00 05");
            case 24:
                return Frame("52 65 63 76 49 50 43 19");
            default:
                ADD_FAILURE() << "unexpected request " << static_cast<int>(request[7]);
                return std::string();
        }
    }

    static std::string Records(int count, char name, size_t size) {
        std::string records;
        for (int i = 0; i < count; ++i)
            records += Padded(std::string(8, '\0') + std::string(40, name), size);
        return records;
    }

    static bool IsList(const std::vector<ScreenSenderInfo>& list, size_t count, char name) {
        if (list.size() != count)
            return false;
        for (const ScreenSenderInfo& sender : list) {
            if (sender.GetUserName() != std::string(40, name))
                return false;
        }
        return true;
    }

    ~ConcurrentRequestTest() override {
        EndDispatcher();
        g_InsideCallback = nullptr;
    }

    std::atomic<bool> m_Done{false};
    std::atomic<int> m_EventsLeft{0};
    std::thread m_Receiver;
};

constexpr int kRounds = 60;

TEST_F(ConcurrentRequestTest, TwoThreadsEachGetTheirOwnAnswers) {
    Connect();
    Serve(0);
    std::atomic<int> wrong(0);
    std::thread lists([&] {
        for (int i = 0; i < kRounds; ++i) {
            std::vector<ScreenSenderInfo> list;
            if (m_Stub.GetSenderList(list) != 0 || !IsList(list, 2, 'A'))
                ++wrong;
            std::vector<ScreenSenderInfo> others;
            if (m_Stub.GetNonLocalSenderList(others) != 0 || !IsList(others, 7, 'B'))
                ++wrong;
        }
    });
    std::thread results([&] {
        for (int i = 1; i <= kRounds; ++i) {
            if (m_Stub.StartPlayImage(i, 0) != i)
                ++wrong;
            ScreenReceiverStub::ModeratorInfo info = {0, 0};
            if (m_Stub.GetModeratorInfo(info) != 0 || info.nModeratorId != 256 ||
                info.byModeratorFlag != 5)
                ++wrong;
        }
    });
    lists.join();
    results.join();
    EXPECT_EQ(0, wrong);
}

TEST_F(ConcurrentRequestTest, SameCommandFromManyThreadsIsNotMixedUp) {
    Connect();
    Serve(0);
    std::atomic<int> wrong(0);
    std::vector<std::thread> threads;
    for (int thread = 1; thread <= 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < kRounds / 2; ++i) {
                const int id = thread * 1000 + i;
                if (m_Stub.StopPlayImage(id) != id)
                    ++wrong;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, wrong);
}

TEST_F(ConcurrentRequestTest, ThreadAndCallbackEachGetTheirOwnAnswers) {
    std::atomic<int> wrong(0);
    std::atomic<int> calls(0);
    g_InsideCallback = [&](int number) {
        std::vector<ScreenSenderInfo> list;
        if (m_Stub.GetValidSenderList(list) != 0 || !IsList(list, 4, 'C'))
            ++wrong;
        if (m_Stub.ForceSenderLogout(number) != number)
            ++wrong;
        ++calls;
    };
    m_Stub.SetScrRcvNotifyCB(Callback);
    Connect();
    m_EventsLeft = kRounds;
    Serve(1);
    for (int i = 1; i <= kRounds; ++i) {
        if (m_Stub.StartPlayImage(i, 0) != i)
            ++wrong;
        std::vector<ScreenSenderInfo> list;
        if (m_Stub.GetSenderList(list) != 0 || !IsList(list, 2, 'A'))
            ++wrong;
    }
    EXPECT_TRUE(WaitFor([&] { return calls == kRounds; }, milliseconds(60000)));
    EXPECT_EQ(0, wrong);
}

TEST_F(ConcurrentRequestTest, SecondRequestWaitsForTheFirst) {
    Connect();
    std::thread first([this] { EXPECT_EQ(1, m_Stub.StopPlayImage(1)); });
    EXPECT_EQ(Frame("52 65 63 76 49 50 43 14 00 00 00 01"), m_Peer.Receive(kFrameSize));
    std::thread second([this] { EXPECT_EQ(0, m_Stub.QuitConfCtrl()); });
    EXPECT_EQ("", m_Peer.ReceiveAllWithin(milliseconds(200)));
    m_Peer.Send(Frame("52 65 63 76 49 50 43 15 00 00 00 01"));
    EXPECT_EQ(Frame("52 65 63 76 49 50 43 18"), m_Peer.Receive(kFrameSize));
    m_Peer.Send(Frame("52 65 63 76 49 50 43 19"));
    first.join();
    second.join();
}

TEST_F(ConcurrentRequestTest, TeardownDoesNotWaitForTheRequestsLock) {
    Connect();
    std::thread first([this] { EXPECT_LT(m_Stub.StopPlayImage(1), 0); });
    EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
    const Stopwatch watch;
    m_Stub.CloseConnect();
    EXPECT_LT(watch.Elapsed(), seconds(4));
    first.join();
}

}  // namespace
}  // namespace sr_test
