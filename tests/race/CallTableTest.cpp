#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "ScreenReceiver/ScreenReceiver.h"
#include "simulator/ReceiverSimulator.h"
#include "tests/support/ScriptedPeer.h"

// The README's table: which function may be called where, and how long it blocks at most. Every
// case is a process of its own, so each starts with an object that never connected.

namespace sr_test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSenders = 3;
constexpr int kErrReentered = -6527002;

enum class Kind { Init, List, Request, Immediate };

struct Function {
    const char* name;
    Kind kind;
    int (*call)(const char* host);  // 0 when it did what it should
};

std::ostream& operator<<(std::ostream& out, const Function& function) {
    return out << function.name;
}

int ListWith(int (*list)(ScreenSenderRecord***)) {
    ScreenSenderRecord** senders = nullptr;
    const int count = list(&senders);
    for (int i = 0; i < count; ++i)
        std::free(senders[i]);
    std::free(senders);
    if (count == 0)
        return -1;
    return count == kSenders ? 0 : count;
}

int Ignore(int, int, int) {
    return 0;
}

// The receiver accepts all of these on their own, in any order and any number of times at once, but
// for the result 2 or 3 of a sender that is shown, or not shown, already.
int AcceptShown(int result) {
    return result == 2 || result == 3 ? 0 : result;
}

const Function kFunctions[] = {
    {"Init", Kind::Init, [](const char* host) { return Init(host, false); }},
    {"GetSenderList", Kind::List, [](const char*) { return ListWith(GetSenderList); }},
    {"GetNonLocalSenderList", Kind::List,
     [](const char*) { return ListWith(GetNonLocalSenderList); }},
    {"GetValidSenderList", Kind::List, [](const char*) { return ListWith(GetValidSenderList); }},
    {"GetModeratorInfo", Kind::Request,
     [](const char*) {
         ModeratorInfo info = {-1, 9};
         return GetModeratorInfo(&info);
     }},
    {"SetModeratorInfo", Kind::Request,
     [](const char*) {
         const ModeratorInfo info = {2, 1};
         return SetModeratorInfo(&info);
     }},
    {"StartPlayImage", Kind::Request,
     [](const char*) { return AcceptShown(StartPlayImage(1, 1)); }},
    {"StopPlayImage", Kind::Request, [](const char*) { return AcceptShown(StopPlayImage(1)); }},
    {"ForceSenderLogout", Kind::Request,
     [](const char*) { return ForceSenderLogout(999) == 1 ? 0 : GetErrorCode(); }},
    {"RefreshConfCtrlTimer", Kind::Request, [](const char*) { return RefreshConfCtrlTimer(); }},
    {"QuitConfCtrl", Kind::Request, [](const char*) { return QuitConfCtrl(); }},
    {"SetScrRcvNotifyCB", Kind::Immediate,
     [](const char*) {
         SetScrRcvNotifyCB(Ignore);
         return 0;
     }},
    {"GetErrorCode", Kind::Immediate,
     [](const char*) {
         GetErrorCode();
         return 0;
     }},
};

std::atomic<bool> s_bNotified{false};
std::atomic<int> s_nResult{0};
std::function<int()> s_CallInside;

int CallInside(int, int, int) {
    if (!s_bNotified) {
        s_nResult = s_CallInside();
        s_bNotified = true;
    }
    return 0;
}

class CallTableTest : public testing::TestWithParam<Function> {
protected:
    CallTableTest() : m_Address(UniqueAddress()), m_Receiver(OptionsFor(m_Address)) {
        for (int key = 1; key <= kSenders; ++key) {
            simulator::Sender sender;
            sender.key = key;
            m_Receiver.AddSender(sender);
        }
    }

    void SetUp() override { ASSERT_FALSE(m_Receiver.Start()); }

    int Call() const { return GetParam().call(m_Address.c_str()); }
    bool IsRequest() const {
        return GetParam().kind == Kind::List || GetParam().kind == Kind::Request;
    }

