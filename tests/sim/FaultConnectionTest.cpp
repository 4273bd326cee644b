#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FaultFixture.h"

namespace {

using namespace sim_test;
using simulator::ClientChange;

class FaultConnectionTest : public FaultFixture {
protected:
    FaultConnectionTest() {
        m_Observer.client = [this](uint64_t client, ClientChange change, const std::string&) {
            std::lock_guard<std::mutex> lock(m_ChangesMutex);
            m_Changes.emplace_back(client, change);
        };
    }

    std::unique_ptr<RawClient> Knock() {
        auto client = std::make_unique<RawClient>(m_Options.address, m_pSim->Port());
        EXPECT_TRUE(client->IsConnected());
        return client;
    }

    bool WaitForChange(uint64_t client, ClientChange change) {
        return WaitFor([&] {
            std::lock_guard<std::mutex> lock(m_ChangesMutex);
            for (const auto& entry : m_Changes) {
                if (entry == std::pair(client, change))
                    return true;
            }
            return false;
        });
    }

    bool WaitForClientsOf(uint64_t count) {
        return WaitFor([&] { return m_pSim->GetStatistics().clients == count; });
    }

private:
    std::mutex m_ChangesMutex;
    std::vector<std::pair<uint64_t, ClientChange>> m_Changes;
};

// --- Close on accept ---

TEST_F(FaultConnectionTest, CloseOnAcceptClosesNewConnectionsOnly) {
    StartAndConnect();
    On(MakeFault(FaultKind::CloseOnAccept));
    for (int i = 0; i < 5; ++i) {
        std::string bytes;
        EXPECT_EQ(Ending::Closed, Knock()->ReceiveToEnd(bytes));
        EXPECT_EQ("", bytes);
    }
    ExpectServed();
    EXPECT_EQ(1u, m_pSim->ClientCount());
    EXPECT_EQ(6u, m_pSim->GetStatistics().clients);
    EXPECT_EQ(5u, m_pSim->GetStatistics().faultsDone);
    EXPECT_EQ(0u, m_pSim->GetStatistics().clientsDropped);
    EXPECT_TRUE(WaitForChange(6, ClientChange::Faulted));
    Off(FaultKind::CloseOnAccept);
    m_pClient = Connect();
    ExpectServed();
}

TEST_F(FaultConnectionTest, CloseOnAcceptIsNoResetWhenTheClientHasSent) {
    Start();
    On(MakeFault(FaultKind::CloseOnAccept));
    for (int i = 0; i < 30; ++i) {
        const auto client = Knock();
        client->SendNow(Frame32("20", "01"));
        std::string bytes;
        ASSERT_EQ(Ending::Closed, client->ReceiveToEnd(bytes));
        ASSERT_EQ("", bytes);
    }
    EXPECT_EQ(0u, m_pSim->FramesReceived(0x20));
}

TEST_F(FaultConnectionTest, CloseOnAcceptCountsConnections) {
    Start();
    On(MakeFault(FaultKind::CloseOnAccept, kEveryAnswer, 2));
    EXPECT_TRUE(Knock()->IsClosedByPeer());
    ASSERT_EQ(1u, m_pSim->Faults().size());
    EXPECT_EQ(1u, m_pSim->Faults().at(0).count);
    EXPECT_TRUE(Knock()->IsClosedByPeer());
    m_pClient = Knock();
    ExpectServed();
    EXPECT_TRUE(m_pSim->Faults().empty());
}

TEST_F(FaultConnectionTest, CloseOnAcceptOfAShareOfTheConnections) {
    Start();
    Fault fault = MakeFault(FaultKind::CloseOnAccept);
    fault.percent = 50;
    On(fault);
    int closed = 0;
    for (int i = 0; i < 60; ++i) {
        const auto client = Knock();
        client->SendNow(Frame32("20", "01"));
        closed += client->Receive(kFrameSize).empty() ? 1 : 0;
    }
    EXPECT_GE(closed, 10);
    EXPECT_LE(closed, 50);
}

// --- Never read ---

TEST_F(FaultConnectionTest, NeverReadAcceptsAndDoesNotRead) {
    StartAndConnect();
    On(MakeFault(FaultKind::NeverRead));
    const auto unread = Connect();
    ASSERT_TRUE(unread->Send(Frame32("20", "01")));
    ExpectServed();
    EXPECT_FALSE(unread->IsAnythingComing(kWhile));
    EXPECT_EQ(0u, m_pSim->FramesReceived(0x20));
    EXPECT_EQ(kFrameSize, m_pSim->GetStatistics().bytesReceived);
    EXPECT_EQ(1u, m_pSim->GetStatistics().faultsDone);
    Off(FaultKind::NeverRead);
    EXPECT_EQ(Frame32("21"), unread->Receive(kFrameSize));
    ExpectServed(*unread);
}

TEST_F(FaultConnectionTest, ClientThatIsNotReadIsStillNotified) {
    Start();
    On(MakeFault(FaultKind::NeverRead));
    m_pClient = Connect();
    ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
    Notify();
    EXPECT_EQ(m_strNotify, m_pClient->Receive(kNotifySize));
    m_pSim->FaultsOff();
    EXPECT_EQ(Frame32("21"), m_pClient->Receive(kFrameSize));
}

TEST_F(FaultConnectionTest, ClientThatIsNotReadMayFillItsBuffersAndIsServedInFullLater) {
    Start();
    On(MakeFault(FaultKind::NeverRead));
    m_pClient = Connect();
    std::string requests;
    constexpr size_t kCount = 1000;
    for (size_t i = 0; i < kCount; ++i)
        requests += Frame32("20", "01");
    ASSERT_TRUE(m_pClient->Send(requests));
    Off(FaultKind::NeverRead);
    EXPECT_EQ(kCount * kFrameSize, m_pClient->Receive(kCount * kFrameSize).size());
    EXPECT_EQ(kCount, m_pSim->FramesReceived(0x20));
}

TEST_F(FaultConnectionTest, NeverReadCountsConnections) {
    Start();
    On(MakeFault(FaultKind::NeverRead, kEveryAnswer, 1));
    const auto unread = Connect();
    ASSERT_TRUE(unread->Send(Frame32("20", "01")));
    m_pClient = Connect();
    ExpectServed();
    EXPECT_FALSE(unread->IsAnythingComing(kWhile));
    EXPECT_EQ(1u, m_pSim->GetStatistics().faultsDone);
    // Its count is used up; the connection that it took waits all the same.
    EXPECT_TRUE(m_pSim->FaultOff(FaultKind::NeverRead));
    EXPECT_EQ(Frame32("21"), unread->Receive(kFrameSize));
    EXPECT_FALSE(m_pSim->FaultOff(FaultKind::NeverRead));
}

TEST_F(FaultConnectionTest, NoConnectionStaysUnreadWhenTheFaultEndsAsItComes) {
    Start();
    // Others who want what the end of the fault needs make it take its time.
    std::atomic<bool> done{false};
    std::thread looker([&] {
        while (!done)
            m_pSim->Faults();
    });
    size_t served = 0;
    for (int round = 0; round < 200 && served == size_t{5} * static_cast<size_t>(round); ++round) {
        On(MakeFault(FaultKind::NeverRead));
        std::atomic<bool> knocking{false};
        std::vector<std::unique_ptr<RawClient>> clients;
        std::thread knocker([&] {
            for (int i = 0; i < 5; ++i) {
                clients.push_back(Knock());
                knocking = true;
            }
        });
        while (!knocking)
            std::this_thread::yield();
        Off(FaultKind::NeverRead);
        knocker.join();
        for (const auto& client : clients)
            served += Ask(*client, Frame32("22"), kFrameSize) == Frame32("23") ? 1 : 0;
    }
    done = true;
    looker.join();
    EXPECT_EQ(1000u, served);
}

TEST_F(FaultConnectionTest, ClientsThatAreNotReadAndCloseDoNotPileUp) {
    StartAndConnect();
    On(MakeFault(FaultKind::NeverRead));
    for (int i = 0; i < 60; ++i) {
        const auto client = Knock();
        if (i % 3 != 0)
            client->SendNow(Frame32("20", "01"));
        ASSERT_TRUE(WaitForClientsOf(static_cast<uint64_t>(i) + 2));
        if (i % 3 == 2)
            client->Reset();
    }
    EXPECT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 1; }));
    EXPECT_TRUE(WaitForChange(2, ClientChange::Left));
    EXPECT_TRUE(WaitForChange(61, ClientChange::Left));
    EXPECT_EQ(0u, m_pSim->FramesReceived(0x20));
    ExpectServed();
}

