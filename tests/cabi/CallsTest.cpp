#include <gtest/gtest.h>

#include "tests/cabi/ReceiverAnswers.h"

namespace sr_test {
namespace {

using std::chrono::seconds;

class CallsTest : public testing::Test {
protected:
    CallsTest() : m_Script(AllAnswers()) {}

    End RunAgainstPeer(const std::string& mode) {
        AnsweringPeer peer(m_Script);
        const End end = RunProgram("cabi_calls", {mode, peer.Address()}, seconds(30));
        m_Requests = peer.Requests();
        return end;
    }

    void ExpectEveryRequest() {
        const char* const expected[] = {
            "52 65 63 76 49 50 43 10 01",
            "52 65 63 76 49 50 43 1a 01",
            "52 65 63 76 49 50 43 1c 01",
            "52 65 63 76 49 50 43 20 01",
            "52 65 63 76 49 50 43 22 ff ff ff ff 02",
            "52 65 63 76 49 50 43 12 01 02 03 04 07",
            "52 65 63 76 49 50 43 14 7f ff ff ff",
            "52 65 63 76 49 50 43 1e 80 00 00 00",
            "52 65 63 76 49 50 43 16",
            "52 65 63 76 49 50 43 18",
        };
        ASSERT_EQ(std::size(expected), m_Requests.size());
        for (size_t i = 0; i < m_Requests.size(); ++i)
            EXPECT_EQ(Padded(Hex(expected[i]), 40), m_Requests[i]);
    }

    AnsweringPeer::Script m_Script;
    std::vector<std::string> m_Requests;
};

TEST_F(CallsTest, EveryFunctionWithTheFlagOn) {
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("all-true"));
    ExpectEveryRequest();
}

TEST_F(CallsTest, EveryFunctionWithTheFlagOff) {
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("all-false"));
    ExpectEveryRequest();
}

TEST_F(CallsTest, ErrorCodeFollowsEachCall) {
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("codes"));
}

TEST_F(CallsTest, NotificationsReachTheCallbackUntilItIsRemoved) {
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("notify"));
}

TEST_F(CallsTest, EveryFunctionButInitWorksInsideTheCallback) {
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("inside-callback"));
}

TEST_F(CallsTest, TwoThreadsAtOnceGetTheirOwnAnswers) {
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("two-threads"));
}

TEST_F(CallsTest, InitMayBeRepeated) {
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("init-again"));
}

TEST_F(CallsTest, AddressThatIsNoneShowsInTheCodeAndTheNextInitWorks) {
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("no-address"));
}

TEST_F(CallsTest, ListBeforeInitLeavesThePointerAlone) {
    EXPECT_EQ(ExitedWith(0), RunProgram("cabi_calls", {"before-init-list"}));
}

TEST_F(CallsTest, ModeratorSettingsBeforeInitAreZero) {
    EXPECT_EQ(ExitedWith(0), RunProgram("cabi_calls", {"before-init-moderator"}));
}

TEST_F(CallsTest, CallbackAndCodeNeedNoInit) {
    EXPECT_EQ(ExitedWith(0), RunProgram("cabi_calls", {"before-init-rest"}));
}

TEST_F(CallsTest, ModeratorSettingsThatDoNotComeAreZero) {
    m_Script.answers.erase(32);
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("time-out"));
}

TEST_F(CallsTest, ListThatFailsLeavesThePointerAlone) {
    m_Script.answers.erase(16);
    m_Script.closing.insert(16);
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("list-fails"));
}

TEST_F(CallsTest, LinkBrokenInMidListLeavesZeroRecords) {
    m_Script.answers[16].resize(40 + 64 + 20);
    m_Script.closing.insert(16);
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("list-breaks"));
}

TEST_F(CallsTest, ModeratorSettingsAreCopiedWhateverTheResult) {
    m_Script.answers[32] = Hex("52 65 63 76 49 50 43 21 00 00 01 00");
    m_Script.closing.insert(32);
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("moderator-breaks"));
}

TEST_F(CallsTest, LongestPossibleNameFitsTheRecord) {
    m_Script.answers[26] =
        Padded(Hex("52 65 63 76 49 50 43 1b 00 01 01"), 40) + std::string(128, 'N');
    EXPECT_EQ(ExitedWith(0), RunAgainstPeer("endless-name"));
}

}  // namespace
}  // namespace sr_test