    static simulator::Options OptionsFor(const std::string& address) {
        simulator::Options options;
        options.address = address;
        return options;
    }

    std::string m_Address;
    simulator::ReceiverSimulator m_Receiver;
};

TEST_P(CallTableTest, InsideTheCallback) {
    s_CallInside = [this] { return Call(); };
    SetScrRcvNotifyCB(CallInside);
    ASSERT_EQ(0, Init(m_Address.c_str(), false));
    ASSERT_TRUE(WaitFor([this] { return m_Receiver.ClientCount() == 1; }));
    m_Receiver.Notify(1, 2, 3);
    ASSERT_TRUE(WaitFor([] { return s_bNotified.load(); }));
    EXPECT_EQ(GetParam().kind == Kind::Init ? kErrReentered : 0, s_nResult);
    EXPECT_EQ(1u, m_Receiver.ClientCount());
    SetScrRcvNotifyCB(nullptr);
}

TEST_P(CallTableTest, OnTwoThreadsAtOnce) {
    ASSERT_EQ(0, Init(m_Address.c_str(), false));
    std::atomic<int> failures{0};
    const auto calls = [&] {
        for (int i = 0; i < 20; ++i) {
            // Of two threads that call Init, one may find the other's connection in its way, or
            // have its attempt ended by the other.
            const int result = Call();
            if (result != 0 && GetParam().kind != Kind::Init)
                ++failures;
        }
    };
    std::thread other(calls);
    calls();
    other.join();
    EXPECT_EQ(0, failures);
    EXPECT_TRUE(WaitFor([this] { return m_Receiver.ClientCount() <= 1; }));
    ASSERT_EQ(0, Init(m_Address.c_str(), false));
    EXPECT_EQ(0, ListWith(GetSenderList));
    EXPECT_TRUE(WaitFor([this] { return m_Receiver.ClientCount() == 1; }));
}

TEST_P(CallTableTest, BeforeInit) {
    const auto start = Clock::now();
    const int result = Call();
    const auto took = Clock::now() - start;
    if (!IsRequest()) {
        EXPECT_EQ(0, result);
        return;
    }
    EXPECT_LT(result, 0);
    EXPECT_LT(GetErrorCode(), 0);
    EXPECT_GE(took, milliseconds(4900));
    EXPECT_LT(took, milliseconds(9000));
}

TEST_P(CallTableTest, WhileTheConnectionIsTornDown) {
    ScriptedPeer silent;
    ASSERT_EQ(0, Init(silent.Host(), false));
    ASSERT_TRUE(silent.Accept());
    std::atomic<int> result{1};
    std::thread caller([&] { result = Call(); });
    if (IsRequest()) {
        ASSERT_EQ(40u, silent.Receive(40).size());
    }
    const auto start = Clock::now();
    silent.Close();
    caller.join();
    // Far below the 10 s of a time-out; the machine may be busy.
    EXPECT_LT(Clock::now() - start, milliseconds(5000));
    if (IsRequest())
        EXPECT_LT(result, 0);
    else
        EXPECT_EQ(0, result);
}

TEST_P(CallTableTest, BlocksAtMost) {
    ScriptedPeer silent;
    ASSERT_EQ(0, Init(silent.Host(), false));
    ASSERT_TRUE(silent.Accept());
    const auto start = Clock::now();
    const int result = Call();
    const auto took = Clock::now() - start;
    if (IsRequest()) {
        EXPECT_LT(result, 0);
        EXPECT_EQ(-6528101, GetErrorCode());
        EXPECT_GE(took, milliseconds(9900));
        EXPECT_LT(took, milliseconds(20000));
    } else {
        EXPECT_LT(took, milliseconds(13000));
    }
}

INSTANTIATE_TEST_SUITE_P(EveryFunction,
                         CallTableTest,
                         testing::ValuesIn(kFunctions),
                         [](const testing::TestParamInfo<Function>& function) {
                             return std::string(function.param.name);
                         });

}  // namespace
}  // namespace sr_test
