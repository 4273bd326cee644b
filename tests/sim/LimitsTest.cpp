#include <malloc.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "FaultFixture.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Not every compiler comes with the header that declares it.
extern "C" size_t __sanitizer_get_current_allocated_bytes();  // NOLINT
#endif

namespace {

using namespace sim_test;
using simulator::ClientChange;

constexpr size_t kFullList = kListHeadSize + 65535u * 128u;

// Bytes that the process has allocated and not freed.
size_t AllocatedBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return __sanitizer_get_current_allocated_bytes();
#else
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}

class LimitsTest : public SimulatorFixture {
protected:
    LimitsTest() {
        m_Options.records = RecordSize::Long;
        m_Observer.client = [this](uint64_t client, ClientChange change, const std::string&) {
            if (change == ClientChange::BacklogDropped)
                m_nDroppedClient = client;
        };
    }

    void StartFull() {
        Start();
        for (int32_t key = 1; key <= 65535; ++key) {
            Sender sender = MakeSender(key, "Ada");
            sender.address = 0xC0A80A14;
            sender.osType = 0x0102;
            m_pSim->AddSender(sender);
        }
    }

    void On(const Fault& fault) { ASSERT_TRUE(m_pSim->FaultOn(fault)); }

    bool WaitForDrop(uint64_t client) {
        return WaitFor([&] { return m_nDroppedClient == client; });
    }

    // Everything that the simulator has for a client that does not read is bounded by this.
    void ExpectDropped(RawClient& client, uint64_t number) {
        EXPECT_TRUE(WaitForDrop(number));
        EXPECT_TRUE(client.IsClosedByPeer());
        EXPECT_EQ(1u, m_pSim->GetStatistics().clientsDropped);
        EXPECT_EQ(1u, m_pSim->ClientCount());
        ExpectNothingQueued(*m_pClient);
    }

    static std::string Many(const std::string& frame, size_t count) {
        std::string frames;
        for (size_t i = 0; i < count; ++i)
            frames += frame;
        return frames;
    }

    std::atomic<uint64_t> m_nDroppedClient{0};
};

// --- Many clients ---

// The number of answers in a stream of notifications 0, 1, 2 ... and answers, or -1 when there is
// anything else in it.
int CountAnswers(const std::string& stream, unsigned notifications) {
    const std::string answer = Frame32("21");
    std::string notification = NotifyFrame("00 00 00 00 00 00 00 01 00 00 00 02");
    unsigned next = 0;
    int answers = 0;
    for (size_t at = 0; at < stream.size();) {
        notification[10] = static_cast<char>(next >> 8);
        notification[11] = static_cast<char>(next & 0xFFu);
        if (stream.compare(at, kNotifySize, notification) == 0) {
            at += kNotifySize;
            ++next;
        } else if (stream.compare(at, kFrameSize, answer) == 0) {
            at += kFrameSize;
            ++answers;
        } else {
            return -1;
        }
    }
    return next == notifications ? answers : -1;
}

TEST_F(LimitsTest, TwoHundredClientsGetEveryAnswerAndEveryNotification) {
    constexpr unsigned kNotes = 500;
    constexpr size_t kRequests = 20;
    Start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 200; ++i)
        clients.push_back(Connect());
    std::thread notifier([this] {
        for (unsigned i = 0; i < kNotes; ++i)
            m_pSim->Notify(static_cast<int32_t>(i), 1, 2);
    });
    for (size_t round = 0; round < kRequests; ++round) {
        for (const auto& client : clients)
            EXPECT_TRUE(client->Send(Frame32("20", "01")));
    }
    notifier.join();
    for (const auto& client : clients) {
        const std::string stream = client->Receive(kNotes * kNotifySize + kRequests * kFrameSize);
        EXPECT_EQ(static_cast<int>(kRequests), CountAnswers(stream, kNotes));
    }
    EXPECT_EQ(200u, m_pSim->ClientCount());
    EXPECT_EQ(200u * (kNotes + kRequests), m_pSim->GetStatistics().framesSent);
    EXPECT_EQ(0u, m_pSim->GetStatistics().clientsDropped);
}