TEST_F(FaultConnectionTest, ClientThatIsNotReadMayBeDroppedAndStopped) {
    Start();
    On(MakeFault(FaultKind::NeverRead));
    const auto dropped = Connect();
    ASSERT_TRUE(dropped->Send(Frame32("20", "01")));
    m_pSim->DropClients();
    EXPECT_TRUE(dropped->IsClosedByPeer());
    ASSERT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 0; }));
    const auto stopped = Connect();
    m_pSim->Stop();
    EXPECT_TRUE(stopped->IsClosedByPeer());
}

// --- Flood ---

class FloodTest : public FaultConnectionTest {
protected:
    static Fault Flood(uint32_t rate, uint64_t count = 0) {
        Fault fault = MakeFault(FaultKind::Flood, kEveryAnswer, count);
        fault.rate = rate;
        return fault;
    }

    static std::string Number(unsigned number) {
        std::string frame = NotifyFrame("00 00 00 09 00 00 00 00 00 00 00 00");
        frame[14] = static_cast<char>(number >> 8);
        frame[15] = static_cast<char>(number & 0xFFu);
        return frame;
    }
};

TEST_F(FloodTest, NotifiesAllClientsInOrderFromOne) {
    StartAndConnect();
    const auto second = Connect();
    On(Flood(2000, 500));
    for (RawClient* client : {m_pClient.get(), second.get()}) {
        for (unsigned i = 1; i <= 500; ++i)
            ASSERT_EQ(Number(i), client->Receive(kNotifySize));
        ExpectServed(*client);
    }
    EXPECT_TRUE(m_pSim->Faults().empty());
    EXPECT_EQ(500u, m_pSim->GetStatistics().faultsDone);
}

