#include <gtest/gtest.h>

#include "tests/cabi/ReceiverAnswers.h"

namespace sr_test {
namespace {

TEST(NamesTest, ApplicationAndLibraryKeepTheirOwnOfTheSameName) {
    AnsweringPeer peer(AllAnswers());
    EXPECT_EQ(ExitedWith(0), RunProgram("cabi_names", {SR_LIBRARY, peer.Address()}));
}

}  // namespace
}  // namespace sr_test
