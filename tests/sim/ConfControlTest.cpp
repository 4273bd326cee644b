#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "SimulatorFixture.h"

namespace {

using namespace sim_test;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

const std::string kTakenByFirst = "00 00 00 07 00 00 00 01 00 00 00 01";
const std::string kTakenBySecond = "00 00 00 07 00 00 00 01 00 00 00 02";
const std::string kLeftByFirst = "00 00 00 07 00 00 00 00 00 00 00 01";
const std::string kExpiredOfFirst = "00 00 00 07 00 00 00 02 00 00 00 01";

/// Two clients, numbers 1 and 2.
class ConfControlTest : public SimulatorFixture {
protected:
    void StartWithTwo() {
        StartAndConnect();
        m_pSecond = Connect();
    }

    void FirstTakes() {
        ASSERT_EQ(Frame32("17") + NotifyFrame(kTakenByFirst),
                  Ask(Frame32("16"), kFrameSize + kNotifySize));
        ASSERT_EQ(NotifyFrame(kTakenByFirst), m_pSecond->Receive(kNotifySize));
    }

    void ExpectNobodyNotified() {
        ExpectNothingQueued(*m_pClient);
        ExpectNothingQueued(*m_pSecond);
    }

    std::unique_ptr<RawClient> m_pSecond;
};

// --- Taking and leaving ---

TEST_F(ConfControlTest, NobodyHasItAtFirst) {
    EXPECT_EQ(milliseconds(30000), simulator::Options().confTimeout);
    EXPECT_FALSE(simulator::Options().requireControl);
    StartWithTwo();
    EXPECT_FALSE(m_pSim->ConfControlHeld());
    EXPECT_EQ(0u, m_pSim->ConfControlClient());
}

TEST_F(ConfControlTest, RefreshTakesItAndTellsAllWhoHasIt) {
    StartWithTwo();
    FirstTakes();
    EXPECT_TRUE(m_pSim->ConfControlHeld());
    EXPECT_EQ(1u, m_pSim->ConfControlClient());
    ExpectNobodyNotified();
}

TEST_F(ConfControlTest, RefreshOfItsHolderIsNotNotified) {
    StartWithTwo();
    FirstTakes();
    EXPECT_EQ(Frame32("17"), Ask(Frame32("16")));
    EXPECT_EQ(1u, m_pSim->ConfControlClient());
    ExpectNobodyNotified();
}

TEST_F(ConfControlTest, RefreshOfAnotherClientTakesItOver) {
    StartWithTwo();
    FirstTakes();
    EXPECT_EQ(Frame32("17") + NotifyFrame(kTakenBySecond),
              Ask(*m_pSecond, Frame32("16"), kFrameSize + kNotifySize));
    EXPECT_EQ(NotifyFrame(kTakenBySecond), m_pClient->Receive(kNotifySize));
    EXPECT_EQ(2u, m_pSim->ConfControlClient());
    ExpectNobodyNotified();
}

TEST_F(ConfControlTest, QuitOfItsHolderLeavesItOnce) {
    StartWithTwo();
    FirstTakes();
    EXPECT_EQ(Frame32("19") + NotifyFrame(kLeftByFirst),
              Ask(Frame32("18"), kFrameSize + kNotifySize));
    EXPECT_EQ(NotifyFrame(kLeftByFirst), m_pSecond->Receive(kNotifySize));
    EXPECT_FALSE(m_pSim->ConfControlHeld());
    EXPECT_EQ(0u, m_pSim->ConfControlClient());
    EXPECT_EQ(Frame32("19"), Ask(Frame32("18")));
    ExpectNobodyNotified();
}

TEST_F(ConfControlTest, QuitOfAnotherClientChangesNothing) {
    StartWithTwo();
    FirstTakes();
    EXPECT_EQ(Frame32("19"), Ask(*m_pSecond, Frame32("18"), kFrameSize));
    EXPECT_EQ(1u, m_pSim->ConfControlClient());
    ExpectNobodyNotified();
}

TEST_F(ConfControlTest, ClientThatLostItCannotLeaveIt) {
    StartWithTwo();
    FirstTakes();
    Ask(*m_pSecond, Frame32("16"), kFrameSize + kNotifySize);
    m_pClient->Receive(kNotifySize);
    EXPECT_EQ(Frame32("19"), Ask(Frame32("18")));
    EXPECT_EQ(2u, m_pSim->ConfControlClient());
    ExpectNobodyNotified();
}

TEST_F(ConfControlTest, ClientThatConnectsAgainIsAnother) {
    StartWithTwo();
    FirstTakes();
    m_pClient.reset();
    ASSERT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 1; }));
    m_pClient = Connect();
    EXPECT_EQ(Frame32("19"), Ask(Frame32("18")));
    EXPECT_EQ(1u, m_pSim->ConfControlClient());
    EXPECT_EQ(Frame32("17") + NotifyFrame("00 00 00 07 00 00 00 01 00 00 00 03"),
              Ask(Frame32("16"), kFrameSize + kNotifySize));
}

// --- Running out ---

