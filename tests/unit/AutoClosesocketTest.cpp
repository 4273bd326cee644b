#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "TeskClient/ThdSafeSocket.h"

namespace {

class AutoClosesocketTest : public testing::Test {
protected:
    ~AutoClosesocketTest() override {
        for (const int fd : m_Made) {
            if (IsOpen(fd))
                close(fd);
        }
    }

    int Make() {
        m_Made.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        EXPECT_NE(-1, m_Made.back());
        return m_Made.back();
    }

    static bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

private:
    std::vector<int> m_Made;
};

TEST_F(AutoClosesocketTest, ClosesAtTheEnd) {
    const int fd = Make();
    {
        auto_closesocket owner(fd);
        EXPECT_FALSE(owner.released);
        EXPECT_TRUE(IsOpen(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
}

TEST_F(AutoClosesocketTest, LeavesAReleasedDescriptorOpen) {
    const int fd = Make();
    {
        auto_closesocket owner(fd);
        owner.released = true;
    }
    EXPECT_TRUE(IsOpen(fd));
}

TEST_F(AutoClosesocketTest, HoldingNothingClosesNothing) {
    errno = 0;
    {
        auto_closesocket owner;
        auto_closesocket none(-1);
    }
    EXPECT_EQ(0, errno) << "a close of -1 sets EBADF";
}

TEST_F(AutoClosesocketTest, CopyTakesTheDescriptorOver) {
    const int fd = Make();
    {
        auto_closesocket copy;
        {
            auto_closesocket source(fd);
            auto_closesocket first(source);
            copy = first;
        }
        EXPECT_TRUE(IsOpen(fd)) << "the sources hold nothing any more";
    }
    EXPECT_FALSE(IsOpen(fd));
}

TEST_F(AutoClosesocketTest, CopyOfAConstantTakesTheDescriptorOver) {
    const int fd = Make();
    {
        const auto_closesocket source(fd);
        {
            const auto_closesocket copy(source);
            EXPECT_TRUE(IsOpen(fd));
        }
        EXPECT_FALSE(IsOpen(fd));
        errno = 0;
    }
    EXPECT_EQ(0, errno) << "closed once only";
}

TEST_F(AutoClosesocketTest, AssignmentClosesWhatWasHeld) {
    const int held = Make();
    const int taken = Make();
    {
        auto_closesocket owner(held);
        auto_closesocket source(taken);
        owner = source;
        EXPECT_FALSE(IsOpen(held));
        EXPECT_TRUE(IsOpen(taken));
    }
    EXPECT_FALSE(IsOpen(taken));
}

TEST_F(AutoClosesocketTest, AssignmentToItselfKeepsTheDescriptor) {
    const int fd = Make();
    {
        auto_closesocket owner(fd);
        const auto_closesocket& same = owner;
        owner = same;
        EXPECT_TRUE(IsOpen(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
}

TEST_F(AutoClosesocketTest, GrowingVectorClosesNothing) {
    std::vector<int> fds;
    {
        std::vector<auto_closesocket> owners;
        for (int i = 0; i < 20; ++i) {
            fds.push_back(Make());
            owners.push_back(auto_closesocket(fds.back()));
            for (const int fd : fds)
                ASSERT_TRUE(IsOpen(fd));
        }
        owners[7].released = true;
    }
    for (size_t i = 0; i < fds.size(); ++i)
        EXPECT_EQ(i == 7, IsOpen(fds[i])) << i;
}

TEST_F(AutoClosesocketTest, VectorThatGrowsAfterAReleaseKeepsItReleased) {
    const int fd = Make();
    {
        std::vector<auto_closesocket> owners;
        owners.push_back(auto_closesocket(fd));
        owners[0].released = true;
        for (int i = 0; i < 20; ++i)
            owners.push_back(auto_closesocket(Make()));
    }
    EXPECT_TRUE(IsOpen(fd));
}

}  // namespace