TEST_F(LimitsTest, TwoHundredClientsAreFlooded) {
    Start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 200; ++i)
        clients.push_back(Connect());
    Fault flood = MakeFault(FaultKind::Flood, kEveryAnswer, 200);
    flood.rate = 1000;
    On(flood);
    for (const auto& client : clients) {
        const std::string all = client->Receive(200 * kNotifySize);
        EXPECT_EQ(NotifyFrame("00 00 00 09 00 00 00 C8 00 00 00 00"),
                  all.substr(199 * kNotifySize));
    }
}

// --- Long lists ---

TEST_F(LimitsTest, FullListGoesToSeveralClientsAtOnce) {
    StartFull();
    std::vector<std::thread> readers;
    std::atomic<int> good{0};
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([this, &good] {
            RawClient client(m_Options.address, m_pSim->Port());
            const std::string list = Ask(client, Frame32("10", "01"), kFullList);
            const std::string last = Hex("00 00 FF FF C0 A8 0A 14 41 64 61") + Zeros(45) +
                                     Hex("00 01 80 01 02") + Zeros(67);
            const std::string first = Hex("00 00 00 01") + last.substr(4);
            EXPECT_EQ(kFullList, list.size());
            EXPECT_EQ(Frame32("11", "FF FF 01"), list.substr(0, kListHeadSize));
            EXPECT_EQ(first, list.substr(kListHeadSize, 128));
            EXPECT_EQ(last, list.substr(kFullList - 128));
            EXPECT_EQ(Frame32("21"), Ask(client, Frame32("20", "01"), kFrameSize));
            ++good;
        });
    }
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(4, good);
    EXPECT_EQ(0u, m_pSim->GetStatistics().clientsDropped);
}

TEST_F(LimitsTest, FullListMayBeSpoilt) {
    StartFull();
    m_pClient = Connect();
    On(MakeFault(FaultKind::FalseCount, 16));
    On(MakeFault(FaultKind::OpenName, 16));
    On(GarbageFault(16, GarbagePlace::Inside, 10));
    On(CutFault(16, -1, CutEnd::Later));
    const std::string list = Ask(Frame32("10", "01"), kFullList + 10);
    ASSERT_EQ(kFullList + 10, list.size());
    EXPECT_EQ(Frame32("11", "FF FE 01"), list.substr(0, kListHeadSize));
    EXPECT_EQ(Hex("00 00 FF FF C0 A8 0A 14"), list.substr(kFullList + 10 - 128, 8));
    EXPECT_EQ(std::string::npos, list.substr(kFullList + 10 - 120, 48).find('\0'));
    m_pSim->FaultsOff();
    ExpectNothingQueued(*m_pClient);
}

TEST_F(LimitsTest, HalfOfAFullListArrivesBeforeAReset) {
    StartFull();
    On(CutFault(16, -1, CutEnd::Reset));
    for (int i = 0; i < 3; ++i) {
        RawClient client(m_Options.address, m_pSim->Port());
        ASSERT_TRUE(client.Send(Frame32("10", "01")));
        std::string list;
        EXPECT_EQ(Ending::Reset, client.ReceiveToEnd(list));
        EXPECT_EQ(4194260u, list.size());
    }
}

TEST_F(LimitsTest, SlowClientThatSendsNoMoreGetsAllUpToAReset) {
    StartFull();
    On(CutFault(16, 700000, CutEnd::Reset));
    const auto slow = Connect(4096);
    ASSERT_TRUE(slow->Send(Frame32("10", "01")));
    slow->EndSending();
    // It has been given up, with most of its bytes still in the system.
    ASSERT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 0; }));
    std::string list;
    EXPECT_EQ(Ending::Reset, slow->ReceiveToEnd(list));
    EXPECT_EQ(700000u, list.size());
}

TEST_F(LimitsTest, SlowClientOfManyRequestsGetsAllUpToAReset) {
    Start();
    for (int32_t key = 1; key <= 6000; ++key)
        m_pSim->AddSender(MakeSender(key));
    On(CutFault(32, 0, CutEnd::Reset));
    const auto slow = Connect(4096);
    std::string requests = Frame32("10", "01");
    for (int i = 0; i < 500; ++i)
        requests += Frame32("20", "01");
    ASSERT_TRUE(slow->Send(requests));
    ASSERT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 0; }));
    std::string list;
    EXPECT_EQ(Ending::Reset, slow->ReceiveToEnd(list));
    EXPECT_EQ(kListHeadSize + 6000u * 128, list.size());
}

