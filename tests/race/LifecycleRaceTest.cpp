#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ScreenReceiver/ScreenReceiverStub.h"
#include "simulator/ReceiverSimulator.h"
#include "tests/support/ScriptedPeer.h"

// Opening, closing, requesting and destroying from several threads at once. Every call has to
// return, at most one connection may remain, and no thread may be left over. A deadlock shows as
// the test's time-out, a race as the thread sanitizer's report.

namespace sr_test {
namespace {

constexpr int kRounds = 60;
constexpr int kErrReentered = -6527002;

int Entries(const char* directory) {
    DIR* dir = opendir(directory);
    int count = 0;
    while (readdir(dir) != nullptr)
        ++count;
    closedir(dir);
    return count;
}

int Threads() {
    return Entries("/proc/self/task");
}

int Descriptors() {
    return Entries("/proc/self/fd");
}

/// Runs bodies on threads of their own, all let go at the same moment, and joins them.
void Together(const std::vector<std::function<void()>>& bodies) {
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (const auto& body : bodies)
        threads.emplace_back([&go, &body] {
            while (!go)
                std::this_thread::yield();
            body();
        });
    go = true;
    for (std::thread& thread : threads)
        thread.join();
}

class Flag {
public:
    void Raise() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_bRaised = true;
        m_Cond.notify_all();
    }
    bool Wait() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cond.wait_for(lock, Stretched(milliseconds(20000)), [this] { return m_bRaised; });
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    bool m_bRaised = false;
};

// The callback is a plain function, and each test case is a process of its own.
std::function<void(int, int, int)> s_OnNotify;
int Notified(int first, int second, int third) {
    s_OnNotify(first, second, third);
    return 0;
}

class LifecycleRaceTest : public testing::Test {
protected:
    LifecycleRaceTest() : m_Address(UniqueAddress()) {
        simulator::Options options;
        options.address = m_Address;
        m_Receiver = std::make_unique<simulator::ReceiverSimulator>(options);
        for (int key = 1; key <= 3; ++key) {
            simulator::Sender sender;
            sender.key = key;
            sender.userName = "presenter";
            m_Receiver->AddSender(sender);
        }
    }

    void SetUp() override {
        ASSERT_FALSE(m_Receiver->Start());
        m_Stub = std::make_unique<ScreenReceiverStub>();
    }

    void TearDown() override {
        m_Stub.reset();
        m_Receiver.reset();
        s_OnNotify = nullptr;
    }

    const char* Host() const { return m_Address.c_str(); }

    /// After whatever happened, the object opens and works as on its first day.
    void ExpectUsable() {
        ASSERT_EQ(0, m_Stub->Init(Host(), false));
        std::vector<ScreenSenderInfo> senders;
        EXPECT_EQ(0, m_Stub->GetSenderList(senders));
        EXPECT_EQ(3u, senders.size());
        EXPECT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 1; }));
    }

    std::string m_Address;
    std::unique_ptr<simulator::ReceiverSimulator> m_Receiver;
    std::unique_ptr<ScreenReceiverStub> m_Stub;
};

TEST_F(LifecycleRaceTest, InitOnSeveralThreadsLeavesOneConnection) {
    ExpectUsable();
    const int threads = Threads();
    const int descriptors = Descriptors();
    for (int round = 0; round < kRounds; ++round) {
        std::atomic<int> opened{0};
        const auto init = [&] {
            const int result = m_Stub->Init(Host(), false);
            EXPECT_TRUE(result == 0 || result == -6528001 || result == -6528005) << result;
            if (result == 0)
                ++opened;
        };
        Together({init, init, init});
        EXPECT_GE(opened, 1);
        EXPECT_TRUE(WaitFor(
            [this] { return m_Receiver->ClientCount() == (m_Stub->IsConnected() ? 1u : 0u); }));
    }
    ExpectUsable();
    EXPECT_TRUE(WaitFor([&] { return Threads() == threads && Descriptors() <= descriptors; }))
        << Threads() << " threads, were " << threads << "; " << Descriptors()
        << " descriptors, were " << descriptors;
}

