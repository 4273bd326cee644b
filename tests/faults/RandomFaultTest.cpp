#include <vector>

#include "tests/faults/FaultFixture.h"

// Several faults at once, chosen by the seed. All of them leave an answer's bytes as they are, so
// nothing may go wrong.

namespace sr_test {
namespace {

constexpr int kRequests = 200;
constexpr int kOwnNotification = 1000;

class RandomFaultTest : public FaultFixture, public testing::WithParamInterface<uint64_t> {
protected:
    RandomFaultTest() { m_Options.seed = GetParam(); }

    void FaultOften(Fault fault, int percent) {
        fault.count = 0;
        fault.percent = percent;
        FaultOn(fault);
    }

    void HarmlessFaultsOn() {
        FaultOften(Garbage(simulator::kEveryFrame, GarbagePlace::Before, 24, true), 30);
        FaultOften(Garbage(simulator::kEveryFrame, GarbagePlace::After, 16), 30);
        FaultOften(Trickle(simulator::kEveryFrame, 16, milliseconds(1)), 30);
        FaultOften(Stall(simulator::kEveryFrame, 10, milliseconds(15)), 20);
        FaultOften(MakeFault(FaultKind::Twice, simulator::kEveryAnswer), 30);
        FaultOften(Delay(simulator::kEveryAnswer, milliseconds(20)), 20);
    }
};

INSTANTIATE_TEST_SUITE_P(Seeds, RandomFaultTest, testing::Values(1, 2));

TEST_P(RandomFaultTest, HarmlessFaultsChangeNothing) {
    m_Client.stub.SetScrRcvNotifyCB(Events::Record);
    HarmlessFaultsOn();
    // No command follows itself: a second answer that comes late would end the next request.
    const std::vector<Command> commands = AllCommands();
    for (int i = 0; i < kRequests; ++i) {
        m_pReceiver->Notify(kOwnNotification, i, -i);
        ExpectRight(commands[static_cast<size_t>(i) % commands.size()], m_Client.stub);
    }
    m_pReceiver->FaultsOff();
    ExpectRight(commands.front(), m_Client.stub);

    const auto own = [] {
        std::vector<Event> events;
        for (const Event& event : Events::All()) {
            if (event[0] == kOwnNotification)
                events.push_back(event);
        }
        return events;
    };
    EXPECT_TRUE(WaitFor([&] { return own().size() >= kRequests; }));
    std::vector<Event> expected;
    for (int i = 0; i < kRequests; ++i)
        expected.push_back({kOwnNotification, i, -i});
    EXPECT_EQ(expected, own());
    EXPECT_EQ(0, m_Client.log.Count(kLogError, ""));
    // Each kind had its share.
    EXPECT_GT(m_pReceiver->GetStatistics().faultsDone, 300u);
    EXPECT_GT(m_Client.Skipped(), 100 * 16);
    EXPECT_GT(m_Client.log.Count(kLogNotice, "<== NetworkThread got exceptional event"), 20);
}

}  // namespace
}  // namespace sr_test
