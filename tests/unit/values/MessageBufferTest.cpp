#include "MessageBuffer.h"
#include "ChildProgram.h"
#include "LiteUtility.h"
#include "MavixAssert.h"

#include <gtest/gtest.h>

using namespace MavixTest;

MAVIX_CHILD(ReadPastTheEnd) {
    MavixApiLite::TCMessageBuffer buffer;
    buffer.PushInt(1);
    buffer.PushChar('a');
    int value = 77;
    buffer.ReadInt(&value, 2);
    return value;
}

TEST(MessageBuffer, ReadPastTheEndAborts) {
    const ChildResult result = RunChildProgram("ReadPastTheEnd");
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
}

TEST(MessageBuffer, ReadPastTheEndLeavesTheOutputOnARelease) {
    if (!CanChooseFlavour()) {
        GTEST_SKIP() << noFlavourReason;
    }
    const ChildResult result = RunChildProgram("ReadPastTheEnd", releaseFlavour);
    EXPECT_EQ(77, result.exitCode) << result.errors;
    EXPECT_EQ(0, result.signal) << result.errors;
}