TEST_F(LimitsTest, DroppedClientThatSendsNoMoreStillGetsItsList) {
    StartFull();
    const auto dropped = Connect(4096);
    m_pClient = Connect();
    ASSERT_TRUE(dropped->Send(Frame32("10", "01")));
    dropped->EndSending();
    ASSERT_TRUE(WaitFor([this] { return m_pSim->GetStatistics().framesSent == 1; }));
    // Its end has been read when this is answered.
    ExpectNothingQueued(*m_pClient);
    m_pSim->DropClients();
    std::string list;
    EXPECT_EQ(Ending::Closed, dropped->ReceiveToEnd(list));
    EXPECT_EQ(kFullList, list.size());
}

// --- Floods ---

TEST_F(LimitsTest, HundredThousandNotificationsASecondArriveInOrder) {
    Start();
    m_pClient = Connect();
    Fault flood = MakeFault(FaultKind::Flood, kEveryAnswer, 100000);
    flood.rate = 100000;
    On(flood);
    std::string expected = NotifyFrame("00 00 00 09 00 00 00 00 00 00 00 00");
    const std::string all = m_pClient->Receive(100000 * kNotifySize);
    ASSERT_EQ(100000 * kNotifySize, all.size());
    size_t wrong = 0;
    for (unsigned i = 0; i < 100000; ++i) {
        const unsigned number = i + 1;
        expected[13] = static_cast<char>(number >> 16);
        expected[14] = static_cast<char>(number >> 8 & 0xFFu);
        expected[15] = static_cast<char>(number & 0xFFu);
        wrong += all.compare(i * kNotifySize, kNotifySize, expected) == 0 ? 0 : 1;
    }
    EXPECT_EQ(0u, wrong);
    EXPECT_EQ(0u, m_pSim->GetStatistics().clientsDropped);
    ExpectNothingQueued(*m_pClient);
}

// --- Clients that do not read ---

TEST_F(LimitsTest, DeafClientIsDroppedUnderAFloodAndTheOthersGoOn) {
    m_Options.maxBacklog = 64 * 1024;
    Start();
    const auto deaf = Connect(4096);
    m_pClient = Connect();
    Fault flood = MakeFault(FaultKind::Flood);
    flood.rate = 200000;
    On(flood);
    unsigned number = 0;
    while (m_nDroppedClient == 0 && number < 10000000) {
        const std::string batch = m_pClient->Receive(1000 * kNotifySize);
        ASSERT_EQ(1000 * kNotifySize, batch.size());
        number += 1000;
    }
    EXPECT_EQ(1u, m_nDroppedClient);
    EXPECT_EQ(1u, m_pSim->GetStatistics().clientsDropped);
    EXPECT_EQ(1u, m_pSim->ClientCount());
    m_pSim->FaultsOff();
    EXPECT_TRUE(deaf->IsClosedByPeer());
}

TEST_F(LimitsTest, DeafRequesterOfFullListsIsDroppedAfterAFew) {
    StartFull();
    const auto deaf = Connect(4096);
    m_pClient = Connect();
    const size_t before = AllocatedBytes();
    deaf->SendNow(Many(Frame32("10", "01"), 200));
    EXPECT_TRUE(WaitForDrop(1));
    // Two are more than the backlog; the rest are in the system's buffers.
    EXPECT_LE(m_pSim->GetStatistics().framesSent, 6u);
    ExpectDropped(*deaf, 1);
    EXPECT_LT(AllocatedBytes(), before + kFullList);
}

TEST_F(LimitsTest, WhatWaitsForAClientGoesWithIt) {
    StartFull();
    m_pClient = Connect();
    // Lists may be kept for the next request.
    for (const char* request : {"10", "1A", "1C"})
        Ask(Frame32(request, "01"), kFullList);
    On(DelayFault(16, kHour));
    On(TrickleFault(26, 1, kHour));
    On(CutFault(28, 5, CutEnd::Later, kHour));
    const size_t before = AllocatedBytes();
    for (const char* request : {"10", "1A", "1C"}) {
        for (uint64_t i = 1; i <= 5; ++i) {
            RawClient client(m_Options.address, m_pSim->Port());
            ASSERT_TRUE(client.Send(Frame32(request, "01")));
            ASSERT_TRUE(WaitFor([&] {
                return m_pSim->FramesReceived(static_cast<uint8_t>(Hex(request)[0])) == i + 1;
            }));
            client.Reset();
            ASSERT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 1; }));
        }
        ExpectNothingQueued(*m_pClient);
        EXPECT_LT(AllocatedBytes(), before + kFullList) << request;
    }
}

