#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "SimulatorFixture.h"

namespace {

using namespace sim_test;

class ReceiverStreamTest : public SimulatorFixture {};

// --- The stream ---

TEST_F(ReceiverStreamTest, RequestSplitAtAnyByteIsAnswered) {
    StartAndConnect();
    const std::string request = Frame32("12", "00 00 00 63 01");
    for (size_t at = 1; at < request.size(); ++at) {
        ASSERT_TRUE(m_pClient->Send(request.substr(0, at)));
        const uint64_t arrived = (at - 1) * request.size() + at;
        ASSERT_TRUE(WaitFor([&] { return m_pSim->GetStatistics().bytesReceived == arrived; }));
        ASSERT_EQ(at - 1, m_pSim->FramesReceived(0x12));
        ASSERT_EQ(Frame32("13", "00 00 00 01"), Ask(request.substr(at))) << at;
    }
    ExpectNothingQueued(*m_pClient);
    EXPECT_EQ(request.size() - 1, m_pSim->FramesReceived(0x12));
    EXPECT_EQ(0u, m_pSim->GetStatistics().garbageBytes);
}

TEST_F(ReceiverStreamTest, RequestByteByByteIsAnswered) {
    StartAndConnect();
    for (const char byte : Frame32("20", "01"))
        ASSERT_TRUE(m_pClient->Send(std::string(1, byte)));
    EXPECT_EQ(Frame32("21"), m_pClient->Receive(kFrameSize));
}

TEST_F(ReceiverStreamTest, RequestsInOnePieceAreAnsweredInOrder) {
    StartAndConnect();
    EXPECT_EQ(
        Frame32("15", "00 00 00 01") + Frame32("11") + Frame32("21") + Frame32("1F", "00 00 00 01"),
        Ask(Frame32("14") + Frame32("10", "01") + Frame32("20", "01") + Frame32("1E"),
            4 * kFrameSize));
}

TEST_F(ReceiverStreamTest, GarbageBeforeARequestIsSkipped) {
    StartAndConnect();
    EXPECT_EQ(Frame32("21"), Ask(Hex("78 79 00 FF 0D 0A") + Frame32("20", "01")));
    EXPECT_EQ(6u, m_pSim->GetStatistics().garbageBytes);
}

TEST_F(ReceiverStreamTest, GarbageThatBeginsLikeAPrefixHidesNoRequest) {
    StartAndConnect();
    EXPECT_EQ(Frame32("21"), Ask("RecvIP" + Frame32("20", "01")));
    EXPECT_EQ(Frame32("21"), Ask("RecvRecvIRRecvIP" + Frame32("20", "01")));
    EXPECT_EQ(22u, m_pSim->GetStatistics().garbageBytes);
}

TEST_F(ReceiverStreamTest, GarbageInsideARequestCostsThatRequestOnly) {
    StartAndConnect();
    // Three stray bytes inside the first payload push its last three zero bytes out of the frame.
    const std::string disturbed = Frame32("20", "01").insert(20, "abc");
    EXPECT_EQ(Frame32("21") + Frame32("11"), Ask(disturbed + Frame32("10", "01"), 2 * kFrameSize));
    EXPECT_EQ(3u, m_pSim->GetStatistics().garbageBytes);
    // Inside the prefix they make the whole frame garbage.
    EXPECT_EQ(Frame32("11"), Ask(Frame32("20", "01").insert(3, "abc") + Frame32("10", "01")));
    EXPECT_EQ(3u + kFrameSize + 3u, m_pSim->GetStatistics().garbageBytes);
}

TEST_F(ReceiverStreamTest, UnknownCommandsAreIgnored) {
    StartAndConnect();
    std::string bytes;
    for (unsigned code = 0; code < 256; ++code) {
        const bool known = code >= 16 && code <= 34 && code % 2 == 0;
        if (!known)
            bytes += Hex("52 65 63 76 49 50 43") + static_cast<char>(code);
    }
    EXPECT_EQ(Frame32("21"), Ask(bytes + Frame32("20", "01")));
    EXPECT_EQ(246u, m_pSim->GetStatistics().unknownCommands);
    EXPECT_EQ(247u, m_pSim->GetStatistics().framesReceived);
    EXPECT_EQ(1u, m_pSim->FramesReceived(0x24));
    EXPECT_EQ(0u, m_pSim->GetStatistics().garbageBytes);
}

TEST_F(ReceiverStreamTest, PayloadOfAnUnknownCommandIsGarbage) {
    StartAndConnect();
    EXPECT_EQ(Frame32("21"), Ask(Frame32("63", "01 02 03") + Frame32("20", "01")));
    EXPECT_EQ(32u, m_pSim->GetStatistics().garbageBytes);
}

TEST_F(ReceiverStreamTest, ReservedBytesOfARequestAreIgnored) {
    StartAndConnect();
    const std::string request =
        Hex("52 65 63 76 49 50 43 14 00 00 00 63") + std::string(28, '\xFF');
    EXPECT_EQ(Frame32("15", "00 00 00 01"), Ask(request));
    ExpectNothingQueued(*m_pClient);
}

TEST_F(ReceiverStreamTest, HalfFrameKeepsNobodyWaitingAndIsForgottenWithItsClient) {
    StartAndConnect();
    auto half = Connect();
    ASSERT_TRUE(half->Send(Frame32("12", "00 00 00 63").substr(0, 25)));
    ASSERT_TRUE(WaitFor([this] { return m_pSim->GetStatistics().bytesReceived == 25; }));
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
    half.reset();
    EXPECT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 1; }));
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
    EXPECT_EQ(0u, m_pSim->FramesReceived(0x12));
}

