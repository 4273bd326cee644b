#include <atomic>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "SimulatorFixture.h"

namespace {

using namespace sim_test;

class ReceiverSimulatorTest : public SimulatorFixture {};

// --- Start and stop ---

TEST_F(ReceiverSimulatorTest, DefaultIsTheReceiversPortOnTheLoopback) {
    const simulator::Options defaults;
    EXPECT_EQ("127.0.0.1", defaults.address);
    EXPECT_EQ(19996, defaults.port);
    EXPECT_EQ(RecordSize::Long, defaults.records);
    EXPECT_EQ(16u * 1024 * 1024, defaults.maxBacklog);
    m_Options.port = defaults.port;
    Start();
    RawClient client(m_Options.address, 19996);
    EXPECT_EQ(Frame32("21"), Ask(client, Frame32("20", "01"), kFrameSize));
}

TEST_F(ReceiverSimulatorTest, StopClosesConnectionsAndPort) {
    StartAndConnect();
    const auto half = Connect();
    half->Send("Recv");
    const uint16_t port = m_pSim->Port();
    m_pSim->Stop();
    EXPECT_TRUE(m_pClient->IsClosedByPeer());
    EXPECT_TRUE(half->IsClosedByPeer());
    EXPECT_EQ(0u, m_pSim->ClientCount());
    EXPECT_FALSE(RawClient(m_Options.address, port).IsConnected());
    m_pSim->Stop();
}

TEST_F(ReceiverSimulatorTest, DestructorClosesConnections) {
    StartAndConnect();
    m_pSim.reset();
    EXPECT_TRUE(m_pClient->IsClosedByPeer());
}

TEST_F(ReceiverSimulatorTest, StateOutlivesStopAndTheSamePortIsFreeAtOnce) {
    m_Options.port = 19996;
    StartAndConnect();
    Ask(Frame32("22", "00 00 00 2A 01"), kFrameSize + kNotifySize);
    m_pSim->Stop();
    m_pSim->AddSender(MakeSender(8));
    for (int i = 0; i < 20; ++i) {
        const std::error_code error = m_pSim->Start();
        ASSERT_FALSE(error) << error.message();
        m_pClient = Connect();
        EXPECT_EQ(Frame32("21", "00 00 00 2A 01"), Ask(Frame32("20", "01")));
        EXPECT_EQ(Hex("00 00 00 08"), KeysOf(ListOfShort(Frame32("10", "01"), 1)));
        m_pSim->Stop();
    }
}

TEST_F(ReceiverSimulatorTest, NothingNeedsToBeStarted) {
    simulator::ReceiverSimulator idle(m_Options);
    EXPECT_TRUE(idle.AddSender(MakeSender(1)));
    for (int i = 0; i < 5000; ++i)
        idle.Notify(1, 2, 3);  // more than may be pending; with nobody to serve, none is
    idle.DropClients();
    EXPECT_EQ(1u, idle.Senders().size());
    EXPECT_EQ(0u, idle.ClientCount());
    idle.Stop();
}

TEST_F(ReceiverSimulatorTest, SecondStartIsRefused) {
    StartAndConnect();
    EXPECT_EQ(std::errc::operation_in_progress, m_pSim->Start());
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
}

TEST_F(ReceiverSimulatorTest, TakenPortIsReported) {
    Start();
    m_Options.port = m_pSim->Port();
    simulator::ReceiverSimulator second(m_Options);
    EXPECT_EQ(std::errc::address_in_use, second.Start());
    m_pSim->Stop();
    EXPECT_FALSE(second.Start());
}

TEST_F(ReceiverSimulatorTest, AddressThatIsNotDottedIsReported) {
    for (const char* address : {"localhost", "", "127.0.0", "::1"}) {
        m_Options.address = address;
        EXPECT_EQ(std::errc::invalid_argument, simulator::ReceiverSimulator(m_Options).Start());
    }
}

TEST_F(ReceiverSimulatorTest, ForeignAddressIsReported) {
    m_Options.address = "192.0.2.1";
    EXPECT_EQ(std::errc::address_not_available, simulator::ReceiverSimulator(m_Options).Start());
}

TEST_F(ReceiverSimulatorTest, StopReleasesThoseWhoNotify) {
    StartAndConnect();
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                m_pSim->Notify(1, 2, 3);
                ++rounds;
            }
        });
    }
    for (int i = 0; i < 5; ++i) {
        const int before = rounds;
        EXPECT_TRUE(WaitFor([&] { return rounds > before + 1000; }));
        m_pSim->Stop();
        EXPECT_FALSE(m_pSim->Start());
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
}

// --- Observer ---

class ObserverTest : public SimulatorFixture {
protected:
    ObserverTest() {
        m_Observer.frame = [this](const simulator::Frame& frame) {
            Add(std::to_string(frame.client) + (frame.incoming ? " <- " : " -> ") +
                simulator::Describe(frame));
        };
        m_Observer.client = [this](uint64_t client, simulator::ClientChange change,
                                   const std::string&) {
            using simulator::ClientChange;
            const char* text = change == ClientChange::Connected ? " connected"
                               : change == ClientChange::Left    ? " left"
                               : change == ClientChange::Closed  ? " closed"
                                                                 : " dropped";
            Add(std::to_string(client) + text);
        };
    }

    void Add(const std::string& line) {
        std::lock_guard<std::mutex> lock(m_LinesMutex);
        m_Lines.push_back(line);
    }

    std::mutex m_LinesMutex;
    std::vector<std::string> m_Lines;
};