TEST_F(LifecycleRaceTest, InitAgainstClosedByTheReceiver) {
    for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(0, m_Stub->Init(Host(), false));
        // The close thread and the next Init meet at every offset in time.
        Together({[this] { m_Receiver->DropClients(); },
                  [this, round] {
                      usleep(static_cast<useconds_t>(round * 700));
                      m_Stub->Init(Host(), false);
                  }});
    }
    EXPECT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() <= 1; }));
    ExpectUsable();
}

TEST_F(LifecycleRaceTest, InitAgainstCloseConnect) {
    for (int round = 0; round < kRounds; ++round)
        Together({[this] { m_Stub->Init(Host(), false); }, [this] { m_Stub->CloseConnect(); }});
    ExpectUsable();
}

TEST_F(LifecycleRaceTest, RequestsAgainstInitAndClose) {
    std::atomic<bool> stop{false};
    ASSERT_EQ(0, m_Stub->Init(Host(), false));
    const auto requests = [&] {
        while (!stop) {
            ScreenReceiverStub::ModeratorInfo info = {7, 7};
            const int result = m_Stub->GetModeratorInfo(info);
            EXPECT_LE(result, 0);
            EXPECT_EQ(result == 0 ? 0 : 7, info.nModeratorId);
            std::vector<ScreenSenderInfo> senders;
            const bool listed = m_Stub->GetSenderList(senders) == 0;
            EXPECT_TRUE(!listed || senders.size() == 3);
        }
    };
    Together({requests, requests, [&] {
                  // Few rounds: a request that meets a closed connection takes 5 s to fail.
                  for (int round = 0; round < 5; ++round) {
                      m_Stub->Init(Host(), false);
                      m_Stub->ReConnect();
                  }
                  stop = true;
              }});
    ExpectUsable();
}

TEST_F(LifecycleRaceTest, InitInsideTheCallbackIsRefusedAndHarmless) {
    std::atomic<int> refused{0};
    s_OnNotify = [&](int, int, int) {
        if (m_Stub->Init(Host(), false) == kErrReentered &&
            std::string(m_Stub->GetErrorMessage())
                    .find("Function reentry is not allowed: ProtocolBase::OpenConnect [") == 0)
            ++refused;
    };
    m_Stub->SetScrRcvNotifyCB(Notified);
    ASSERT_EQ(0, m_Stub->Init(Host(), false));
    ASSERT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 1; }));
    m_Receiver->Notify(1, 2, 3);
    EXPECT_TRUE(WaitFor([&] { return refused == 1; }));
    EXPECT_EQ(1u, m_Receiver->ClientCount());
    std::vector<ScreenSenderInfo> senders;
    EXPECT_EQ(0, m_Stub->GetSenderList(senders));
}

TEST_F(LifecycleRaceTest, EverythingThatWouldJoinTheDispatcherIsRefusedInsideTheCallback) {
    std::vector<int> results;
    Flag done;
    s_OnNotify = [&](int, int, int) {
        results.push_back(m_Stub->OpenConnect(Host(), {19996}, false, 3));
        results.push_back(m_Stub->OpenConnectImpl(Host(), {19996}, false, 3));
        results.push_back(m_Stub->OpenSocket(Host(), {19996}, 3));
        results.push_back(m_Stub->InitSocket(-1, false));
        results.push_back(m_Stub->ReConnect());
        done.Raise();
    };
    m_Stub->SetScrRcvNotifyCB(Notified);
    ASSERT_EQ(0, m_Stub->Init(Host(), false));
    ASSERT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 1; }));
    m_Receiver->Notify(1, 2, 3);
    ASSERT_TRUE(done.Wait());
    EXPECT_EQ(std::vector<int>(5, kErrReentered), results);
    EXPECT_EQ(1u, m_Receiver->ClientCount());
}