TEST_F(FloodTest, KeepsItsRate) {
    StartAndConnect();
    const Stopwatch watch;
    On(Flood(100, 31));
    const std::string all = m_pClient->Receive(31 * kNotifySize);
    EXPECT_GE(watch.Elapsed(), milliseconds(250));
    EXPECT_EQ(Number(31), all.substr(30 * kNotifySize));
}

TEST_F(FloodTest, SlowRateIsKeptToo) {
    StartAndConnect();
    const Stopwatch watch;
    On(Flood(10, 3));
    EXPECT_EQ(Number(1) + Number(2) + Number(3), m_pClient->Receive(3 * kNotifySize));
    EXPECT_GE(watch.Elapsed(), milliseconds(150));
}

TEST_F(FloodTest, GoesOnUntilItIsOff) {
    StartAndConnect();
    On(Flood(10000));
    for (unsigned i = 1; i <= 300; ++i)
        ASSERT_EQ(Number(i), m_pClient->Receive(kNotifySize));
    Off(FaultKind::Flood);
    ASSERT_TRUE(m_pClient->Send(Frame32("22")));
    unsigned number = 300;
    std::string head = m_pClient->Receive(8);
    while (head == "RecvIPC$") {
        ASSERT_EQ(Number(++number).substr(8), m_pClient->Receive(12));
        head = m_pClient->Receive(8);
    }
    EXPECT_EQ(Frame32("23"), head + m_pClient->Receive(32));
    EXPECT_FALSE(m_pClient->IsAnythingComing(kWhile));
}

TEST_F(FloodTest, RequestsAreServedMeanwhile) {
    StartAndConnect();
    const auto silent = Connect();
    On(Flood(20000));
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
        std::string head = m_pClient->Receive(8);
        while (head == "RecvIPC$") {
            m_pClient->Receive(12);
            head = m_pClient->Receive(8);
        }
        ASSERT_EQ(Frame32("21"), head + m_pClient->Receive(32));
    }
}

TEST_F(FloodTest, FaultsOfNotificationsSpoilTheFlood) {
    StartAndConnect();
    On(MakeFault(FaultKind::Twice, kNotifications, 1));
    On(Flood(1000, 2));
    EXPECT_EQ(Number(1) + Number(1) + Number(2), m_pClient->Receive(3 * kNotifySize));
    On(CutFault(kNotifications, 18, CutEnd::Close));
    On(Flood(1000));
    std::string bytes;
    EXPECT_EQ(Ending::Closed, m_pClient->ReceiveToEnd(bytes));
    EXPECT_EQ(Number(3).substr(0, 18), bytes);
}

