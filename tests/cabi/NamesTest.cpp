#include <gtest/gtest.h>

#include "tests/cabi/ReceiverAnswers.h"

namespace sr_test {
namespace {

class NamesTest : public testing::TestWithParam<const char*> {};

TEST_P(NamesTest, ApplicationAndLibraryKeepTheirOwnOfTheSameName) {
    AnsweringPeer peer(AllAnswers());
    EXPECT_EQ(ExitedWith(0), RunProgram(GetParam(), {SR_LIBRARY, peer.Address()}));
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
INSTANTIATE_TEST_SUITE_P(Positions, NamesTest, testing::Values("cabi_names"));
#else
INSTANTIATE_TEST_SUITE_P(Positions, NamesTest, testing::Values("cabi_names", "cabi_names_fixed"));
#endif

}  // namespace
}  // namespace sr_test