TEST_F(ReceiverStreamTest, FloodsOfGarbageKeepNobodyWaiting) {
    StartAndConnect();
    std::atomic<bool> stop{false};
    std::vector<std::thread> flooders;
    for (int i = 0; i < 3; ++i) {
        flooders.emplace_back([this, &stop] {
            RawClient client(m_Options.address, m_pSim->Port());
            const std::string garbage(32768, 'R');
            while (!stop && client.Send(garbage)) {
            }
        });
    }
    EXPECT_TRUE(WaitFor([this] { return m_pSim->GetStatistics().garbageBytes > 100000; }));
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
    stop = true;
    for (std::thread& flooder : flooders)
        flooder.join();
}

TEST_F(ReceiverStreamTest, FloodOfRequestsIsAnsweredWhole) {
    StartAndConnect();
    constexpr size_t kCount = 20000;
    std::thread sender([this] {
        std::string requests;
        for (size_t i = 0; i < kCount; ++i)
            requests += Frame32("20", "01");
        EXPECT_TRUE(m_pClient->Send(requests));
    });
    const std::string answers = m_pClient->Receive(kCount * kFrameSize);
    sender.join();
    ASSERT_EQ(kCount * kFrameSize, answers.size());
    const std::string answer = Frame32("21");
    size_t wrong = 0;
    for (size_t i = 0; i < kCount; ++i)
        wrong += answers.compare(i * kFrameSize, kFrameSize, answer) == 0 ? 0 : 1;
    EXPECT_EQ(0u, wrong);
}

TEST_F(ReceiverStreamTest, ClientThatEndsItsSendingStillGetsItsAnswers) {
    m_Options.records = RecordSize::Long;
    Start();
    for (int32_t key = 1; key <= 65535; ++key)
        m_pSim->AddSender(MakeSender(key));
    m_pClient = Connect();
    ASSERT_TRUE(m_pClient->Send(Frame32("10", "01") + Frame32("20", "01")));
    m_pClient->EndSending();
    // More than the system's buffers hold while nobody reads: most of it waits when the end is
    // seen.
    ASSERT_TRUE(WaitFor([this] { return m_pSim->GetStatistics().framesSent == 2; }));
    const size_t listSize = kListHeadSize + 65535 * 128;
    const std::string answers = m_pClient->Receive(listSize + kFrameSize);
    ASSERT_EQ(listSize + kFrameSize, answers.size());
    EXPECT_EQ(Frame32("21"), answers.substr(listSize));
    EXPECT_TRUE(m_pClient->IsClosedByPeer());
}

// --- Clients ---