// --- What cannot be kept up with ---

class StarvingTest : public FloodTest {
protected:
    StarvingTest() {
        m_Options.confTimeout = milliseconds(200);
        // The client is to be slow at times and stay.
        m_Options.maxBacklog = size_t{256} * 1024 * 1024;
    }

    /// Reads on until this has come; how many bytes that were.
    size_t ReadUpTo(const std::string& frame) {
        const Stopwatch watch;
        std::string bytes;
        for (size_t dropped = 0; watch.Elapsed() < kLimit;) {
            const std::string more = m_pClient->Receive(kFrameSize * 25);
            if (more.empty())
                break;
            bytes += more;
            const size_t at = bytes.find(frame);
            if (at != std::string::npos)
                return dropped + at;
            const size_t surplus = bytes.size() - std::min(bytes.size(), frame.size());
            bytes.erase(0, surplus);
            dropped += surplus;
        }
        ADD_FAILURE() << "it did not come";
        return SIZE_MAX;
    }

    /// Of the fault's frames there are less than this many bytes meanwhile.
    void ExpectOthersInTime(size_t most) {
        On(DelayFault(32, milliseconds(50)));
        ASSERT_TRUE(m_pClient->Send(Frame32("16")));
        ReadUpTo(NotifyFrame("00 00 00 07 00 00 00 01 00 00 00 01"));
        EXPECT_LT(ReadUpTo(NotifyFrame("00 00 00 07 00 00 00 02 00 00 00 01")), most);
        ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
        EXPECT_LT(ReadUpTo(Frame32("21")), most);
        m_pSim->FaultsOff();
    }
};

TEST_F(StarvingTest, UnaskedWithoutAPauseStarvesNothing) {
    StartAndConnect();
    Fault unasked = MakeFault(FaultKind::Unasked, 34);
    unasked.time = milliseconds(0);
    On(unasked);
    ExpectOthersInTime(SIZE_MAX);
}

TEST_F(StarvingTest, FloodThatCannotBeKeptUpWithStarvesNothing) {
    // Twenty times what there is time for.
    m_Observer.frame = [](const simulator::Frame& frame) {
        using Clock = std::chrono::steady_clock;
        const auto end = Clock::now() + std::chrono::microseconds(20);
        while (!frame.incoming && Clock::now() < end) {
        }
    };
    StartAndConnect();
    On(Flood(1000000));
    // Half of the notifications that belong into the time after which control expires.
    ExpectOthersInTime(100000 * kNotifySize);
}

// --- Stop ---

TEST_F(FaultConnectionTest, StopWaitsForNoFault) {
    Start();
    for (int32_t key = 1; key <= 1000; ++key)
        m_pSim->AddSender(MakeSender(key));
    Fault unasked = MakeFault(FaultKind::Unasked, 32);
    Fault flood = MakeFault(FaultKind::Flood);
    flood.rate = 100000;
    const std::vector<Fault> faults = {
        DelayFault(kEveryFrame, kHour),
        TrickleFault(kEveryFrame, 1, kHour),
        CutFault(kEveryFrame, 1, CutEnd::Later, kHour),
        MakeFault(FaultKind::NeverRead),
        unasked,
        flood,
    };
    for (const Fault& fault : faults) {
        const uint64_t before = m_pSim->GetStatistics().faultsDone;
        On(fault);
        m_pClient = Connect();
        ASSERT_TRUE(m_pClient->Send(Frame32("10", "01") + Frame32("20", "01")));
        ASSERT_TRUE(WaitForFaults(before + 1));
        Notify();
        const Stopwatch watch;
        m_pSim->Stop();
        EXPECT_LT(watch.Elapsed(), kLimit);
        EXPECT_TRUE(m_pClient->IsClosedByPeer());
        m_pSim->FaultsOff();
        ASSERT_FALSE(m_pSim->Start());
        m_pClient = Connect();
        EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
        m_pSim->DropClients();
        ASSERT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 0; }));
    }
}

TEST_F(FaultConnectionTest, WhatWasDelayedBeforeStopIsForgotten) {
    StartAndConnect();
    On(DelayFault(32, milliseconds(100)));
    ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
    ASSERT_TRUE(WaitForFaults(1));
    m_pSim->Stop();
    m_pSim->FaultsOff();
    ASSERT_FALSE(m_pSim->Start());
    m_pClient = Connect();
    EXPECT_FALSE(m_pClient->IsAnythingComing(milliseconds(200)));
    ExpectServed();
}

