#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "TeskClient/DescriptorSet.h"
#include "tests/support/Emulation.h"

namespace {

class DescriptorSetTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, pipe2(m_Pipe, O_CLOEXEC)); }

    void TearDown() override {
        for (const int fd : {m_Pipe[0], m_Pipe[1], m_High}) {
            if (fd != -1)
                close(fd);
        }
    }

    // The pipe's reading end under a number of at least `lowest`; false when the system allows
    // none.
    bool RaiseReadingEnd(int lowest) {
        rlimit limit;
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        m_High = fcntl(m_Pipe[0], F_DUPFD_CLOEXEC, lowest);
        return m_High >= lowest;
    }

    static int SelectReadable(DescriptorSet& set, int fd) {
        timeval none = {0, 0};
        return select(fd + 1, set.Get(), nullptr, nullptr, &none);
    }

    int m_Pipe[2] = {-1, -1};
    int m_High = -1;
};

TEST_F(DescriptorSetTest, HasWhatWasAddedAndNothingElse) {
    DescriptorSet set(2000);
    for (const int fd : {0, 1, 63, 64, 1023, 1024, 2000})
        set.Add(fd);
    for (int fd = 0; fd <= 2000; ++fd) {
        const bool added =
            fd == 0 || fd == 1 || fd == 63 || fd == 64 || fd == 1023 || fd == 1024 || fd == 2000;
        EXPECT_EQ(added, set.Has(fd)) << fd;
    }
}

TEST_F(DescriptorSetTest, NewSetIsEmpty) {
    const DescriptorSet set(200);
    for (int fd = 0; fd <= 200; ++fd)
        EXPECT_FALSE(set.Has(fd)) << fd;
}

// Every size at the edge of a word; AddressSanitizer sees a set that is a word too short.
TEST_F(DescriptorSetTest, HoldsItsLargestDescriptor) {
    for (int largest = 0; largest <= 1100; ++largest) {
        DescriptorSet set(largest);
        set.Add(largest);
        ASSERT_TRUE(set.Has(largest)) << largest;
    }
}

TEST_F(DescriptorSetTest, BitsLieWhereThePlatformExpectsThem) {
    DescriptorSet set(FD_SETSIZE - 1);
    for (const int fd : {3, 31, 32, 63, 64, 100, 1023})
        set.Add(fd);
    for (int fd = 0; fd < FD_SETSIZE; ++fd)
        EXPECT_EQ(set.Has(fd), FD_ISSET(fd, set.Get()) != 0) << fd;
}

TEST_F(DescriptorSetTest, SelectTakesAwayWhatIsNotReady) {
    DescriptorSet set(m_Pipe[0]);
    set.Add(m_Pipe[0]);
    EXPECT_EQ(0, SelectReadable(set, m_Pipe[0]));
    EXPECT_FALSE(set.Has(m_Pipe[0]));
}

TEST_F(DescriptorSetTest, SelectLeavesWhatIsReady) {
    ASSERT_EQ(1, write(m_Pipe[1], "x", 1));
    DescriptorSet set(m_Pipe[0]);
    set.Add(m_Pipe[0]);
    EXPECT_EQ(1, SelectReadable(set, m_Pipe[0]));
    EXPECT_TRUE(set.Has(m_Pipe[0]));
}

TEST_F(DescriptorSetTest, SelectWorksBeyondTheFixedSetsEnd) {
    if (sr_test::kEmulated)
        GTEST_SKIP() << "the emulator's own select() aborts at a descriptor of 1024 and more";
    if (!RaiseReadingEnd(1500))
        GTEST_SKIP() << "the system allows no descriptor of 1500";
    DescriptorSet idle(m_High);
    idle.Add(m_High);
    EXPECT_EQ(0, SelectReadable(idle, m_High));
    EXPECT_FALSE(idle.Has(m_High));

    ASSERT_EQ(1, write(m_Pipe[1], "x", 1));
    DescriptorSet ready(m_High);
    ready.Add(m_High);
    EXPECT_EQ(1, SelectReadable(ready, m_High));
    EXPECT_TRUE(ready.Has(m_High));
}

}  // namespace
