#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "FaultFixture.h"

namespace {

using namespace sim_test;

class FaultTest : public FaultFixture {};

// --- Switching on and off ---

TEST_F(FaultTest, NoneIsOnAtFirst) {
    StartAndConnect();
    EXPECT_TRUE(m_pSim->Faults().empty());
    EXPECT_FALSE(m_pSim->FaultOff(FaultKind::Silent));
    m_pSim->FaultsOff();
    ExpectServed();
    EXPECT_EQ(0u, m_pSim->GetStatistics().faultsDone);
    EXPECT_EQ("", FaultsOf(0x23));
}

TEST_F(FaultTest, DefaultsAreThoseOfTheContract) {
    const Fault fault;
    EXPECT_EQ(FaultKind::Silent, fault.kind);
    EXPECT_EQ(-1, fault.command);
    EXPECT_EQ(0u, fault.count);
    EXPECT_EQ(100, fault.percent);
    EXPECT_EQ(milliseconds(1000), fault.time);
    EXPECT_EQ(1u, simulator::Options().seed);
    EXPECT_EQ(36, kNotifications);
}

TEST_F(FaultTest, FaultsAreListedInTheOrderOfTheirSwitchingOn) {
    StartAndConnect();
    Fault delay = DelayFault(16, milliseconds(5));
    delay.percent = 30;
    On(MakeFault(FaultKind::Twice, 32, 4));
    On(delay);
    On(GarbageFault(kEveryFrame, GarbagePlace::After, 3));
    Ask(Frame32("20", "01"), 2 * kFrameSize + 3);
    const std::vector<Fault> faults = m_pSim->Faults();
    ASSERT_EQ(3u, faults.size());
    EXPECT_EQ(FaultKind::Twice, faults[0].kind);
    EXPECT_EQ(32, faults[0].command);
    EXPECT_EQ(3u, faults[0].count);
    EXPECT_EQ(FaultKind::Delay, faults[1].kind);
    EXPECT_EQ(milliseconds(5), faults[1].time);
    EXPECT_EQ(30, faults[1].percent);
    EXPECT_EQ(FaultKind::Garbage, faults[2].kind);
    EXPECT_EQ(GarbagePlace::After, faults[2].place);
    EXPECT_EQ(3, faults[2].bytes);
    EXPECT_EQ(kEveryFrame, faults[2].command);
}

TEST_F(FaultTest, FaultTakesThePlaceOfTheSameKindAndCommand) {
    StartAndConnect();
    for (const int code : {40, 41}) {
        Fault fault = MakeFault(FaultKind::WrongCode, code == 40 ? 32 : 33);
        fault.code = code;
        On(fault);
    }
    EXPECT_EQ(1u, m_pSim->Faults().size());
    EXPECT_EQ(WithCode(Frame32("21"), 41), Ask(Frame32("20", "01")));
    On(MakeFault(FaultKind::WrongCode, 34));
    On(MakeFault(FaultKind::WrongCode, kEveryAnswer));
    EXPECT_EQ(3u, m_pSim->Faults().size());
}

TEST_F(FaultTest, FaultThatIsOfNoFramesHasNoCommand) {
    StartAndConnect();
    for (const FaultKind kind :
         {FaultKind::Flood, FaultKind::CloseOnAccept, FaultKind::NeverRead}) {
        On(MakeFault(kind, 32));
        On(MakeFault(kind, 34));
        EXPECT_EQ(1u, m_pSim->Faults().size());
        Off(kind);
        EXPECT_TRUE(m_pSim->Faults().empty());
    }
}

TEST_F(FaultTest, GarbagePlacesAreFaultsOfTheirOwn) {
    StartAndConnect();
    On(GarbageFault(32, GarbagePlace::Before, 3));
    On(GarbageFault(32, GarbagePlace::After, 3));
    On(GarbageFault(32, GarbagePlace::Before, 4));
    EXPECT_EQ(2u, m_pSim->Faults().size());
    EXPECT_TRUE(m_pSim->FaultOff(FaultKind::Garbage, 32));
    EXPECT_TRUE(m_pSim->Faults().empty());
    ExpectServed();
}

TEST_F(FaultTest, ReplacingFaultCountsAnew) {
    StartAndConnect();
    On(MakeFault(FaultKind::Twice, 32, 2));
    Ask(Frame32("20", "01"), 2 * kFrameSize);
    On(MakeFault(FaultKind::Twice, 32, 2));
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(Frame32("21") + Frame32("21"), Ask(Frame32("20", "01"), 2 * kFrameSize));
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
    ExpectServed();
}

TEST_F(FaultTest, OfTwoOfOneKindTheFirstActs) {
    StartAndConnect();
    Fault all = MakeFault(FaultKind::WrongCode, kEveryAnswer, 1);
    all.code = 50;
    Fault one = MakeFault(FaultKind::WrongCode, 32);
    one.code = 51;
    On(all);
    On(one);
    EXPECT_EQ(WithCode(Frame32("21"), 50), Ask(Frame32("20", "01")));
    EXPECT_EQ(WithCode(Frame32("21"), 51), Ask(Frame32("20", "01")));
    ExpectServed();
    EXPECT_EQ(2u, m_pSim->GetStatistics().faultsDone);
}

TEST_F(FaultTest, OffMayNameTheCommand) {
    StartAndConnect();
    On(MakeFault(FaultKind::Twice, 32));
    On(MakeFault(FaultKind::Twice, 34));
    EXPECT_FALSE(m_pSim->FaultOff(FaultKind::Twice, 16));
    EXPECT_FALSE(m_pSim->FaultOff(FaultKind::Twice, kEveryAnswer));
    EXPECT_FALSE(m_pSim->FaultOff(FaultKind::Silent));
    EXPECT_TRUE(m_pSim->FaultOff(FaultKind::Twice, 34));
    EXPECT_FALSE(m_pSim->FaultOff(FaultKind::Twice, 34));
    ExpectServed();
    EXPECT_EQ(Frame32("21") + Frame32("21"), Ask(Frame32("20", "01"), 2 * kFrameSize));
    On(MakeFault(FaultKind::Twice, 34));
    EXPECT_TRUE(m_pSim->FaultOff(FaultKind::Twice));
    EXPECT_TRUE(m_pSim->Faults().empty());
}

TEST_F(FaultTest, FaultsOffEndsThemAll) {
    StartAndConnect();
    On(MakeFault(FaultKind::Silent, 32));
    On(MakeFault(FaultKind::Twice, kEveryFrame));
    On(MakeFault(FaultKind::CloseOnAccept));
    m_pSim->FaultsOff();
    EXPECT_TRUE(m_pSim->Faults().empty());
    EXPECT_EQ(Frame32("21"), Ask(Frame32("20", "01")));
    m_pClient = Connect();
    ExpectServed();
}

TEST_F(FaultTest, WhatIsOnItsWayStaysDelayedWhenTheFaultEnds) {
    StartAndConnect();
    On(DelayFault(32, milliseconds(150)));
    const Stopwatch watch;
    ASSERT_TRUE(m_pClient->Send(Frame32("20", "01")));
    ASSERT_TRUE(WaitForFaults(1));
    m_pSim->FaultsOff();
    EXPECT_EQ(Frame32("23") + Frame32("21"), Ask(Frame32("22"), 2 * kFrameSize));
    EXPECT_GE(watch.Elapsed(), milliseconds(150));
}

TEST_F(FaultTest, ObserverMaySwitchFaults) {
    m_Observer.frame = [this](const simulator::Frame& frame) {
        if (frame.incoming && frame.code == 0x20)
            m_pSim->FaultOn(MakeFault(FaultKind::Twice, 32, 1));
        if (frame.incoming && frame.code == 0x22)
            m_pSim->FaultsOff();
    };
    StartAndConnect();
    EXPECT_EQ(Frame32("21") + Frame32("21"), Ask(Frame32("20", "01"), 2 * kFrameSize));
    ExpectServed();
}

// --- What cannot be ---

struct Limits {
    const char* name;
    std::function<void(Fault&, int64_t)> set;
    std::vector<int64_t> good;
    std::vector<int64_t> bad;
};

const std::vector<Limits>& AllLimits() {
    constexpr int64_t kDay = 86400000;
    constexpr int64_t kBig = 2000000000;
    static const std::vector<Limits> kLimits = {
        {"Percent",
         [](Fault& fault, int64_t value) { fault.percent = static_cast<int>(value); },
         {1, 99, 100},
         {0, -1, 101, kBig}},
        {"Time",
         [](Fault& fault, int64_t value) { fault.time = milliseconds(value); },
         {0, 1, kDay},
         {-1, -kDay, kDay + 1, INT64_MAX, INT64_MIN}},
        {"GarbageBytes",
         [](Fault& fault, int64_t value) {
             fault.kind = FaultKind::Garbage;
             fault.bytes = value;
         },
         {-1, 1, 1 << 20},
         {-2, (1 << 20) + 1, INT64_MAX, INT64_MIN}},
        {"Rate",
         [](Fault& fault, int64_t value) {
             fault.kind = FaultKind::Flood;
             fault.rate = static_cast<uint32_t>(value);
         },
         {1, 1000000},
         {0, 1000001, 0xFFFFFFFF}},
        {"Command",
         [](Fault& fault, int64_t value) { fault.command = static_cast<int>(value); },
         {-2, -1, 16, 17, 34, 35, 36, 255},
         {-3, 256, kBig, -kBig}},
        {"Code",
         [](Fault& fault, int64_t value) {
             fault.kind = FaultKind::WrongCode;
             fault.code = static_cast<int>(value);
         },
         {-1, 0, 255},
         {-2, 256, kBig}},
        {"Records",
         [](Fault& fault, int64_t value) {
             fault.kind = FaultKind::FalseCount;
             fault.records = static_cast<int>(value);
         },
         {-1, 0, 65535},
         {-2, 65536, kBig}},
    };
    return kLimits;
}

class FaultLimitTest : public FaultFixture, public ::testing::WithParamInterface<Limits> {};

INSTANTIATE_TEST_SUITE_P(Members,
                         FaultLimitTest,
                         ::testing::ValuesIn(AllLimits()),
                         [](const ::testing::TestParamInfo<Limits>& test) {
                             return test.param.name;
                         });

TEST_P(FaultLimitTest, FaultThatCannotBeIsRefusedAndChangesNothing) {
    m_pSim = std::make_unique<simulator::ReceiverSimulator>(m_Options);
    for (const int64_t value : GetParam().good) {
        Fault fault;
        GetParam().set(fault, value);
        EXPECT_TRUE(m_pSim->FaultOn(fault)) << value;
    }
    const size_t before = m_pSim->Faults().size();
    EXPECT_GE(before, 1u);
    for (const int64_t value : GetParam().bad) {
        Fault fault;
        GetParam().set(fault, value);
        EXPECT_FALSE(m_pSim->FaultOn(fault)) << value;
    }
    EXPECT_EQ(before, m_pSim->Faults().size());
}

// --- The seed ---

class SeedTest : public FaultFixture {
protected:
    void StartWithSeed(uint64_t seed) {
        m_pClient.reset();
        m_pSim.reset();
        m_Options.seed = seed;
        Start();
        m_pClient = Connect();
    }