TEST_F(ConfControlTest, RunsOutWhenItIsNotRefreshed) {
    m_Options.confTimeout = milliseconds(300);
    StartWithTwo();
    const auto start = Clock::now();
    FirstTakes();
    EXPECT_EQ(NotifyFrame(kExpiredOfFirst), m_pClient->Receive(kNotifySize));
    EXPECT_GE(Clock::now() - start, milliseconds(300));
    EXPECT_EQ(NotifyFrame(kExpiredOfFirst), m_pSecond->Receive(kNotifySize));
    EXPECT_FALSE(m_pSim->ConfControlHeld());
    EXPECT_EQ(0u, m_pSim->ConfControlClient());
    EXPECT_EQ(Frame32("19"), Ask(Frame32("18")));
    ExpectNobodyNotified();
}

TEST_F(ConfControlTest, CanBeTakenAgainWhenItHasRunOut) {
    m_Options.confTimeout = milliseconds(100);
    StartWithTwo();
    for (int i = 0; i < 3; ++i) {
        FirstTakes();
        EXPECT_EQ(NotifyFrame(kExpiredOfFirst), m_pClient->Receive(kNotifySize));
        EXPECT_EQ(NotifyFrame(kExpiredOfFirst), m_pSecond->Receive(kNotifySize));
    }
}

TEST_F(ConfControlTest, RefreshingKeepsIt) {
    m_Options.confTimeout = milliseconds(2000);
    StartWithTwo();
    FirstTakes();
    Clock::time_point last;
    for (int i = 0; i < 4; ++i) {
        std::this_thread::sleep_for(milliseconds(600));
        last = Clock::now();
        ASSERT_EQ(Frame32("17"), Ask(Frame32("16")));
    }
    EXPECT_EQ(NotifyFrame(kExpiredOfFirst), m_pClient->Receive(kNotifySize));
    EXPECT_GE(Clock::now() - last, milliseconds(2000));
}

TEST_F(ConfControlTest, TimeBeginsAnewForTheClientThatTakesItOver) {
    m_Options.confTimeout = milliseconds(2000);
    StartWithTwo();
    FirstTakes();
    std::this_thread::sleep_for(milliseconds(500));
    const auto last = Clock::now();
    EXPECT_EQ(Frame32("17") + NotifyFrame(kTakenBySecond),
              Ask(*m_pSecond, Frame32("16"), kFrameSize + kNotifySize));
    EXPECT_EQ(NotifyFrame("00 00 00 07 00 00 00 02 00 00 00 02"), m_pSecond->Receive(kNotifySize));
    EXPECT_GE(Clock::now() - last, milliseconds(2000));
}

TEST_F(ConfControlTest, DoesNotRunOutOnceItIsLeft) {
    m_Options.confTimeout = milliseconds(200);
    StartWithTwo();
    EXPECT_EQ(
        Frame32("17") + NotifyFrame(kTakenByFirst) + Frame32("19") + NotifyFrame(kLeftByFirst),
        Ask(Frame32("16") + Frame32("18"), 2 * (kFrameSize + kNotifySize)));
    m_pSecond->Receive(2 * kNotifySize);
    EXPECT_FALSE(m_pSecond->IsAnythingComing(milliseconds(400)));
    ExpectNobodyNotified();
}

TEST_F(ConfControlTest, NeverRunsOutWithoutATimeout) {
    m_Options.confTimeout = milliseconds(0);
    StartWithTwo();
    FirstTakes();
    EXPECT_FALSE(m_pClient->IsAnythingComing(milliseconds(100)));
    EXPECT_EQ(1u, m_pSim->ConfControlClient());
    ExpectNobodyNotified();
}

TEST_F(ConfControlTest, OutlivesItsHoldersConnectionUntilItRunsOut) {
    m_Options.confTimeout = milliseconds(1000);
    StartWithTwo();
    const auto start = Clock::now();
    FirstTakes();
    m_pClient.reset();
    ASSERT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 1; }));
    EXPECT_EQ(NotifyFrame(kExpiredOfFirst), m_pSecond->Receive(kNotifySize));
    EXPECT_GE(Clock::now() - start, milliseconds(1000));
    EXPECT_FALSE(m_pSim->ConfControlHeld());
}

TEST_F(ConfControlTest, OutlivesItsHoldersConnectionForEverWithoutATimeout) {
    m_Options.confTimeout = milliseconds(0);
    StartWithTwo();
    FirstTakes();
    m_pClient.reset();
    ASSERT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 1; }));
    EXPECT_EQ(1u, m_pSim->ConfControlClient());
    ExpectNothingQueued(*m_pSecond);
}

TEST_F(ConfControlTest, StopWaitsForNoTimeout) {
    StartWithTwo();
    FirstTakes();
    const auto start = Clock::now();
    m_pSim->Stop();
    EXPECT_LT(Clock::now() - start, milliseconds(20000));
    ASSERT_FALSE(m_pSim->Start());
    m_pClient = Connect();
    ExpectNothingQueued(*m_pClient);
}

// --- Required for steering ---