class HeldBackTest : public LimitsTest {
protected:
    // Hundred and some kilobytes each.
    void AskForListsUnderFault(const Fault& fault, size_t count) {
        m_Options.maxBacklog = 256 * 1024;
        Start();
        for (int32_t key = 1; key <= 1000; ++key)
            m_pSim->AddSender(MakeSender(key));
        m_pReader = Connect();
        m_pClient = Connect();
        On(fault);
        ASSERT_TRUE(m_pReader->Send(Many(Frame32("10", "01"), count)));
    }

    std::unique_ptr<RawClient> m_pReader;
};

TEST_F(HeldBackTest, DelayedFramesAreBacklog) {
    AskForListsUnderFault(DelayFault(16, kHour), 8);
    ExpectDropped(*m_pReader, 1);
    EXPECT_LE(m_pSim->GetStatistics().framesSent, 4u);
}

TEST_F(HeldBackTest, FramesBehindATrickleAreBacklog) {
    AskForListsUnderFault(TrickleFault(16, 1, kHour), 8);
    ExpectDropped(*m_pReader, 1);
}

TEST_F(HeldBackTest, FramesBehindACutAreBacklog) {
    AskForListsUnderFault(CutFault(16, 10, CutEnd::Later, kHour), 8);
    ExpectDropped(*m_pReader, 1);
}

TEST_F(HeldBackTest, NotificationsBehindACutAreBacklog) {
    AskForListsUnderFault(CutFault(16, 10, CutEnd::Later, kHour), 1);
    EXPECT_EQ(10u, m_pReader->Receive(10).size());
    Fault flood = MakeFault(FaultKind::Flood, kEveryAnswer, 20000);
    flood.rate = 1000000;
    On(flood);
    EXPECT_TRUE(WaitForDrop(1));
    EXPECT_EQ(20000 * kNotifySize, m_pClient->Receive(20000 * kNotifySize).size());
    ExpectDropped(*m_pReader, 1);
}

TEST_F(HeldBackTest, DelayedFramesWithinTheBacklogAreDelivered) {
    AskForListsUnderFault(DelayFault(16, milliseconds(50)), 2);
    EXPECT_EQ(2 * (kListHeadSize + 1000 * 128),
              m_pReader->Receive(2 * (kListHeadSize + 1000 * 128)).size());
    EXPECT_EQ(0u, m_nDroppedClient);
}

TEST_F(HeldBackTest, BacklogThatHasBeenDeliveredIsForgotten) {
    AskForListsUnderFault(TrickleFault(16, 20000, milliseconds(1)), 2);
    const size_t list = kListHeadSize + 1000 * 128;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(2 * list, m_pReader->Receive(2 * list).size());
        ASSERT_TRUE(m_pReader->Send(Many(Frame32("10", "01"), 2)));
    }
    EXPECT_EQ(2 * list, m_pReader->Receive(2 * list).size());
    EXPECT_EQ(0u, m_nDroppedClient);
}

TEST_F(HeldBackTest, WhatFramesCostIsBacklogHoweverSmallTheyAre) {
    m_Options.maxBacklog = size_t{1024} * 1024;
    Start();
    Fault flood = MakeFault(FaultKind::Flood, kEveryAnswer, 10000);
    flood.rate = 1000000;
    for (uint64_t number = 1; number <= 2; ++number) {
        m_pReader = Connect();
        On(DelayFault(kNotifications, kHour));
        if (number == 2)
            On(CutFault(kNotifications, 0, CutEnd::Close));
        const uint64_t before = m_pSim->GetStatistics().framesSent;
        On(flood);
        EXPECT_TRUE(WaitForDrop(number));
        EXPECT_TRUE(m_pReader->IsClosedByPeer());
        EXPECT_LT(m_pSim->GetStatistics().framesSent, before + 10000);
        m_pSim->FaultsOff();
    }
}

