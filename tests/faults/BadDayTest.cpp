#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "tests/faults/FaultFixture.h"

namespace sr_test {
namespace {

/// The shipped bad day, and what its timeline did.
class BadDayTest : public testing::Test {
protected:
    void SetUp() override {
        simulator::Options options;
        options.address = UniqueAddress();
        simulator::Observer observer;
        observer.timeline = [this](const std::string& command, const std::string& answer) {
            if (answer != "ok")
                m_bAllDone = false;
            if (command == "fault off")
                m_bOver = true;
        };
        m_pReceiver = std::make_unique<simulator::ReceiverSimulator>(options, observer);
        std::string error;
        const auto scenario = simulator::Scenario::Load(SCENARIO_FOLDER "/bad-day.json", error);
        ASSERT_TRUE(scenario) << error;
        ASSERT_FALSE(m_pReceiver->Play(*scenario));
        ASSERT_FALSE(m_pReceiver->Start());
    }

    bool Connect(ScreenReceiverStub& client) const {
        return client.Init(m_pReceiver->Address().c_str(), false) == 0;
    }

    std::atomic<bool> m_bAllDone{true};
    std::atomic<bool> m_bOver{false};
    std::unique_ptr<simulator::ReceiverSimulator> m_pReceiver;
};

TEST_F(BadDayTest, ClientThatConnectsAgainGetsThroughIt) {
    ScreenReceiverStub client;
    ASSERT_TRUE(Connect(client));
    std::vector<ScreenSenderInfo> senders;
    ScreenReceiverStub::ModeratorInfo moderator{};
    int failures = 0;
    while (!m_bOver) {
        if (client.GetSenderList(senders) == 0 && client.GetValidSenderList(senders) == 0 &&
            client.GetModeratorInfo(moderator) == 0)
            continue;
        ++failures;
        ASSERT_TRUE(Connect(client));
    }
    EXPECT_TRUE(m_bAllDone);
    EXPECT_GT(failures, 0);
    ASSERT_TRUE(Connect(client));
    EXPECT_EQ(0, client.GetModeratorInfo(moderator));
    EXPECT_EQ(1, moderator.nModeratorId);
    ASSERT_EQ(0, client.GetSenderList(senders));
    EXPECT_STREQ("Ada Lovelace", senders.at(0).GetUserName());
}

}  // namespace
}  // namespace sr_test