TEST_F(FaultConnectionTest, FaultsMayBeSetUpBeforeStartAndOutliveStop) {
    m_pSim = std::make_unique<simulator::ReceiverSimulator>(m_Options, m_Observer);
    On(MakeFault(FaultKind::Twice, 32));
    Fault flood = MakeFault(FaultKind::Flood);
    flood.rate = 1000;
    for (int i = 0; i < 2; ++i) {
        ASSERT_FALSE(m_pSim->Start());
        m_pClient = Connect();
        EXPECT_EQ(Frame32("21") + Frame32("21"), Ask(Frame32("20", "01"), 2 * kFrameSize));
        m_pSim->Stop();
        EXPECT_EQ(1u, m_pSim->Faults().size());
    }
    On(flood);
    for (int i = 0; i < 2; ++i) {
        ASSERT_FALSE(m_pSim->Start());
        m_pClient = Connect();
        EXPECT_EQ(NotifyFrame("00 00 00 09").substr(0, 12), m_pClient->Receive(12));
        m_pSim->Stop();
    }
}

TEST_F(FaultConnectionTest, DropClientsClosesThoseThatWaitForARest) {
    StartAndConnect();
    On(CutFault(32, 5, CutEnd::Later, kHour));
    EXPECT_EQ("RecvI", Ask(Frame32("20", "01"), 5));
    m_pSim->DropClients();
    EXPECT_TRUE(m_pClient->IsClosedByPeer());
    EXPECT_TRUE(WaitForChange(1, ClientChange::Closed));
}

TEST_F(FaultConnectionTest, StopWaitsForNoFaultThatAnObserverSwitchesOnMeanwhile) {
    std::atomic<bool> inside{false};
    std::atomic<bool> stopping{false};
    m_Observer.frame = [&](const simulator::Frame& frame) {
        if (!frame.incoming)
            return;
        Fault unasked = MakeFault(FaultKind::Unasked, 32);
        unasked.time = milliseconds(1);
        EXPECT_TRUE(m_pSim->FaultOn(MakeFault(FaultKind::Flood)));
        EXPECT_TRUE(m_pSim->FaultOn(unasked));
        inside = true;
        EXPECT_TRUE(WaitFor([&] { return stopping.load(); }));
    };
    StartAndConnect();
    ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
    ASSERT_TRUE(WaitFor([&] { return inside.load(); }));
    // While nothing is served there is room for so many only when the simulator is stopping.
    std::thread notifier([&] {
        for (int i = 0; i <= 4096; ++i)
            Notify();
        stopping = true;
    });
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        m_pSim->Stop();
        stopped = true;
    });
    EXPECT_TRUE(WaitFor([&] { return stopped.load(); }));
    m_pSim->FaultsOff();
    notifier.join();
    stopper.join();
    EXPECT_TRUE(m_pClient->IsClosedByPeer());
}

// --- Drop ---

TEST_F(FaultConnectionTest, DropClientsSendsWhatWasNotifiedBefore) {
    Start();
    for (int i = 0; i < 50; ++i) {
        m_pClient = Connect();
        Notify();
        m_pSim->Notify(4, 5, 6);
        Notify();
        m_pSim->DropClients();
        std::string bytes;
        ASSERT_EQ(Ending::Closed, m_pClient->ReceiveToEnd(bytes));
        ASSERT_EQ(m_strNotify + NotifyFrame("00 00 00 04 00 00 00 05 00 00 00 06") + m_strNotify,
                  bytes);
        ASSERT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 0; }));
    }
}

TEST_F(FaultConnectionTest, DroppedClientOfATrickleCountsNoLongerAndIsEnded) {
    StartAndConnect();
    On(TrickleFault(kNotifications, 1, kHour));
    Notify();
    EXPECT_EQ("R", m_pClient->Receive(1));
    m_pSim->DropClients();
    EXPECT_TRUE(WaitForChange(1, ClientChange::Closed));
    EXPECT_EQ(0u, m_pSim->ClientCount());
    const auto other = Connect();
    ExpectServed(*other);
    EXPECT_TRUE(m_pClient->IsClosedByPeer());
}

}  // namespace