TEST_F(ReceiverStreamTest, ManyClientsAreServedAtOnce) {
    Start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 200; ++i) {
        clients.push_back(std::make_unique<RawClient>(m_Options.address, m_pSim->Port()));
        ASSERT_TRUE(clients.back()->Send(Frame32("20", "01")));
    }
    for (const auto& client : clients)
        EXPECT_EQ(Frame32("21"), client->Receive(kFrameSize));
    EXPECT_EQ(200u, m_pSim->ClientCount());
    m_pSim->Notify(9, 9, 9);
    for (const auto& client : clients)
        EXPECT_EQ(NotifyFrame("00 00 00 09 00 00 00 09 00 00 00 09"), client->Receive(kNotifySize));
    clients.clear();
    EXPECT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 0; }));
    EXPECT_EQ(200u, m_pSim->GetStatistics().clients);
    EXPECT_EQ(0u, m_pSim->GetStatistics().clientsDropped);
}

TEST_F(ReceiverStreamTest, ClientThatResetsItsConnectionIsForgotten) {
    StartAndConnect();
    const auto other = Connect();
    other->Send(Frame32("20", "01").substr(0, 11));
    other->Reset();
    EXPECT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 1; }));
    m_pSim->Notify(1, 1, 1);
    EXPECT_EQ(NotifyFrame("00 00 00 01 00 00 00 01 00 00 00 01"), m_pClient->Receive(kNotifySize));
}

class BacklogTest : public SimulatorFixture {
protected:
    BacklogTest() {
        m_Options.maxBacklog = 256 * 1024;
        m_Observer.client = [this](uint64_t id, simulator::ClientChange change,
                                   const std::string&) {
            if (change == simulator::ClientChange::BacklogDropped)
                m_nDroppedClient = id;
        };
    }

    std::atomic<uint64_t> m_nDroppedClient{0};
};

TEST_F(BacklogTest, ClientThatDoesNotReadItsNotificationsIsDropped) {
    Start();
    const auto deaf = Connect(4096);
    m_pClient = Connect();
    // The system's own buffers take some megabytes before the backlog begins to grow.
    const std::string expected = NotifyFrame("00 00 00 01 00 00 00 02 00 00 00 03");
    for (int round = 0; round < 2000 && m_nDroppedClient == 0; ++round) {
        for (int i = 0; i < 1000; ++i)
            m_pSim->Notify(1, 2, 3);
        const std::string batch = m_pClient->Receive(1000 * kNotifySize);
        ASSERT_EQ(1000 * kNotifySize, batch.size());
        ASSERT_EQ(expected, batch.substr(999 * kNotifySize));
    }
    EXPECT_EQ(1u, m_nDroppedClient);
    EXPECT_EQ(1u, m_pSim->ClientCount());
    EXPECT_EQ(1u, m_pSim->GetStatistics().clientsDropped);
    EXPECT_TRUE(deaf->IsClosedByPeer());
}

TEST_F(BacklogTest, ClientThatDoesNotReadItsAnswersIsDroppedAndTheOthersAreServed) {
    m_Options.records = RecordSize::Long;
    Start();
    for (int32_t key = 1; key <= 1000; ++key)
        m_pSim->AddSender(MakeSender(key));
    const auto deaf = Connect(4096);
    m_pClient = Connect();
    ASSERT_TRUE(WaitFor([&] {
        deaf->SendNow(Frame32("10", "01"));
        return m_nDroppedClient != 0;
    }));
    EXPECT_EQ(1u, m_nDroppedClient);
    EXPECT_EQ(1u, m_pSim->ClientCount());
    EXPECT_EQ(1u, m_pSim->GetStatistics().clientsDropped);
    EXPECT_TRUE(deaf->IsClosedByPeer());
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
}

TEST_F(BacklogTest, FrameLargerThanTheBacklogIsDeliveredToAClientThatReads) {
    m_Options.records = RecordSize::Long;
    Start();
    for (int32_t key = 1; key <= 10000; ++key)
        m_pSim->AddSender(MakeSender(key));
    m_pClient = Connect();
    const size_t size = kListHeadSize + 10000 * 128;
    EXPECT_EQ(size, Ask(Frame32("10", "01"), size).size());
    EXPECT_EQ(size, Ask(Frame32("10", "01"), size).size());
    EXPECT_EQ(0u, m_nDroppedClient);
}

TEST_F(ReceiverStreamTest, DropClientsClosesAllAndGoesOnServing) {
    StartAndConnect();
    const auto other = Connect();
    m_pSim->DropClients();
    EXPECT_TRUE(m_pClient->IsClosedByPeer());
    EXPECT_TRUE(other->IsClosedByPeer());
    EXPECT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 0; }));
    m_pClient = Connect();
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
}

}  // namespace