TEST_F(LifecycleRaceTest, CloseConnectInsideTheCallbackCloses) {
    for (int round = 0; round < kRounds / 4; ++round) {
        Flag closed;
        s_OnNotify = [&](int, int, int) {
            EXPECT_EQ(0, m_Stub->CloseConnect());
            closed.Raise();
        };
        m_Stub->SetScrRcvNotifyCB(Notified);
        ASSERT_EQ(0, m_Stub->Init(Host(), false));
        ASSERT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 1; }));
        m_Receiver->Notify(1, 2, 3);
        ASSERT_TRUE(closed.Wait());
        EXPECT_FALSE(m_Stub->IsConnected());
        ASSERT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 0; }));
    }
    ExpectUsable();
}

TEST_F(LifecycleRaceTest, CloseConnectInsideTheCallbackAgainstInit) {
    // Init joins the dispatcher while the dispatcher wants to close.
    std::atomic<int> calls{0};
    s_OnNotify = [&](int, int, int) {
        m_Stub->CloseConnect();
        ++calls;
    };
    m_Stub->SetScrRcvNotifyCB(Notified);
    for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(0, m_Stub->Init(Host(), false));
        ASSERT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 1; }));
        const int before = calls;
        m_Receiver->Notify(1, 2, 3);
        Together({[&] {
            usleep(static_cast<useconds_t>(round * 500));
            m_Stub->Init(Host(), false);
        }});
        // The event was either delivered or dropped with its connection.
        EXPECT_LE(calls, before + 1);
        EXPECT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() <= 1; }));
    }
    m_Stub->SetScrRcvNotifyCB(nullptr);
    ExpectUsable();
}

TEST_F(LifecycleRaceTest, ReConnectOnALiveConnectionReplacesIt) {
    ASSERT_EQ(0, m_Stub->Init(Host(), false));
    ASSERT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 1; }));
    const int threads = Threads();
    const int descriptors = Descriptors();
    for (int round = 0; round < kRounds / 2; ++round)
        ASSERT_EQ(0, m_Stub->ReConnect());
    EXPECT_EQ(threads, Threads());
    EXPECT_TRUE(WaitFor([&] {
        return m_Receiver->ClientCount() == 1 && Descriptors() <= descriptors;
    })) << m_Receiver->ClientCount()
        << " clients; " << Descriptors() << " descriptors, were " << descriptors;
    std::vector<ScreenSenderInfo> senders;
    EXPECT_EQ(0, m_Stub->GetSenderList(senders));
    EXPECT_EQ(3u, senders.size());
}

TEST_F(LifecycleRaceTest, DestroyedWhileEventsStreamIn) {
    s_OnNotify = [](int, int, int) {};
    for (int round = 0; round < kRounds / 2; ++round) {
        ScreenReceiverStub stub;
        stub.SetScrRcvNotifyCB(Notified);
        ASSERT_EQ(0, stub.Init(Host(), false));
        for (int i = 0; i < 200; ++i)
            m_Receiver->Notify(i, 0, 0);
    }
    EXPECT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 0; }));
}

TEST_F(LifecycleRaceTest, DestroyedWhileTheReceiverCloses) {
    for (int round = 0; round < kRounds; ++round) {
        ScreenReceiverStub stub;
        ASSERT_EQ(0, stub.Init(Host(), false));
        m_Receiver->DropClients();
        usleep(static_cast<useconds_t>(round * 700));
    }
    EXPECT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 0; }));
}

/// A client whose close thread can be held back.
class SlowCloser : public ScreenReceiverStub {
public:
    ~SlowCloser() override {
        mayClose.Raise();
        EndThreads();
    }
    void OnConnectClose() override {
        closing.Raise();
        mayClose.Wait();
        ScreenReceiverStub::OnConnectClose();
        ++closed;
    }

    Flag closing;
    Flag mayClose;
    std::atomic<int> closed{0};
};