TEST_F(LimitsTest, UnreadClientIsDroppedForItsNotifications) {
    m_Options.maxBacklog = 64 * 1024;
    Start();
    On(MakeFault(FaultKind::NeverRead, kEveryAnswer, 1));
    const auto deaf = Connect(4096);
    m_pClient = Connect();
    Fault flood = MakeFault(FaultKind::Flood);
    flood.rate = 200000;
    On(flood);
    while (m_nDroppedClient == 0)
        ASSERT_EQ(1000 * kNotifySize, m_pClient->Receive(1000 * kNotifySize).size());
    EXPECT_EQ(1u, m_nDroppedClient);
    m_pSim->FaultsOff();
}

// --- Bad input ---

TEST_F(LimitsTest, BadInputOfSomeClientsNeverStopsServingAnother) {
    Start();
    m_pClient = Connect();
    std::string unknown;
    for (unsigned code = 35; code < 256; ++code)
        unknown += Hex("52 65 63 76 49 50 43") + static_cast<char>(code);
    const std::vector<std::string> inputs = {
        std::string(20000, '\0'),
        Many("RecvIP", 4000),
        Many("RecvIPC", 4000),
        Many(unknown, 10),
        Many(Frame32("12", "00 00 00 63").substr(0, 25), 800),
    };
    std::atomic<size_t> done{0};
    std::vector<std::thread> attackers;
    for (const std::string& input : inputs) {
        attackers.emplace_back([this, &done, input] {
            for (int i = 0; i < 20; ++i) {
                RawClient client(m_Options.address, m_pSim->Port());
                for (int part = 0; part < 4; ++part) {
                    client.SendNow(input);
                    client.IsAnythingComing(milliseconds(5));
                }
            }
            ++done;
        });
    }
    while (done < inputs.size()) {
        EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
        m_pSim->Notify(1, 2, 3);
        EXPECT_EQ(NotifyFrame("00 00 00 01 00 00 00 02 00 00 00 03"),
                  m_pClient->Receive(kNotifySize));
    }
    for (std::thread& attacker : attackers)
        attacker.join();
    EXPECT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 1; }));
    EXPECT_GT(m_pSim->GetStatistics().garbageBytes, 100000u);
    EXPECT_GT(m_pSim->GetStatistics().unknownCommands, 1000u);
    ExpectNothingQueued(*m_pClient);
}

TEST_F(LimitsTest, ManyRequestsOfOneClientDoNotHoldUpAnother) {
    constexpr size_t kCount = 300;
    std::atomic<bool> held{false};
    std::atomic<bool> go{false};
    std::atomic<size_t> served{0};       // of the first client
    std::atomic<size_t> servedFirst{0};  // when the other one was served
    m_Observer.frame = [&](const simulator::Frame& frame) {
        if (!frame.incoming)
            return;
        if (frame.client == 2)
            servedFirst = served.load();
        else if (served++ == 0) {
            held = true;
            EXPECT_TRUE(WaitFor([&] { return go.load(); }));
        }
    };
    StartAndConnect();
    const auto other = Connect();
    ASSERT_TRUE(m_pClient->Send(Many(Frame32("20", "01"), kCount)));
    ASSERT_TRUE(WaitFor([&] { return held.load(); }));
    ASSERT_TRUE(other->Send(Frame32("22")));
    go = true;
    EXPECT_EQ(Frame32("23"), other->Receive(kFrameSize));
    EXPECT_EQ(kCount * kFrameSize, m_pClient->Receive(kCount * kFrameSize).size());
    EXPECT_GT(servedFirst, 0u);
    EXPECT_LT(servedFirst, kCount);
}

TEST_F(LimitsTest, TenThousandRequestsAtOnceFromEachOfSeveralClients) {
    constexpr size_t kCount = 10000;
    Start();
    m_pClient = Connect();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this] {
            RawClient client(m_Options.address, m_pSim->Port());
            std::thread writer(
                [&client] { EXPECT_TRUE(client.Send(Many(Frame32("20", "01"), kCount))); });
            EXPECT_TRUE(Many(Frame32("21"), kCount) == client.Receive(kCount * kFrameSize));
            writer.join();
        });
    }
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(Frame32("11", "00 00 01"), Ask(Frame32("10", "01")));
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(4 * kCount, m_pSim->FramesReceived(0x20));
}

}  // namespace
