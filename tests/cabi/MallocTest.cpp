#include <gtest/gtest.h>

#include "tests/cabi/ReceiverAnswers.h"

namespace sr_test {
namespace {

TEST(MallocTest, CallThatRunsOutOfMemoryFailsWithTheCodeAndLeavesThePointerAlone) {
    AnsweringPeer::Script script = AllAnswers();
    for (const int code : {26, 28}) {
        script.answers[code] = script.answers[16];
        script.answers[code][7] = static_cast<char>(code + 1);
    }
    AnsweringPeer peer(script);
    EXPECT_EQ(ExitedWith(0), RunProgram("cabi_malloc", {peer.Address()}, std::chrono::seconds(20)));
}

}  // namespace
}  // namespace sr_test