class RequireControlTest : public ConfControlTest {
protected:
    void SetUp() override {
        m_Options.requireControl = true;
        Start();
        m_pSim->AddSender(MakeSender(7));
        m_pSim->AddSender(MakeSender(8));
        m_pSim->StartPlay(8, 2);
        m_pClient = Connect();
        m_pSecond = Connect();
    }

    void ExpectRefused(RawClient& client) {
        const std::string refused = "00 00 00 05";
        EXPECT_EQ(Frame32("13", refused), Ask(client, Frame32("12", "00 00 00 07 01"), kFrameSize));
        EXPECT_EQ(Frame32("15", refused), Ask(client, Frame32("14", "00 00 00 08"), kFrameSize));
        EXPECT_EQ(Frame32("1F", refused), Ask(client, Frame32("1E", "00 00 00 07"), kFrameSize));
        EXPECT_EQ(Frame32("23", refused), Ask(client, Frame32("22", "00 00 00 05 01"), kFrameSize));
        EXPECT_FALSE(m_pSim->IsShown(7));
        EXPECT_TRUE(m_pSim->IsShown(8));
        EXPECT_EQ(2u, m_pSim->Senders().size());
        EXPECT_EQ(0, m_pSim->GetModerator().id);
        ExpectNobodyNotified();
    }
};

TEST_F(RequireControlTest, NobodySteersWithoutIt) {
    ExpectRefused(*m_pClient);
    ExpectRefused(*m_pSecond);
}

TEST_F(RequireControlTest, SteeringIsRefusedWhateverItsArguments) {
    EXPECT_EQ(Frame32("13", "00 00 00 05"), Ask(Frame32("12", "00 00 00 63 01")));
    EXPECT_EQ(Frame32("15", "00 00 00 05"), Ask(Frame32("14", "00 00 00 63")));
    EXPECT_EQ(Frame32("1F", "00 00 00 05"), Ask(Frame32("1E", "00 00 00 63")));
    EXPECT_EQ(Frame32("23", "00 00 00 05"), Ask(Frame32("22")));
}

TEST_F(RequireControlTest, OnlyItsHolderSteers) {
    FirstTakes();
    ExpectRefused(*m_pSecond);
    EXPECT_EQ(Frame32("13") + NotifyFrame("00 00 00 04 00 00 00 07 00 00 00 01"),
              Ask(Frame32("12", "00 00 00 07 01"), kFrameSize + kNotifySize));
    EXPECT_EQ(Frame32("15") + NotifyFrame("00 00 00 05 00 00 00 07 00 00 00 00"),
              Ask(Frame32("14", "00 00 00 07"), kFrameSize + kNotifySize));
    EXPECT_EQ(Frame32("1F") + NotifyFrame("00 00 00 02 00 00 00 07 00 00 00 00"),
              Ask(Frame32("1E", "00 00 00 07"), kFrameSize + kNotifySize));
    EXPECT_EQ(Frame32("23") + NotifyFrame("00 00 00 06 00 00 00 05 00 00 00 01"),
              Ask(Frame32("22", "00 00 00 05 01"), kFrameSize + kNotifySize));
}

TEST_F(RequireControlTest, WhoeverLosesItSteersNoLonger) {
    FirstTakes();
    Ask(*m_pSecond, Frame32("16"), kFrameSize + kNotifySize);
    m_pClient->Receive(kNotifySize);
    ExpectRefused(*m_pClient);
    Ask(*m_pSecond, Frame32("18"), kFrameSize + kNotifySize);
    m_pClient->Receive(kNotifySize);
    ExpectRefused(*m_pSecond);
}

TEST_F(RequireControlTest, LookingNeedsNoControl) {
    EXPECT_EQ(Frame32("11", "00 02 00"), ListOfShort(Frame32("10", "01"), 2).substr(0, kFrameSize));
    EXPECT_EQ(Frame32("1B", "00 02 00"), ListOfShort(Frame32("1A", "01"), 2).substr(0, kFrameSize));
    EXPECT_EQ(Frame32("1D", "00 02 00"), ListOfShort(Frame32("1C", "01"), 2).substr(0, kFrameSize));
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
    EXPECT_EQ(Frame32("19"), Ask(Frame32("18")));
}

TEST_F(RequireControlTest, MethodsNeedNoControl) {
    EXPECT_EQ(simulator::kResultOk, m_pSim->StartPlay(7, 1));
    EXPECT_EQ(simulator::kResultOk, m_pSim->StopPlay(7));
    m_pSim->SetModerator({5, 1});
    EXPECT_EQ(5, m_pSim->GetModerator().id);
    EXPECT_TRUE(m_pSim->RemoveSender(7));
}

TEST_F(ConfControlTest, OthersMaySteerWhenItIsNotRequired) {
    StartWithTwo();
    m_pSim->AddSender(MakeSender(7));
    m_pClient->Receive(kNotifySize);
    m_pSecond->Receive(kNotifySize);
    FirstTakes();
    EXPECT_EQ(Frame32("13") + NotifyFrame("00 00 00 04 00 00 00 07 00 00 00 01"),
              Ask(*m_pSecond, Frame32("12", "00 00 00 07 01"), kFrameSize + kNotifySize));
}

}  // namespace
