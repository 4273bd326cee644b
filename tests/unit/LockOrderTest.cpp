#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "common/LockOrder.h"

namespace {

// With the check in the type itself, no build can lay out its classes differently.
static_assert(sizeof(OrderedMutex<LockRank::Send>) == sizeof(boost::recursive_mutex),
              "no bytes added");

class LockOrderTest : public testing::Test {
protected:
    OrderedMutex<LockRank::Connection> m_Low;   // 10
    OrderedMutex<LockRank::Receive> m_Middle;   // 20
    OrderedMutex<LockRank::Receive> m_Middle2;  // 20 as well
    OrderedMutex<LockRank::ErrorState> m_High;  // 80
};

using LockOrderDeathTest = LockOrderTest;

TEST_F(LockOrderTest, RanksAreThoseOfTheTable) {
    EXPECT_EQ(5, static_cast<int>(LockRank::Request));
    EXPECT_EQ(10, static_cast<int>(LockRank::Connection));
    EXPECT_EQ(20, static_cast<int>(LockRank::Receive));
    EXPECT_EQ(25, static_cast<int>(LockRank::Events));
    EXPECT_EQ(30, static_cast<int>(LockRank::Send));
    EXPECT_EQ(40, static_cast<int>(LockRank::AnswerWait));
    EXPECT_EQ(45, static_cast<int>(LockRank::EventWait));
    EXPECT_EQ(50, static_cast<int>(LockRank::SocketSend));
    EXPECT_EQ(55, static_cast<int>(LockRank::SocketReceive));
    EXPECT_EQ(80, static_cast<int>(LockRank::ErrorState));
    EXPECT_EQ(90, static_cast<int>(LockRank::Log));
}

TEST_F(LockOrderDeathTest, FallingRankAborts) {
    EXPECT_EXIT(
        {
            m_Middle.lock();
            m_Low.lock();
        },
        testing::KilledBySignal(SIGABRT), "lock order broken: rank 10 taken while rank 20 is held");
}

TEST_F(LockOrderDeathTest, SameRankOfAnotherMutexAborts) {
    EXPECT_EXIT(
        {
            m_Middle.lock();
            m_Middle2.lock();
        },
        testing::KilledBySignal(SIGABRT), "lock order broken: rank 20 taken while rank 20 is held");
}

TEST_F(LockOrderDeathTest, LowerRankUnderTheSecondOfTwoAborts) {
    EXPECT_EXIT(
        {
            m_Low.lock();
            m_High.lock();
            m_Middle.lock();
        },
        testing::KilledBySignal(SIGABRT), "lock order broken: rank 20 taken while rank 80 is held");
}

TEST_F(LockOrderDeathTest, ScopedLockIsCheckedToo) {
    EXPECT_EXIT(
        {
            OrderedMutex<LockRank::ErrorState>::scoped_lock high(m_High);
            OrderedMutex<LockRank::Connection>::scoped_lock low(m_Low);
        },
        testing::KilledBySignal(SIGABRT), "lock order broken: rank 10 taken while rank 80 is held");
}

// A recursive mutex that was taken twice is still held after one unlock.
TEST_F(LockOrderDeathTest, MutexTakenTwiceIsHeldUntilTheSecondUnlock) {
    EXPECT_EXIT(
        {
            m_Middle.lock();
            m_Middle.lock();
            m_Middle.unlock();
            m_Low.lock();
        },
        testing::KilledBySignal(SIGABRT), "lock order broken: rank 10 taken while rank 20 is held");
}

TEST_F(LockOrderDeathTest, MutexGotByTryingCountsAsHeld) {
    EXPECT_EXIT(
        {
            if (m_Middle.try_lock())
                m_Low.lock();
        },
        testing::KilledBySignal(SIGABRT), "lock order broken: rank 10 taken while rank 20 is held");
}

TEST_F(LockOrderTest, RisingRanksAreAllowed) {
    m_Low.lock();
    m_Middle.lock();
    m_High.lock();
    EXPECT_EQ(3, lock_order::t_Held.count);
    m_High.unlock();
    m_Middle.unlock();
    m_Low.unlock();
    EXPECT_EQ(0, lock_order::t_Held.count);
}

TEST_F(LockOrderTest, SameMutexAgainIsAllowed) {
    m_Middle.lock();
    m_Middle.lock();
    EXPECT_EQ(2, lock_order::t_Held.count);
    m_Middle.unlock();
    m_Middle.unlock();
    EXPECT_EQ(0, lock_order::t_Held.count);
}

TEST_F(LockOrderTest, SameMutexAgainIsAllowedUnderAHigherOne) {
    m_Low.lock();
    m_High.lock();
    m_Low.lock();
    EXPECT_EQ(3, lock_order::t_Held.count);
    m_Low.unlock();
    m_High.unlock();
    m_Low.unlock();
    EXPECT_EQ(0, lock_order::t_Held.count);
}

TEST_F(LockOrderTest, LowerRankIsAllowedOnceTheHigherOneIsReleased) {
    m_High.lock();
    m_High.unlock();
    m_Low.lock();
    EXPECT_EQ(1, lock_order::t_Held.count);
    m_Low.unlock();
}

TEST_F(LockOrderTest, ReleaseInAnyOrderIsFollowed) {
    m_Low.lock();
    m_Middle.lock();
    m_Low.unlock();
    ASSERT_EQ(1, lock_order::t_Held.count);
    EXPECT_EQ(&m_Middle, lock_order::t_Held.held[0].mutex);
    m_Middle.unlock();
    EXPECT_EQ(0, lock_order::t_Held.count);
}

TEST_F(LockOrderTest, TryingChecksNoRank) {
    m_High.lock();
    EXPECT_TRUE(m_Low.try_lock());
    m_Low.unlock();
    m_High.unlock();
    EXPECT_EQ(0, lock_order::t_Held.count);
}

TEST_F(LockOrderTest, FailedTryHoldsNothing) {
    m_Low.lock();
    bool taken = true;
    int held = 1;
    std::thread([&] {
        taken = m_Low.try_lock();
        held = lock_order::t_Held.count;
    }).join();
    m_Low.unlock();
    EXPECT_FALSE(taken);
    EXPECT_EQ(0, held);
}

TEST_F(LockOrderTest, LocksOfAnotherThreadDoNotCount) {
    m_High.lock();
    bool taken = false;
    std::thread([&] {
        m_Low.lock();
        taken = true;
        m_Low.unlock();
    }).join();
    m_High.unlock();
    EXPECT_TRUE(taken);
}

}  // namespace
