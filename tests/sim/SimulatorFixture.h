#ifndef TESTS_SIM_SIMULATORFIXTURE_H_
#define TESTS_SIM_SIMULATORFIXTURE_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "RawClient.h"
#include "simulator/ReceiverSimulator.h"

namespace sim_test {

using simulator::RecordSize;
using simulator::Sender;

constexpr size_t kFrameSize = 40;  // prefix, command byte, 32 bytes
constexpr size_t kNotifySize = 20;
constexpr size_t kListHeadSize = kFrameSize;

inline Sender MakeSender(int32_t key, const std::string& name = "a") {
    Sender sender;
    sender.key = key;
    sender.userName = name;
    return sender;
}

/// The keys of a list of short records, as they stand there.
inline std::string KeysOf(const std::string& shortList) {
    std::string keys;
    for (size_t at = kListHeadSize; at < shortList.size(); at += 64)
        keys += shortList.substr(at, 4);
    return keys;
}

/// A simulator on an address of its own and one client.
class SimulatorFixture : public ::testing::Test {
protected:
    SimulatorFixture() {
        m_Options.address = OwnAddress();
        m_Options.port = 0;
        m_Options.records = RecordSize::Short;
    }

    // The observer's members are gone before those of this class.
    void TearDown() override { m_pSim.reset(); }

    void Start() {
        m_pSim = std::make_unique<simulator::ReceiverSimulator>(m_Options, m_Observer);
        const std::error_code error = m_pSim->Start();
        ASSERT_FALSE(error) << error.message();
    }

    /// Returns once the simulator counts it.
    std::unique_ptr<RawClient> Connect(int receiveBuffer = 0) {
        const size_t before = m_pSim->ClientCount();
        auto client = std::make_unique<RawClient>(m_Options.address, m_pSim->Port(), receiveBuffer);
        EXPECT_TRUE(client->IsConnected());
        EXPECT_TRUE(WaitFor([&] { return m_pSim->ClientCount() > before; }));
        return client;
    }

    void StartAndConnect() {
        Start();
        m_pClient = Connect();
    }

    bool Update(const Sender& sender) {
        return m_pSim->ChangeSender(sender.key, [&](Sender& found) { found = sender; });
    }

    std::string Ask(const std::string& request, size_t answerSize = kFrameSize) {
        return Ask(*m_pClient, request, answerSize);
    }

    static std::string Ask(RawClient& client, const std::string& request, size_t answerSize) {
        EXPECT_TRUE(client.Send(request));
        return client.Receive(answerSize);
    }

    std::string ListOfShort(const std::string& request, size_t count) {
        return Ask(request, kListHeadSize + count * 64);
    }

    // Whatever was queued before the answer would be received in its place.
    void ExpectNothingQueued(RawClient& client) {
        const simulator::Moderator moderator = m_pSim->GetModerator();
        ASSERT_EQ(0, moderator.id);
        ASSERT_TRUE(client.Send(Frame32("20", "01")));
        EXPECT_EQ(Frame32("21"), client.Receive(kFrameSize));
    }

    simulator::Options m_Options;
    simulator::Observer m_Observer;
    std::unique_ptr<simulator::ReceiverSimulator> m_pSim;
    std::unique_ptr<RawClient> m_pClient;
};

}  // namespace sim_test

#endif  // TESTS_SIM_SIMULATORFIXTURE_H_