    void SometimesWrong() {
        Fault fault = MakeFault(FaultKind::WrongCode, kEveryFrame);
        fault.percent = 50;
        On(fault);
    }

    static constexpr size_t kRounds = 64;

    // One letter a frame: whether its code was wrong.
    static std::string Pattern(RawClient& client) {
        std::string pattern;
        for (size_t i = 0; i < kRounds; ++i) {
            const std::string frame = Ask(client, Frame32("20", "01"), kFrameSize);
            pattern += frame == Frame32("21") ? 'r' : frame == Frame32("23") ? 'w' : '?';
        }
        return pattern;
    }

    static size_t Wrong(const std::string& pattern) {
        EXPECT_EQ(std::string::npos, pattern.find('?'));
        return static_cast<size_t>(std::count(pattern.begin(), pattern.end(), 'w'));
    }
};

TEST_F(SeedTest, PercentIsAboutThatShare) {
    StartWithSeed(1);
    SometimesWrong();
    const std::string pattern = Pattern(*m_pClient);
    EXPECT_GE(Wrong(pattern), 12u);
    EXPECT_LE(Wrong(pattern), 52u);
    EXPECT_EQ(Wrong(pattern), m_pSim->GetStatistics().faultsDone);
}

TEST_F(SeedTest, SameSeedSameChoice) {
    StartWithSeed(7);
    SometimesWrong();
    const std::string pattern = Pattern(*m_pClient);
    StartWithSeed(7);
    SometimesWrong();
    EXPECT_EQ(pattern, Pattern(*m_pClient));
    StartWithSeed(8);
    SometimesWrong();
    EXPECT_NE(pattern, Pattern(*m_pClient));
}

TEST_F(SeedTest, ClientsChoiceDoesNotHangOnTheOtherClients) {
    StartWithSeed(7);
    SometimesWrong();
    const std::string pattern = Pattern(*m_pClient);
    const auto second = Connect();
    const std::string secondPattern = Pattern(*second);
    EXPECT_NE(pattern, secondPattern);
    StartWithSeed(7);
    const auto secondAgain = Connect();
    SometimesWrong();
    std::thread other([&] { EXPECT_EQ(secondPattern, Pattern(*secondAgain)); });
    EXPECT_EQ(pattern, Pattern(*m_pClient));
    other.join();
}

TEST_F(SeedTest, CountEndsAShareAfterThatManyFaults) {
    StartWithSeed(3);
    Fault fault = MakeFault(FaultKind::WrongCode, 32, 5);
    fault.percent = 50;
    On(fault);
    EXPECT_EQ(5u, Wrong(Pattern(*m_pClient)));
    EXPECT_TRUE(m_pSim->Faults().empty());
}

TEST_F(SeedTest, SameSeedSameRunByteForByte) {
    const auto run = [this](uint64_t seed) {
        StartWithSeed(seed);
        m_pSim->AddSender(MakeSender(1));
        m_pClient->Receive(kNotifySize);
        Fault garbage = GarbageFault(kEveryFrame, GarbagePlace::Before, 20);
        garbage.percent = 40;
        Fault parts = GarbageFault(16, GarbagePlace::Inside, 33);
        parts.prefixParts = true;
        Fault twice = MakeFault(FaultKind::Twice, kEveryFrame);
        twice.percent = 20;
        Fault silent = MakeFault(FaultKind::Silent, kEveryFrame);
        silent.percent = 30;
        Fault cut = CutFault(kEveryAnswer, 11, CutEnd::Later);
        cut.percent = 50;
        On(garbage);
        On(parts);
        On(twice);
        On(silent);
        On(cut);
        std::string requests;
        for (int i = 0; i < 40; ++i)
            requests += Frame32("20", "01") + Frame32("10", "01") + Frame32("22", "00 00 00 05 01");
        Fault end = CutFault(24, 0, CutEnd::Close);
        EXPECT_TRUE(m_pClient->Send(requests));
        EXPECT_TRUE(WaitFor([this] { return m_pSim->FramesReceived(0x22) == 40; }));
        m_pSim->FaultsOff();
        On(end);
        EXPECT_TRUE(m_pClient->Send(Frame32("18")));
        std::string bytes;
        EXPECT_EQ(Ending::Closed, m_pClient->ReceiveToEnd(bytes));
        return bytes;
    };
    const std::string first = run(42);
    EXPECT_GT(first.size(), 40u * kFrameSize);
    EXPECT_EQ(first, run(42));
    EXPECT_NE(first, run(43));
}

// --- Many threads ---

TEST_F(FaultTest, FaultThatIsSwitchedOnDuringStartActsOnce) {
    Fault fault = MakeFault(FaultKind::Unasked, 32);
    fault.time = kHour;
    for (int i = 0; i < 100; ++i) {
        m_pClient.reset();
        m_pSim = std::make_unique<simulator::ReceiverSimulator>(m_Options);
        std::thread switcher([&] {
            // There is a port as soon as it listens; each round is a little later.
            while (m_pSim->Port() == 0)
                std::this_thread::yield();
            for (int looks = 0; looks < i; ++looks)
                m_pSim->Faults();
            On(fault);
        });
        const std::error_code error = m_pSim->Start();
        switcher.join();
        ASSERT_FALSE(error) << error.message();
        ASSERT_TRUE(WaitForFaults(1));
        m_pClient = Connect();
        ExpectServed();
        ASSERT_EQ(1u, m_pSim->GetStatistics().faultsDone) << i;
    }
}

TEST_F(FaultTest, FaultsMayBeSwitchedFromAnyThreadWhileServing) {
    Start();
    m_pSim->AddSender(MakeSender(1));
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([this, &stop, t] {
            const std::vector<Fault> faults = {
                MakeFault(FaultKind::Silent, 16 + 2 * t, 3),
                DelayFault(kEveryFrame, milliseconds(1)),
                MakeFault(FaultKind::Twice, kNotifications),
                TrickleFault(32, 5, milliseconds(1)),
                CutFault(kEveryAnswer, 4, CutEnd::Later),
                CutFault(34, 4, CutEnd::Close),
                CutFault(16, 4, CutEnd::Reset),
                GarbageFault(kEveryFrame, GarbagePlace::Inside, 10),
                MakeFault(FaultKind::Unasked, 34, 2),
                MakeFault(FaultKind::CloseOnAccept, kEveryAnswer, 1),
                MakeFault(FaultKind::NeverRead, kEveryAnswer, 1),
                MakeFault(FaultKind::Flood, kEveryAnswer, 20),
            };
            for (size_t i = 0; !stop; ++i) {
                const Fault& fault = faults[i % faults.size()];
                EXPECT_TRUE(m_pSim->FaultOn(fault));
                m_pSim->Faults();
                m_pSim->GetStatistics();
                m_pSim->FaultOff(fault.kind);
                if (i % 7 == 0)
                    m_pSim->FaultsOff();
            }
        });
    }
    threads.emplace_back([this, &stop] {
        while (!stop) {
            EXPECT_EQ(0u, m_pSim->Execute("notify 1 2 3").find("ok"));
            EXPECT_EQ(0u, m_pSim->Execute("no such command").find("error"));
        }
    });
    int clients = 0;
    EXPECT_TRUE(WaitFor([&] {
        RawClient client(m_Options.address, m_pSim->Port());
        client.SendNow(Frame32("20", "01") + Frame32("10", "01") + Frame32("22"));
        client.IsAnythingComing(milliseconds(2));
        return ++clients >= 200 && m_pSim->GetStatistics().faultsDone > 0;
    }));
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    m_pSim->FaultsOff();
    EXPECT_TRUE(WaitFor([this] { return m_pSim->ClientCount() == 0; }));
    m_pClient = Connect();
    ExpectServed();
}

}  // namespace