TEST_F(LifecycleRaceTest, LateCloseThreadLeavesTheNextConnectionAlone) {
    SlowCloser stub;
    ASSERT_EQ(0, stub.Init(Host(), false));
    ASSERT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 1; }));
    m_Receiver->DropClients();
    ASSERT_TRUE(stub.closing.Wait());
    ASSERT_EQ(0, stub.Init(Host(), false));
    const int sock = stub.GetSocket();
    stub.mayClose.Raise();
    ASSERT_TRUE(WaitFor([&] { return stub.closed == 1; }));
    EXPECT_EQ(sock, stub.GetSocket());
    std::vector<ScreenSenderInfo> senders;
    EXPECT_EQ(0, stub.GetSenderList(senders));
    EXPECT_EQ(3u, senders.size());
}

TEST_F(LifecycleRaceTest, CloseConnectWhileTheNextLinkEndsBehindALateCloseThread) {
    // The second connection's network thread has to dispose of the first one's close thread, which
    // is held back, when it is itself joined.
    SlowCloser stub;
    ASSERT_EQ(0, stub.Init(Host(), false));
    ASSERT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 1; }));
    m_Receiver->DropClients();
    ASSERT_TRUE(stub.closing.Wait());
    ASSERT_EQ(0, stub.Init(Host(), false));
    ASSERT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 1; }));
    m_Receiver->DropClients();
    ASSERT_TRUE(WaitFor([&] { return stub.GetErrorCode() == -6528002; }));
    EXPECT_EQ(0, stub.CloseConnect());
    EXPECT_FALSE(stub.IsConnected());
}

/// Opens the connection again when it has ended by itself.
class SelfHealing : public ScreenReceiverStub {
public:
    ~SelfHealing() override { EndThreads(); }
    void OnConnectClose() override {
        if (ReConnect() == 0)
            ++healed;
    }

    std::atomic<int> healed{0};
};

TEST_F(LifecycleRaceTest, OnConnectCloseMayReConnect) {
    SelfHealing stub;
    ASSERT_EQ(0, stub.Init(Host(), false));
    for (int round = 0; round < 10; ++round) {
        ASSERT_TRUE(WaitFor([&] { return m_Receiver->ClientCount() == 1; }));
        m_Receiver->DropClients();
        ASSERT_TRUE(WaitFor([&] { return stub.healed == round + 1; }));
    }
    std::vector<ScreenSenderInfo> senders;
    EXPECT_EQ(0, stub.GetSenderList(senders));
    EXPECT_EQ(3u, senders.size());
}

/// Calls CloseConnect where only the network thread is.
class ClosesOnItself : public ScreenReceiverStub {
public:
    ~ClosesOnItself() override { EndThreads(); }
    void OnPeerAlive() override { result = CloseConnect(); }

    std::atomic<int> result{0};
};

TEST_F(LifecycleRaceTest, CloseConnectOnTheNetworkThreadIsRefused) {
    ClosesOnItself stub;
    ASSERT_EQ(0, stub.Init(Host(), false));
    ASSERT_TRUE(WaitFor([this] { return m_Receiver->ClientCount() == 1; }));
    m_Receiver->Notify(1, 2, 3);
    EXPECT_TRUE(WaitFor([&] { return stub.result == kErrReentered; }));
    EXPECT_TRUE(stub.IsConnected());
}

TEST_F(LifecycleRaceTest, RequestInACallbackEndsWhenInitWaitsForTheCallback) {
    // The peer never answers: only the replaced connection can end the callback's request.
    ScriptedPeer silent;
    Flag inside;
    std::atomic<int> result{0};
    s_OnNotify = [&](int, int, int) {
        inside.Raise();
        result = m_Stub->QuitConfCtrl();
    };
    m_Stub->SetScrRcvNotifyCB(Notified);
    ASSERT_EQ(0, m_Stub->Init(silent.Host(), false));
    ASSERT_TRUE(silent.Accept());
    silent.Send(Hex("52 65 63 76 49 50 43 24 00000001 00000002 00000003"));
    ASSERT_TRUE(inside.Wait());
    ASSERT_EQ(40u, silent.Receive(40).size());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, m_Stub->Init(Host(), false));
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(8000));
    EXPECT_LT(result, 0);
    m_Stub->SetScrRcvNotifyCB(nullptr);
    ExpectUsable();
}

}  // namespace
}  // namespace sr_test