TEST_F(ObserverTest, SeesEveryFrameInWords) {
    Start();
    m_pSim->AddSender(MakeSender(7));
    m_pClient = Connect();
    Ask(Frame32("10", "01"), kListHeadSize + 64);
    Ask(Frame32("1A", "01"), kListHeadSize + 64);
    Ask(Frame32("1C", "01"), kListHeadSize + 64);
    Ask(Frame32("12", "00 00 00 07 03"), kFrameSize + kNotifySize);
    Ask(Frame32("14", "00 00 00 08"));
    Ask(Frame32("1E", "00 00 00 08"));
    Ask(Frame32("20", "01"));
    Ask(Frame32("22", "FF FF FF FF 02"), kFrameSize + kNotifySize);
    Ask(Frame32("16"), kFrameSize + kNotifySize);
    Ask(Frame32("63") + Frame32("18"), kFrameSize + kNotifySize);
    m_pClient.reset();
    EXPECT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 0; }));
    m_pClient = Connect();
    m_pSim->Stop();
    const std::vector<std::string> expected = {
        "1 connected",
        "1 <- GetSenderList",
        "1 -> GetSenderList answer: 1 short records",
        "1 <- GetNonLocalSenderList",
        "1 -> GetNonLocalSenderList answer: 1 short records",
        "1 <- GetValidSenderList",
        "1 -> GetValidSenderList answer: 1 short records",
        "1 <- StartPlayImage: sender 7, option 3",
        "1 -> StartPlayImage answer: 0 ok",
        "1 -> notify: 4 show started, 7, 3",
        "1 <- StopPlayImage: sender 8",
        "1 -> StopPlayImage answer: 1 unknown sender",
        "1 <- ForceSenderLogout: sender 8",
        "1 -> ForceSenderLogout answer: 1 unknown sender",
        "1 <- GetModeratorInfo",
        "1 -> GetModeratorInfo answer: id 0, flag 0",
        "1 <- SetModeratorInfo: id -1, flag 2",
        "1 -> SetModeratorInfo answer: 0 ok",
        "1 -> notify: 6 moderator changed, -1, 2",
        "1 <- RefreshConfCtrlTimer",
        "1 -> RefreshConfCtrlTimer answer",
        "1 -> notify: 7 conference control, 1, 1",
        "1 <- unknown command 0x63, 0 bytes",
        "1 <- QuitConfCtrl",
        "1 -> QuitConfCtrl answer",
        "1 -> notify: 7 conference control, 0, 1",
        "1 left",
        "2 connected",
        "2 closed",
    };
    EXPECT_EQ(expected, m_Lines);
    EXPECT_EQ(11u, m_pSim->GetStatistics().framesReceived);
    EXPECT_EQ(14u, m_pSim->GetStatistics().framesSent);
}

TEST_F(ReceiverSimulatorTest, ObserverMayChangeTheStateAndTheChangeFollowsTheRequest) {
    m_Observer.frame = [this](const simulator::Frame& frame) {
        if (frame.incoming && frame.code == 0x22)
            m_pSim->Notify(77, 0, 0);
        if (!frame.incoming && frame.code == 0x23)
            m_pSim->Notify(88, 0, 0);
    };
    StartAndConnect();
    EXPECT_EQ(NotifyFrame("00 00 00 4D 00 00 00 00 00 00 00 00") + Frame32("23") +
                  NotifyFrame("00 00 00 06 00 00 00 01 00 00 00 00") +
                  NotifyFrame("00 00 00 58 00 00 00 00 00 00 00 00"),
              Ask(Frame32("22", "00 00 00 01 00"), kFrameSize + 3 * kNotifySize));
}

TEST(DescribeTest, FrameOfTheWrongLengthIsNotRead) {
    EXPECT_EQ("unknown command 0x12, 3 bytes", simulator::Describe({1, true, 0x12, "abc", ""}));
    EXPECT_EQ("unknown command 0x13, 3 bytes", simulator::Describe({1, false, 0x13, "abc", ""}));
    EXPECT_EQ("unknown command 0x24, 3 bytes", simulator::Describe({1, false, 0x24, "abc", ""}));
    EXPECT_EQ("unknown command 0x00, 0 bytes", simulator::Describe({1, false, 0x00, "", ""}));
}

// --- Many threads ---

TEST_F(ReceiverSimulatorTest, EveryMethodMayBeCalledFromAnyThread) {
    Start();
    constexpr int kRounds = 300;
    std::vector<std::thread> threads;
    for (int32_t t = 0; t < 3; ++t) {
        threads.emplace_back([this, t] {
            for (int32_t i = 0; i < kRounds; ++i) {
                const int32_t key = t * 1000 + i;
                EXPECT_TRUE(m_pSim->AddSender(MakeSender(key)));
                EXPECT_TRUE(Update(MakeSender(key, "b")));
                m_pSim->SetModerator({key, static_cast<uint8_t>(t)});
                m_pSim->IsShown(key);
                m_pSim->Senders();
                m_pSim->GetModerator();
                m_pSim->ConfControlHeld();
                m_pSim->GetStatistics();
                m_pSim->Notify(key, 0, 0);
                if (i % 50 == 49)
                    m_pSim->DropClients();
                if (i % 2 == 0) {
                    EXPECT_TRUE(m_pSim->RemoveSender(key));
                }
            }
        });
    }
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([this] {
            for (int i = 0; i < 100; ++i) {
                RawClient client(m_Options.address, m_pSim->Port());
                client.SendNow(Frame32("10", "01") + Frame32("12", "00 00 00 01 00") +
                               Frame32("16"));
                client.Receive(kFrameSize);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(3u * kRounds / 2, m_pSim->Senders().size());
    EXPECT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 0; }));
    m_pClient = Connect();
    EXPECT_EQ(Frame32("15", "00 00 00 01"), Ask(Frame32("14", "7F FF FF FF")));
}

}  // namespace
